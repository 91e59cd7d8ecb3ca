// SPDX-License-Identifier: Apache-2.0
#pragma once

/// A bitmap that finds its lowest set bit, and its lowest clear bit in a range, without a scan.
///
/// A bit that is no longer in the bitmap's initial state is *toggled*. What is kept are the toggled
/// bits and, 64 to one, summaries of them; all of it starts as zero whatever the initial state, in
/// memory that the system provides as zero, so a large bitmap costs nothing until it is used.
///
///    level 0       1 bit per bit:      toggled                        size / 64 + 1 words
///    level n       2 bits per word of level n - 1:
///                     some             a bit below is toggled         1 / 64 of the words below
///                     all              every bit below is toggled     1 / 64 of the words below
///    level top     one word of each
///
/// The bit behind the last one exists in level 0 and is never toggled: every search for an
/// untoggled bit ends there at the latest, with no bounds to check on the way.
///
/// Memory: about 1.03 bits per bit.
///
/// Threads: one bitmap belongs to one thread at a time while it is changed; const operations may run
/// on several threads at once.

#include "Corvo/Node.h"
#include "Weft/AllocTrackTypeInfo.h"
#include "Weft/Contract.h"
#include "Weft/TypeData.h"
#include "Weft/Types.h"

#include <array>
#include <cstdlib>
#include <memory>

namespace Brine {

class [[gnu::visibility( "default" )]] HBitmap : public Corvo::Node {
 public:
   enum class BitState { allSet = 0, allClear = 1 };
   enum class IndexPreference { lowest = 0 };

   /// What a search returns when no bit matches.
   static constexpr U32 invalidIndex = 0xFFFFFFFF;

   /// Bits 0 to `size` - 1, all in the initial state; a size of 0 is allowed. `id` is the caller's
   /// own and only handed back. std::bad_alloc when memory runs out.
   HBitmap( U64 id, U32 size, BitState initialBitState );

   U64 id() const { return id_; }
   U32 size() const { return size_; }
   BitState initialBitState() const { return initialBitState_; }

   /// Sets or clears one bit; a bit that already is so stays so. Contract "bit < size()".
   [[gnu::always_inline]] void setBit( U32 bit ) {
      sassert_( bit < size_, "bit < size()" );
      if ( initialBitState_ == BitState::allSet ) [[likely]] {
         untoggle( bit );
      } else {
         toggle( bit );
      }
   }
   [[gnu::always_inline]] void clearBit( U32 bit ) {
      sassert_( bit < size_, "bit < size()" );
      if ( initialBitState_ == BitState::allSet ) [[likely]] {
         toggle( bit );
      } else {
         untoggle( bit );
      }
   }
   /// Whether the bit is set. Contract "bit < size()".
   [[gnu::always_inline]] bool bit( U32 bit ) const {
      sassert_( bit < size_, "bit < size()" );
      bool const toggled = ( ( words()[ bit / wordBits ] >> ( bit % wordBits ) ) & 1 ) != 0;
      return toggled == ( initialBitState_ == BitState::allClear );
   }

   /// The lowest set bit, or invalidIndex when every bit is clear.
   [[gnu::always_inline]] U32 findBitInSetState( IndexPreference ) const {
      if ( initialBitState_ == BitState::allClear ) [[unlikely]] {
         return lowestToggled();
      }
      return lowestUntoggled();
   }

   /// The lowest bit that is not toggled, or invalidIndex when every bit is.
   [[gnu::always_inline]] U32 lowestUntoggled() const {
      U32 const found = firstOpenWord_ * wordBits + lowestOne( ~words()[ firstOpenWord_ ] );
      return found < size_ ? found : invalidIndex;
   }
   /// Toggles the bit that lowestUntoggled() returns. There is one.
   [[gnu::always_inline]] void toggleLowestUntoggled() {
      toggle( firstOpenWord_, words()[ firstOpenWord_ ] + 1 );
   }

   // For who works on many bits at once: 64 to a word, bit 0 of word 0 first.

