// SPDX-License-Identifier: Apache-2.0
#pragma once

/// What every competitor is given: the same entries, in the same order, from the same memory.
///
/// A pair lies in memory as a competitor looks it up, so that nobody has to compose it first: a
/// composed key is stored in pieces and loaded whole, which would hold up every look-up that hashes
/// it. The steps of a run lie one behind the other in the order in which they are taken, so that
/// reading them costs next to nothing at any size.
///
/// The same numbers in every run: no seed comes from a clock.

#include "Weft/Types.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <numeric>
#include <random>
#include <vector>

namespace Bench {

/// The bytes that follow the first one of an image.
template<U32 keyLength>
struct Pair {
   U8 chip;
   std::array<char, keyLength> key;
   bool operator==( Pair const& ) const = default;
};

template<U32 K, U32 R>
struct Entry {
   static constexpr U32 keyLength = K;
   static constexpr U32 resultLength = R;
   using Result = std::array<char, R>;

   Pair<K> pair;
   Result result;
};

/// A permutation of the numbers below 2^bits without visible order.
template<U32 bits>
constexpr U64 scrambled( U64 number ) {
   constexpr U64 mask = bits == 64 ? ~U64{ 0 } : ( U64{ 1 } << bits ) - 1;
   for ( U64 const factor : { 0x9e3779b97f4a7c15, 0xd1b54a32d192ed03 } ) {
      number = ( number * factor ) & mask;
      number ^= number >> ( bits / 2 );
   }
   return number;
}

/// The entry of this number. Entries of different numbers differ in chip or key; `chipsPerKey`
/// successive ones share a key.
template<U32 K, U32 R>
Entry<K, R> entryOf( U64 number, U32 chipsPerKey ) {
   static_assert( K >= 6 && K <= 16 && R <= 8 );
   Entry<K, R> entry{};
   U64 const keyNumber = number / chipsPerKey;
   std::array<U64, 2> const words{ scrambled < K < 8 ? 8 * K : 64 > ( keyNumber ),
                                   scrambled<64>( ~keyNumber ) };
   U64 const result = scrambled<64>( number + 1 );
   std::memcpy( entry.pair.key.data(), words.data(), K );
   std::memcpy( entry.result.data(), &result, R );
   entry.pair.chip = static_cast<U8>( 3 + number % chipsPerKey );
   return entry;
}

/// A table of `slots` slots that is 90 % full, and what is done to it.
template<class E>
struct Workload {
   static constexpr U32 mostSteps = 1'000'000;

   Workload( U32 slotCount, U32 chips )
         : slots( slotCount ), entries( slotCount / 10 * 9 ), chipsPerKey( chips ),
           steps( sample( 0 ) ), absent( sample( entries ) ) {}

   E at( U64 number ) const {
      return entryOf<E::keyLength, E::resultLength>( number, chipsPerKey );
   }
   /// The entries `first` to `first + count` in the order in which a table is filled.
   std::vector<E> run( U32 first, U32 count ) const {
      std::vector<E> made;
      runInto( made, first, count );
      return made;
   }
   /// The same in memory that is there already.
   void runInto( std::vector<E>& made, U32 first, U32 count ) const {
      made.resize( count );
      for ( U32 i = 0; i < count; ++i ) {
         made[ i ] = at( first + i );
      }
   }

   U32 slots;
   U32 entries;
   U32 chipsPerKey;
   std::vector<E> steps;  ///< entries of the table, each at most once, in random order
   std::vector<E> absent; ///< as many that the table never holds

 private:
   std::vector<E> sample( U32 first ) const {
      std::vector<U32> order( entries );
      std::iota( order.begin(), order.end(), first );
      std::shuffle( order.begin(), order.end(), std::mt19937_64( 21 ) );
      order.resize( std::min( entries, mostSteps ) );
      std::vector<E> made;
      made.reserve( order.size() );
      for ( U32 const number : order ) {
         made.push_back( at( number ) );
      }
      return made;
   }
};

} // namespace Bench
