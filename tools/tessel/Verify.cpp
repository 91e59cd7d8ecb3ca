// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Verify.h"

#include "tools/tessel/SlotScan.h"
#include "tools/tessel/Text.h"

#include <algorithm>
#include <chrono>
#include <iomanip>
#include <span>
#include <thread>

namespace TesselTool {

namespace {

using Vellum::VellumChunk;
using namespace std::chrono_literals;

struct Flaw {
   U64 offset = 0;
   std::string text{}; ///< empty: none
};

/// The first byte of `bytes`, a part of the slot's, that is not zero; npos when all are.
std::size_t firstNonZero( std::string_view bytes ) {
   return bytes.find_first_not_of( '\0' );
}

/// What is wrong with a slot by itself.
Flaw flawOf( Slot const& slot ) {
   auto const valid = static_cast<U8>( slot.bytes().front() );
   if ( valid == 0 ) {
      std::size_t const at = firstNonZero( slot.bytes() );
      return at == std::string_view::npos
                ? Flaw{}
                : Flaw{ slot.offset() + at,
                        joined( "slot ", slot.index(), " is free, but not all zero" ) };
   }
   if ( valid != 1 ) {
      return { slot.offset(),
               joined( "slot ",
                       slot.index(),
                       " has the valid byte 0x",
                       std::hex,
                       std::setw( 2 ),
                       std::setfill( '0' ),
                       U32{ valid },
                       ", neither 0 nor 1" ) };
   }
   std::size_t const at = firstNonZero( slot.padding() );
   return at == std::string_view::npos
             ? Flaw{}
             : Flaw{ slot.offset() + slot.bytes().size() - slot.padding().size() + at,
                     joined( "slot ", slot.index(), " has padding that is not zero" ) };
}

/// Slots that looked wrong, to be looked at again: one that a writer had begun is finished by then.
class Suspects {
 public:
   Suspects( VellumChunk const& chunk,
             PlannedTable const& table,
             std::function<void()> const& pause )
         : chunk_( chunk ), table_( table ), pause_( pause ) {}

   void add( U32 index ) {
      constexpr std::size_t most = 4096;
      indices_.push_back( index );
      if ( indices_.size() == most ) {
         settle();
      }
   }

   /// Keeps those that stay wrong.
   void settle() {
      // One writer has one slot in hand, so only a few suspects are worth more patience.
      constexpr std::size_t few = 8;
      U32 const tries = indices_.size() > few ? 1 : 20;
      for ( U32 i = 0; i < tries && !indices_.empty(); ++i ) {
         pause_();
         std::erase_if( indices_, [ & ]( U32 index ) { return flawAt( index ).text.empty(); } );
      }
      wrong_.insert( wrong_.end(), indices_.begin(), indices_.end() );
      indices_.clear();
   }

   /// Slots that stayed wrong, in order.
   std::span<U32 const> wrong() const { return wrong_; }
   void report( U32 index, ReportProblem const& report ) const {
      if ( Flaw flaw = flawAt( index ); !flaw.text.empty() ) {
         report( { flaw.offset, table_.name, std::move( flaw.text ) } );
      }
   }

 private:
   Flaw flawAt( U32 index ) const {
      Slot slot( table_ );
      slot.read( chunk_, index );
      return flawOf( slot );
   }

   VellumChunk const& chunk_;
   PlannedTable const& table_;
   std::function<void()> const& pause_;
   std::vector<U32> indices_;
   std::vector<U32> wrong_;
};

struct HashedPair {
   U64 hash;
   U32 slot;

   friend auto operator<=>( HashedPair const&, HashedPair const& ) = default;
};

/// A slot whose pair seems to be that of a slot before it.
struct Doubled {
   U32 slot;
   U32 before;

   friend auto operator<=>( Doubled const&, Doubled const& ) = default;
};

/// Chip and key.
std::string_view pairIn( Slot const& slot, PlannedTable const& table ) {
   return slot.bytes().substr( 1, 1 + table.key );
}

bool holdSamePair( VellumChunk const& chunk, PlannedTable const& table, Slot& a, Slot& b ) {
   U32 const first = a.index();
   a.read( chunk, first );
   b.read( chunk, b.index() );
   // The first once more: an entry that moved from one slot to the other was never in both.
   bool const same = a.used() && b.used() && pairIn( a, table ) == pairIn( b, table );
   a.read( chunk, first );
   return same && a.used() && pairIn( a, table ) == pairIn( b, table );
}

void reportDoubled( VellumChunk const& chunk,
                    PlannedTable const& table,
                    Doubled const& doubled,
                    ReportProblem const& report ) {
   Slot a( table );
   Slot b( table );
   a.read( chunk, doubled.before );
   b.read( chunk, doubled.slot );
   if ( holdSamePair( chunk, table, a, b ) ) {
      report( { b.offset(),
                table.name,
                joined( "slot ",
                        b.index(),
                        " holds chip ",
                        U32{ b.chip() },
                        ", key ",
                        textOf( table.keyFormat, b.key() ),
                        ", which slot ",
                        a.index(),
                        " holds, too" ) } );
   }
}

/// In the order of their slots.
std::vector<Doubled> doubledAmong( std::vector<HashedPair> pairs ) {
   std::sort( pairs.begin(), pairs.end() );
   std::vector<Doubled> doubled;
   for ( std::size_t i = 1; i < pairs.size(); ++i ) {
      if ( pairs[ i ].hash == pairs[ i - 1 ].hash ) {
         doubled.push_back( { .slot = pairs[ i ].slot, .before = pairs[ i - 1 ].slot } );
      }
   }
   std::sort( doubled.begin(), doubled.end() );
   return doubled;
}

} // namespace

void pauseBriefly() {
   std::this_thread::sleep_for( 10ms );
}

void verifySlots( VellumChunk const& chunk,
                  PlannedTable const& table,
                  ReportProblem const& report,
                  std::function<void()> const& pause ) {
   Suspects suspects( chunk, table, pause );
   std::vector<HashedPair> pairs;
   forEachSlot( chunk, table, [ & ]( Slot const& slot ) {
      if ( !flawOf( slot ).text.empty() ) {
         suspects.add( slot.index() );
      }
      if ( slot.used() ) {
         pairs.push_back(
            { std::hash<std::string_view>()( pairIn( slot, table ) ), slot.index() } );
      }
   } );
   suspects.settle();
   auto wrong = suspects.wrong();
   for ( Doubled const& doubled : doubledAmong( std::move( pairs ) ) ) {
      for ( ; !wrong.empty() && wrong.front() <= doubled.slot; wrong = wrong.subspan( 1 ) ) {
         suspects.report( wrong.front(), report );
      }
      reportDoubled( chunk, table, doubled, report );
   }
   for ( U32 const index : wrong ) {
      suspects.report( index, report );
   }
}

} // namespace TesselTool