   static constexpr U32 wordBits = 64;
   /// The toggled bits of a word that begins at or before bit size().
   U64 toggledIn( U32 word ) const { return words()[ word ]; }
   /// Toggles the bits of `mask` too, all of them below size().
   [[gnu::always_inline]] void toggleIn( U32 word, U64 mask ) {
      if ( mask != 0 ) {
         toggle( word, mask );
      }
   }
   /// Brings the bits of `mask`, of which at least one is toggled, back to the initial state.
   void untoggleIn( U32 word, U64 mask ) { untoggle( word, mask ); }
   /// Brings every bit back to the initial state, word by word: first calls
   /// `visit( word, toggled bits )`, which must not throw.
   template<class Visit>
   void untoggleAll( Visit const& visit ) {
      untoggleBelow( top_, 0, visit );
      firstOpenWord_ = 0;
   }

   /// Brings `bit`, which is less than size(), back to the initial state.
   [[gnu::always_inline]] void untoggle( U32 bit ) {
      untoggle( bit / wordBits, U64{ 1 } << bit % wordBits );
   }

   /// The lowest clear bit from `first` to `last`, both included; invalidIndex when all of them are
   /// set, or when `first` > `last`. Contract "last < size()".
   U32 findClearBitInRange( U32 first, U32 last, IndexPreference ) const {
      sassert_( last < size_, "last < size()" );
      if ( first > last ) {
         return invalidIndex;
      }
      U32 const word = first / wordBits;
      U64 const clear = initialBitState_ == BitState::allSet ? words()[ word ] : ~words()[ word ];
      U64 const candidates = clear & ( ~U64{ 0 } << ( first % wordBits ) );
      U32 const found =
         candidates != 0 ? word * wordBits + lowestOne( candidates ) : lowestClearBehind( word );
      return found <= last ? found : invalidIndex;
   }

   Weft::TypeData typeData() const override;

   /// Counts the bitmaps made by Corvo::makePtr that are alive.
   static Weft::AllocTrackTypeInfo memAllocationTracker_;

 private:
   static constexpr U64 allOnes = ~U64{ 0 };
   static constexpr std::size_t maxLevels = 6; // 64 to the power of 6 is more than 2^32
   static constexpr Weft::SassertHelper sassert_{ "HBitmap" };

   struct Free {
      void operator()( U64* words ) const { std::free( words ); }
   };

   /// `word` is not zero.
   static U32 lowestOne( U64 word ) { return static_cast<U32>( __builtin_ctzll( word ) ); }

   U64* words() const { return some_[ 0 ]; }

   [[gnu::always_inline]] void toggle( U32 bit ) {
      toggle( bit / wordBits, U64{ 1 } << bit % wordBits );
   }
   /// The bits of `mask` in the word of level 0 with the number `at`.
   [[gnu::always_inline]] void toggle( U32 at, U64 mask ) {
      U64& word = words()[ at ];
      U64 const before = word;
      word = before | mask;
      if ( before == 0 || word == allOnes ) [[unlikely]] {
         summariseToggled( at );
      }
   }

   [[gnu::always_inline]] void untoggle( U32 at, U64 mask ) {
      U64& word = words()[ at ];
      U64 const before = word;
      word = before & ~mask;
      if ( before == allOnes || word == 0 ) [[unlikely]] {
         summariseUntoggled( at );
      }
   }

   template<class Visit>
   void untoggleBelow( U32 level, U32 at, Visit const& visit ) {
      U64 below = some_[ level ][ at ];
      if ( level == 0 ) {
         visit( at, below );
      }
      for ( ; level > 0 && below != 0; below &= below - 1 ) {
         untoggleBelow( level - 1, at * wordBits + lowestOne( below ), visit );
      }
      some_[ level ][ at ] = all_[ level ][ at ] = 0;
   }

   void summariseToggled( U32 word );
   void summariseUntoggled( U32 word );
   U32 lowestToggled() const;
   U32 firstOpenWord() const;
   U32 lowestClearBehind( U32 word ) const;

   // The word that holds the lowest untoggled bit. It moves only when a word gets full or stops
   // being full, which is when the summaries are changed.
   U32 firstOpenWord_ = 0;
   U32 size_;
   BitState initialBitState_;
   U32 top_ = 0;
   U64 id_;
   // Words of each level; level 0 is the same in both. They point into memory_.
   std::array<U64*, maxLevels> some_{};
   std::array<U64*, maxLevels> all_{};
   std::unique_ptr<U64[], Free> memory_;
};

} // namespace Brine
