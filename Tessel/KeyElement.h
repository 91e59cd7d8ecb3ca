// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The elements of a map from (chip, key) to slot, and keys as words. Internal to EmTable.
///
/// A key of K bytes takes 8 (K <= 8), 16 (K <= 16) or 20 bytes. With it lies
///
///    where the key has the place of its slot: 4 bytes, the chip
///    anywhere else: 8 bytes,
///       bit 0 set: chip in bits 8 to 15, slot in bits 32 to 63
///       bit 0 clear: pointer to the key's object in bits 0 to 55, on which the element holds a reference; in
///       bits 56 to 63 the chip of the pair whose place the element has taken
///
/// Threads: plain values.

#include "Tessel/EmTable.h"
#include "Weft/Hash.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

namespace Tessel {

/// What is known beside the key of a pair whose slot is known.
class ChipOfPair {
 public:
   explicit ChipOfPair( Brine::ChipId chip ) : chip_( chip.value() ) {}

   Brine::ChipId chip() const { return Brine::ChipId( static_cast<U8>( chip_ ) ); }
   /// Zero for the pair with this chip.
   U32 differenceFrom( Brine::ChipId chip ) const { return chip_ ^ chip.value(); }

 private:
   U32 chip_;
};

/// What is known beside a key of which nothing else is known.
class SlotOrObject {
 public:
   SlotOrObject( Brine::ChipId chip, EmTableIndex slot )
         : bits_( U64{ slot.value() } << slotBit | tagOf( chip ) ) {}
   /// Takes the reference over, and the place of the pair with `chip`.
   SlotOrObject( Brine::ChipId chip, Corvo::Ptr<EmTableFapIndices> object )
         : bits_( U64{ chip.value() } << placeBit |
                  reinterpret_cast<std::uintptr_t>( object.release() ) ) {}

   bool isObject() const { return ( bits_ & 1 ) == 0; }
   EmTableFapIndices* object() const {
      constexpr U64 pointerBits = ( U64{ 1 } << placeBit ) - 1;
      return reinterpret_cast<EmTableFapIndices*>( bits_ & pointerBits );
   }
   Brine::ChipId chip() const { return Brine::ChipId( static_cast<U8>( bits_ >> chipBit ) ); }
   EmTableIndex slot() const { return EmTableIndex( static_cast<U32>( bits_ >> slotBit ) ); }
   /// The chip with which the element was hashed.
   Brine::ChipId placeChip() const {
      return isObject() ? Brine::ChipId( static_cast<U8>( bits_ >> placeBit ) ) : chip();
   }

   /// Zero for the pair with this chip.
   U32 differenceFrom( Brine::ChipId chip ) const {
      return static_cast<U32>( bits_ ) ^ tagOf( chip );
   }
   bool isOn( Brine::ChipId chip ) const { return differenceFrom( chip ) == 0; }

 private:
   static constexpr U32 chipBit = 8;
   static constexpr U32 slotBit = 32;
   static constexpr U32 placeBit = 56; // no process has memory above
   /// Differs from the low half of every pointer, and from that of every other chip.
   static U32 tagOf( Brine::ChipId chip ) { return U32{ chip.value() } << chipBit | 1; }

   U64 bits_;
};

/// A key as little-endian words, zero beyond its bytes.
template<std::size_t wordCount>
using KeyWords = std::array<U64, wordCount>;

namespace detail {

inline U64 wordAt( char const* bytes ) {
   U64 word = 0;
   std::memcpy( &word, bytes, sizeof word );
   return word;
}

inline U64 halfWordAt( char const* bytes ) {
   U32 word = 0;
   std::memcpy( &word, bytes, sizeof word );
   return word;
}

inline U64 upToOneWordAt( char const* bytes, U32 length ) {
   if ( length == 8 ) {
      return wordAt( bytes );
   }
   if ( length >= 4 ) {
      return halfWordAt( bytes ) | halfWordAt( bytes + length - 4 ) << ( 8 * ( length - 4 ) );
   }
   U64 word = 0;
   for ( U32 i = 0; i < length; ++i ) {
      word |= U64{ static_cast<U8>( bytes[ i ] ) } << ( 8 * i );
   }
   return word;
}

} // namespace detail

/// Reads exactly `length` bytes; `length` needs exactly `wordCount` words (0 counts as one).
template<std::size_t wordCount>
[[gnu::always_inline]] inline KeyWords<wordCount> keyWordsAt( char const* bytes, U32 length ) {
   using namespace detail;
   if constexpr ( wordCount == 1 ) {
      return { upToOneWordAt( bytes, length ) };
   } else if constexpr ( wordCount == 2 ) {
      return { wordAt( bytes ), wordAt( bytes + length - 8 ) >> ( 8 * ( 16 - length ) ) };
   } else {
      return { wordAt( bytes ),
               wordAt( bytes + 8 ),
               halfWordAt( bytes + length - 4 ) >> ( 8 * ( 20 - length ) ) };
   }
}

/// Zero for the same words. Word by word: comparing the arrays would go through memory.
template<std::size_t wordCount>
[[gnu::always_inline]] inline U64 differenceOf( KeyWords<wordCount> const& a,
                                                KeyWords<wordCount> const& b ) {
   U64 difference = 0;
   for ( std::size_t i = 0; i < wordCount; ++i ) {
      difference |= a[ i ] ^ b[ i ];
   }
   return difference;
}

template<std::size_t wordCount>
[[gnu::always_inline]] inline bool sameWords( KeyWords<wordCount> const& a,
                                              KeyWords<wordCount> const& b ) {
   return differenceOf<wordCount>( a, b ) == 0;
}

/// How many bytes the words of a key stand for.
template<std::size_t wordCount>
inline constexpr std::size_t bytesOfWords = wordCount == 3 ? 20 : 8 * wordCount;

/// Writes that many bytes. Word by word: a copy of the array would go through memory.
template<std::size_t wordCount>
[[gnu::always_inline]] inline void storeWords( KeyWords<wordCount> const& words, char* to ) {
   for ( std::size_t i = 0; i < wordCount; ++i ) {
      std::memcpy(
         to + 8 * i, &words[ i ], std::min<std::size_t>( 8, bytesOfWords<wordCount> - 8 * i ) );
   }
}

/// A key, and what is known beside it.
template<std::size_t wordCount, class Beside>
class KeyAnd {
 public:
   static constexpr std::size_t keyBytes = bytesOfWords<wordCount>;

