// SPDX-License-Identifier: Apache-2.0
#include "Brine/HBitmap.h"

#include <algorithm>
#include <new>

namespace Brine {

namespace {

/// The words of every level, from level 0 up to the first level of a single word.
template<std::size_t maxLevels>
struct Widths {
   std::array<std::size_t, maxLevels> words{};
   U32 top = 0;
   std::size_t total = 0;

   explicit Widths( std::size_t lowest ) : words{ lowest }, total( lowest ) {
      while ( words[ top ] > 1 ) {
         words[ top + 1 ] = ( words[ top ] + 63 ) / 64;
         ++top;
         total += 2 * words[ top ];
      }
   }
};

} // namespace

Weft::AllocTrackTypeInfo HBitmap::memAllocationTracker_;

HBitmap::HBitmap( U64 id, U32 size, BitState initialBitState )
      : size_( size ), initialBitState_( initialBitState ), id_( id ) {
   Widths<maxLevels> const widths( std::size_t{ size } / wordBits + 1 );
   // calloc alone gives zeros without touching them. NOLINTNEXTLINE(cppcoreguidelines-no-malloc)
   memory_.reset( static_cast<U64*>( std::calloc( widths.total, sizeof( U64 ) ) ) );
   if ( !memory_ ) {
      throw std::bad_alloc();
   }
   top_ = widths.top;
   some_[ 0 ] = all_[ 0 ] = memory_.get();
   U64* at = memory_.get() + widths.words[ 0 ];
   for ( U32 level = 1; level <= top_; ++level ) {
      some_[ level ] = at;
      all_[ level ] = at + widths.words[ level ];
      at += 2 * widths.words[ level ];
   }
}

/// Carries up what a bit toggled in `word` of level 0 means: a "some" bit wherever there was none
/// below, an "all" bit wherever the words below got full.
void HBitmap::summariseToggled( U32 word ) {
   U32 at = word;
   for ( U32 level = 1; level <= top_; ++level, at /= wordBits ) {
      U64& some = some_[ level ][ at / wordBits ];
      U64 const before = some;
      some |= U64{ 1 } << at % wordBits;
      if ( before != 0 ) {
         break;
      }
   }
   at = word;
   for ( U32 level = 1; level <= top_ && all_[ level - 1 ][ at ] == allOnes; ++level ) {
      all_[ level ][ at / wordBits ] |= U64{ 1 } << at % wordBits;
      at /= wordBits;
   }
   if ( word == firstOpenWord_ && words()[ word ] == allOnes ) {
      firstOpenWord_ = firstOpenWord();
   }
}

/// The counterpart for a bit untoggled in `word`, which is now not full.
void HBitmap::summariseUntoggled( U32 word ) {
   U32 at = word;
   for ( U32 level = 1; level <= top_; ++level, at /= wordBits ) {
      U64& all = all_[ level ][ at / wordBits ];
      U64 const before = all;
      all &= ~( U64{ 1 } << at % wordBits );
      if ( before != allOnes ) {
         break;
      }
   }
   at = word;
   for ( U32 level = 1; level <= top_ && some_[ level - 1 ][ at ] == 0; ++level ) {
      some_[ level ][ at / wordBits ] &= ~( U64{ 1 } << at % wordBits );
      at /= wordBits;
   }
   firstOpenWord_ = std::min( firstOpenWord_, word );
}

U32 HBitmap::lowestToggled() const {
   if ( some_[ top_ ][ 0 ] == 0 ) {
      return invalidIndex;
   }
   U32 at = 0;
   for ( U32 level = top_ + 1; level-- > 0; ) {
      at = at * wordBits + lowestOne( some_[ level ][ at ] );
   }
   return at;
}

/// The last word of level 0 is never full, so no "all" word on the way to it is.
U32 HBitmap::firstOpenWord() const {
   U32 at = 0;
   for ( U32 level = top_; level > 0; --level ) {
      at = at * wordBits + lowestOne( ~all_[ level ][ at ] );
   }
   return at;
}

/// The lowest clear bit in the words behind `word`: up until a word is found that has one further
/// on, then down to it. invalidIndex, or a bit past the last one, when there is none.
U32 HBitmap::lowestClearBehind( U32 word ) const {
   bool const untoggledIsClear = initialBitState_ == BitState::allClear;
   auto const& levels = untoggledIsClear ? all_ : some_;
   U64 const flip = untoggledIsClear ? allOnes : 0;

   U32 at = word;
   for ( U32 level = 1; level <= top_; ++level, at /= wordBits ) {
      U64 const behind = ( allOnes << at % wordBits ) << 1;
      U64 const candidates = ( levels[ level ][ at / wordBits ] ^ flip ) & behind;
      if ( candidates == 0 ) {
         continue;
      }
      at = at / wordBits * wordBits + lowestOne( candidates );
      while ( level-- > 0 ) {
         at = at * wordBits + lowestOne( levels[ level ][ at ] ^ flip );
      }
      return at;
   }
   return invalidIndex;
}

} // namespace Brine
