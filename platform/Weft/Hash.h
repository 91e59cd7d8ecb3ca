// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The byte-string hash of the type system: 32 bits, no seed, the same in every process.
///
/// The bytes are taken as little-endian 64-bit words, the last one filled up with zero bytes, two
/// words per step of one 64 x 64 to 128 bit multiplication; the length is mixed in at the end, so
/// "ab" and "ab\0" differ. hashWords() is the same function on words that are already in registers:
/// a caller that knows its key length at compile time never touches memory.
///
/// Not a defence against chosen keys: who can choose keys can choose collisions.
///
/// Threads: pure functions and plain values.

#include "Weft/Types.h"

#include <array>
#include <cstddef>
#include <cstring>

namespace Weft {

namespace detail {

inline U64 foldedProduct( U64 a, U64 b ) {
   __extension__ using U128 = unsigned __int128;
   U128 const product = static_cast<U128>( a ) * b;
   return static_cast<U64>( product ) ^ static_cast<U64>( product >> 64 );
}

// Odd constants of 32 one bits each, without structure that keys could share.
inline constexpr U64 evenWordMix = 0x9e3779b97f4a7c15;
inline constexpr U64 oddWordMix = 0xd1b54a32d192ed03;
inline constexpr U64 lengthMix = 0x8bb84b93962eacc9;
// A factor that fits into the instruction.
inline constexpr U64 numberMix = 0x5f356495;

inline U64 mixWords( U64 state, U64 even, U64 odd ) {
   return foldedProduct( even ^ evenWordMix ^ state, odd ^ oddWordMix );
}

template<std::size_t wordCount>
inline U64 stateOf( std::array<U64, wordCount> const& words, U64 state = 0 ) {
   for ( std::size_t i = 0; i < wordCount; i += 2 ) {
      state = mixWords( state, words[ i ], i + 1 < wordCount ? words[ i + 1 ] : 0 );
   }
   return state;
}

inline U64 mixLength( U64 state, U32 length ) {
   return foldedProduct( state ^ length, lengthMix );
}

inline U32 hashResult( U64 state ) {
   return static_cast<U32>( state ^ ( state >> 32 ) );
}

/// The first `length` bytes (at most 8) at `bytes` as a little-endian word, zero above them.
inline U64 wordOf( U8 const* bytes, std::size_t length ) {
   U64 word = 0;
   if ( length != 0 ) { // `bytes` may be null then
      std::memcpy( &word, bytes, length );
   }
   return word;
}

} // namespace detail

/// The hash of `length` bytes given as little-endian words, zero beyond the bytes. `length` must
/// need exactly `wordCount` words (0 counts as one word).
template<std::size_t wordCount>
inline U32 hashWords( std::array<U64, wordCount> const& words, U32 length ) {
   return detail::hashResult( detail::mixLength( detail::stateOf( words ), length ) );
}

/// The same without the length, in 64 bits and with a number that goes with the bytes, one
/// multiplication for two words: for a table whose keys all have one length.
template<std::size_t wordCount>
inline U64 hashWordsOfOneLength( std::array<U64, wordCount> const& words, U64 number ) {
   return detail::stateOf( words, number * detail::numberMix );
}

/// An accumulator of byte strings. A fresh one is all zero.
class Hash {
 public:
   /// Takes in `length` bytes at `bytes`, and that they were `length` many.
   void mixNi( void const* bytes, U32 length ) {
      auto const* at = static_cast<U8 const*>( bytes );
      U32 left = length;
      do {
         U64 const even = detail::wordOf( at, left < 8 ? left : 8 );
         U64 const odd = left > 8 ? detail::wordOf( at + 8, left < 16 ? left - 8 : 8 ) : 0;
         state_ = detail::mixWords( state_, even, odd );
         at += left < 16 ? left : 16;
         left -= left < 16 ? left : 16;
      } while ( left > 0 );
      state_ = detail::mixLength( state_, length );
   }
   U32 result() const { return detail::hashResult( state_ ); }

 private:
   U64 state_ = 0;
};

} // namespace Weft