   KeyAnd( KeyWords<wordCount> const& words, Beside beside ) {
      storeWords<wordCount>( words, key_.data() );
      std::memcpy( beside_.data(), &beside, sizeof beside );
   }

   [[gnu::always_inline]] KeyWords<wordCount> words() const {
      // Word by word: a copy of 20 bytes would go through memory.
      using namespace detail;
      if constexpr ( wordCount == 1 ) {
         return { wordAt( key_.data() ) };
      } else if constexpr ( wordCount == 2 ) {
         return { wordAt( key_.data() ), wordAt( key_.data() + 8 ) };
      } else {
         return { wordAt( key_.data() ),
                  wordAt( key_.data() + 8 ),
                  halfWordAt( key_.data() + 16 ) };
      }
   }
   char const* key() const { return key_.data(); }
   Beside beside() const { return std::bit_cast<Beside>( beside_ ); }

   /// Whether it is this pair, in one comparison.
   [[gnu::always_inline]] bool isPair( Brine::ChipId chip, KeyWords<wordCount> const& key ) const {
      return ( differenceOf<wordCount>( words(), key ) | beside().differenceFrom( chip ) ) == 0;
   }

 private:
   // Bytes, not words: 20 + 8 bytes without padding.
   std::array<char, keyBytes> key_;
   std::array<char, sizeof( Beside )> beside_;
};

/// The key that has the place of its slot.
template<std::size_t wordCount>
using KeyOfSlot = KeyAnd<wordCount, ChipOfPair>;
/// One that has not.
template<std::size_t wordCount>
using KeyElement = KeyAnd<wordCount, SlotOrObject>;

static_assert( sizeof( KeyOfSlot<1> ) == 12 );
static_assert( sizeof( KeyOfSlot<2> ) == 20 );
static_assert( sizeof( KeyOfSlot<3> ) == 24 );
static_assert( sizeof( KeyElement<1> ) == 16 );
static_assert( sizeof( KeyElement<2> ) == 24 );
static_assert( sizeof( KeyElement<3> ) == 28 );

/// A pair whose key has been read, and its hash.
template<std::size_t wordCount>
struct HashedPair {
   [[gnu::always_inline]] HashedPair( Brine::ChipId chipId, KeyWords<wordCount> const& keyWords )
         : HashedPair( chipId, keyWords, Weft::hashWordsOfOneLength( keyWords, chipId.value() ) ) {}
   /// `knownHash` is what the other constructor finds.
   [[gnu::always_inline]] HashedPair( Brine::ChipId chipId,
                                      KeyWords<wordCount> const& keyWords,
                                      U64 knownHash )
         : chip( chipId ), words( keyWords ), hash( knownHash ) {}

   Brine::ChipId chip;
   KeyWords<wordCount> words;
   U64 hash;
};

/// A class of key lengths that are worked on alike: those that need `wordCount` words, or one of them.
template<std::size_t wordCount, U32 exactLength = 0>
struct KeyClass {
   static constexpr std::size_t words = wordCount;
   static constexpr bool isExact = exactLength != 0;
   /// `length`, as a constant where only one is possible.
   static constexpr U32 exactly( U32 length ) { return isExact ? exactLength : length; }
};

/// The same bytes through a pointer of which the compiler knows nothing: it reads them again where they
/// are wanted. Kept in registers, the words of a key would cost every operation the saving of these.
[[gnu::always_inline]] inline char const* readAgain( char const* bytes ) {
   asm( "" : "+r"( bytes ) );
   return bytes;
}

} // namespace Tessel
