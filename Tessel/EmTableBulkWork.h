// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The bulk calls that change an exact-match table, as templates. Internal to EmTable.
///
/// What a stage saw (Tessel/EmTableBulk.h) is where the call looks first; it compares there what the key is
/// now, since a call before it may have written where the key lies, added the pair, removed it, or let the
/// map grow. Where it does not find the pair it does what a single call does.

#include "Tessel/EmTableBulk.h"
#include "Tessel/EmTableWork.h"

namespace Tessel {

template<bool traced, class KeyClass>
class EmShadowTable::BulkWork : public EntryWork<traced, KeyClass, EmShadowTable> {
   using Entries = EntryWork<traced, KeyClass, EmShadowTable>;
   using Entries::keys;
   using Entries::table_;

 public:
   using Entries::Entries;

   template<class Result>
   static U64
   entryIs( EmShadowTable& table, std::span<EmPairAndResult const> pairs, bool* answers ) {
      BulkWork const work( table );
      Announcement const announced( work.keys() );
      BulkAnswers noted( answers );
      bool mostAreNew = false;
      for ( std::size_t begin = 0, length = firstBulkRun; begin < pairs.size();
            begin += length, length = bulkRun ) {
         auto const run = pairs.subspan( begin, std::min( length, pairs.size() - begin ) );
         work.announce( pairs.size() - begin );
         U64 const before = work.keys().size();
         // New pairs wait for little: they take one slot after the other. Of the first ones nothing is known.
         U64 const mostNotFetched = mostAreNew ? uncachedBytes : begin == 0 ? cachedBytes : 0;
         if ( traced || work.keys().bytes() <= mostNotFetched ) {
            work.template setEach<Result>( run, begin, noted );
         } else {
            work.template setEachFetching<Result>( run, begin, noted );
         }
         mostAreNew = work.keys().size() > before + run.size() / 2;
      }
      return noted.count();
   }
   template<class Result>
   static U64 entryDel( EmShadowTable& table, std::span<EmPair const> pairs, bool* answers ) {
      BulkWork const work( table );
      BulkAnswers noted( answers );
      if ( traced ) {
         for ( std::size_t at = 0; at < pairs.size(); ++at ) {
            noted.note( at, work.template del<Result>( pairs[ at ].chipId, pairs[ at ].key ) );
         }
         return noted.count();
      }
      work.template fetchingAhead<Sighting>(
         pairs,
         []( SlotLead lead, U64 position ) {
            return Sighting{ .lead = lead, .position = position };
         },
         [ & ]( std::size_t at, Sighting const& seen ) __attribute__( ( always_inline ) ) {
            noted.note( at, work.template delForeseen<Result>( pairs[ at ], seen ) );
         } );
      return noted.count();
   }

 private:
   /// A lead, and where it is in a map that does not grow meanwhile.
   struct Sighting {
      SlotLead lead;
      U64 position = Entries::Keys::nowhere;
   };

   // ---- one entry, of which firstLook() gave the lead some calls ago, or none. The slot is still that of the
   // pair that had it then, unless that has been deleted, with its image.

   template<class Result>
   [[gnu::always_inline]] bool setForeseen( EmPairAndResult const& pair, SlotLead lead ) const {
      auto const anew = [ & ]() __attribute__( ( always_inline ) ) {
         return Entries::template entryIs<Result>( table_, pair.chipId, pair.key, pair.result );
      };
      if ( !lead.saysAll() ) [[unlikely]] {
         return anew();
      }
      return this->template setAt<Result>( lead, pair.chipId, pair.key, pair.result, anew );
   }

   template<class Result>
   [[gnu::always_inline]] bool delForeseen( EmPair const& pair, Sighting const& seen ) const {
      auto const anew = [ & ]() __attribute__( ( always_inline ) ) {
         return Entries::template entryDel<Result>( table_, pair.chipId, pair.key );
      };
      if ( !seen.lead.saysAll() ) [[unlikely]] {
         return anew();
      }
      return this->template delAt<Result>( seen.lead, seen.position, pair.chipId, pair.key, anew );
   }

   // ---- many

   /// Takes back what has been announced, also when memory has run out.
   class Announcement {
    public:
      explicit Announcement( typename Entries::Keys& keys ) : keys_( keys ) {}
      Announcement( Announcement const& ) = delete;
      Announcement& operator=( Announcement const& ) = delete;
      ~Announcement() { keys_.announce( 0 ); }

    private:
      typename Entries::Keys& keys_;
   };

   void announce( std::size_t pairs ) const {
      U32 const free = table_.isFull() ? 0 : table_.numEntries_ - table_.numUsedEntries_;
      keys().announce( std::min<U64>( pairs, free ) );
   }

   /// The free slots that a word of the bitmap tells of, for new pairs one after the other. What that changes
   /// in the bitmap and in the counts is kept here until settle(), which has to come before anything else is
   /// asked of the table.
   class FreeSlots {
    public:
      explicit FreeSlots( EmShadowTable& table, typename Entries::Keys& keys )
            : table_( table ), keys_( keys ) {}
      FreeSlots( FreeSlots const& ) = delete;
      FreeSlots& operator=( FreeSlots const& ) = delete;
      ~FreeSlots() { settle(); }

      /// Whether there is one, and room for its pair in the map.
      [[gnu::always_inline]] bool any() {
         if ( free_ == 0 ) [[unlikely]] {
            settle();
            given_ = free_ = nextWord();
         }
         return free_ != 0;
      }
      /// Takes the lowest one.
      [[gnu::always_inline]] EmTableIndex take() {
         EmTableIndex const slot( first_ + static_cast<U32>( std::countr_zero( free_ ) ) );
         free_ &= free_ - 1;
         return slot;
      }
      [[gnu::always_inline]] void settle() {
         U64 const taken = given_ ^ free_;
         if ( taken != 0 ) {
            U32 const count = static_cast<U32>( std::popcount( taken ) );
            table_.freeIndexBmp_->toggleIn( first_ / wordBits, taken );
            table_.numUsedEntries_ += count;
            keys_.countPut( count );
         }
         given_ = free_ = 0;
      }

    private:
      static constexpr U32 wordBits = Brine::HBitmap::wordBits;

      /// The free slots of the first word that has some, from first_ on; no more than the map has room for.
      U64 nextWord() {
         U32 const lowest = table_.freeIndexBmp_->lowestUntoggled();
         if ( table_.ownedSize() == 0 || lowest == Brine::HBitmap::invalidIndex ) {
            return 0;
         }
         first_ = lowest / wordBits * wordBits;
         U64 free = ~table_.freeIndexBmp_->toggledIn( first_ / wordBits );
         if ( U32 const slots = table_.numEntries_ - first_; slots < wordBits ) {
            free &= ( U64{ 1 } << slots ) - 1;
         }
         while ( std::cmp_greater( std::popcount( free ), keys_.room() ) ) {
            free &= ~std::bit_floor( free );
         }
         return free;
      }

      EmShadowTable& table_;
      typename Entries::Keys& keys_;
      U32 first_ = 0;
      U64 given_ = 0;
      U64 free_ = 0;
   };

   template<class Result>
   [[gnu::always_inline]] void setEach( std::span<EmPairAndResult const> pairs,
                                        std::size_t first,
                                        BulkAnswers& answers ) const {
      FreeSlots free( table_, keys() );
      for ( std::size_t at = 0; at < pairs.size(); ++at ) {
         answers.note( first + at, setIn<Result>( free, pairs[ at ] ) );
      }
   }
   template<class Result>
   [[gnu::always_inline]] bool setIn( FreeSlots& free, EmPairAndResult const& pair ) const {
      U64 const hash = this->hashOf( pair.chipId, pair.key );
      auto const fully = [ & ]() __attribute__( ( always_inline ) ) {
         free.settle();
         return Entries::template setFully<Result>(
            table_, pair.chipId, pair.key, hash, pair.result );
      };
      return this->template setOrAdd<Result>(
         pair.chipId,
         pair.key,
         hash,
         pair.result,
         [ & ]( typename Entries::Home home ) __attribute__( ( always_inline ) ) {
            return Entries::Keys::laneIn(
               home,
               [ & ]( typename Entries::Keys::Lane lane ) __attribute__( ( always_inline ) ) {
                  if ( !free.any() ) [[unlikely]] {
                     return fully();
                  }
                  this->template putInSlot<Result>(
                     free.take(), lane, pair.chipId, pair.key, hash, pair.result );
                  return true;
               },
               fully );
         },
         fully );
   }

   template<class Result>
   [[gnu::always_inline]] void setEachFetching( std::span<EmPairAndResult const> pairs,
                                                std::size_t first,
                                                BulkAnswers& answers ) const {
      fetchingAhead<SlotLead>(
         pairs,
         []( SlotLead lead, U64 /*position*/ ) { return lead; },
         [ & ]( std::size_t at, SlotLead lead ) __attribute__( ( always_inline ) ) {
            answers.note( first + at, setForeseen<Result>( pairs[ at ], lead ) );
         } );
   }

   template<class Sight, class Asked, class See, class Perform>
   [[gnu::always_inline]] void
   fetchingAhead( std::span<Asked const> pairs, See const& see, Perform const& perform ) const {
      inStages<Sight>(
         pairs.size(),
         [ & ]( std::size_t number ) __attribute__( ( always_inline ) ) {
            U64 const hash = this->hashOf( pairs[ number ].chipId, pairs[ number ].key );
            keys().fetchGroup( hash );
            return hash;
         },
         [ & ]( U64 hash ) __attribute__( ( always_inline ) ) {
            return keys().firstLook(
               hash,
               [ & ]( SlotLead lead, U64 position ) __attribute__( ( always_inline ) ) {
                  this->fetchImage( lead.slot() );
                  return see( lead, position );
               },
               []( typename Entries::Home /*home*/ ) { return Sight(); },
               [] { return Sight(); } );
         },
         perform );
   }
};

} // namespace Tessel
