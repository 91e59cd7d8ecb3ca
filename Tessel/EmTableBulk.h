// SPDX-License-Identifier: Apache-2.0
#pragma once

/// What the bulk calls of an exact-match table share. Internal to EmTable.
///
/// In a table that no cache holds they work in overlapping stages, each of which reads what the one before
/// it has fetched: the tags and leads, then the image. The stages take turns at blocks of pairs, so that what
/// is fetched for one block arrives while two others are worked on:
///
///    turn n      hash block n     follow n - 1     perform n - 2
///
/// Threads: as the table.

#include "Weft/Types.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace Tessel {

/// Takes the answers of a bulk call to where the caller wants them, and counts the true ones.
class BulkAnswers {
 public:
   /// `answers` may be null.
   explicit BulkAnswers( bool* answers ) : answers_( answers ) {}

   [[gnu::always_inline]] void note( std::size_t number, bool answer ) {
      count_ += answer ? 1 : 0;
      if ( answers_ != nullptr ) {
         answers_[ number ] = answer;
      }
   }
   U64 count() const { return count_; }

 private:
   bool* answers_;
   U64 count_ = 0;
};

/// How many pairs make a block: so long it takes, at the least, until what a stage has fetched is needed.
inline constexpr std::size_t bulkStep = 16;

/// How many of `count` pairs are in a block.
template<std::size_t step = bulkStep>
constexpr std::size_t lengthOfBlock( std::size_t block, std::size_t count ) {
   std::size_t const begin = block * step;
   return begin < count ? std::min( step, count - begin ) : 0;
}

/// Calls `work( number, number within the block )` for each of `count` pairs that is in a block.
template<class Work>
[[gnu::always_inline]] inline void
forEachInBlock( std::size_t block, std::size_t count, Work const& work ) {
   std::size_t const length = lengthOfBlock( block, count );
   for ( std::size_t i = 0; i < length; ++i ) {
      work( block * bulkStep + i, i );
   }
}

/// Takes `count` pairs, each with its number, through the stages: `hash( number )`, `follow( hash )`, which
/// answers a Lead, and `perform( number, lead )`, this in the order of the numbers. What comes before sees
/// the table as it was some calls ago.
template<class Lead, class Hash, class Follow, class Perform>
[[gnu::always_inline]] inline void
inStages( std::size_t count, Hash const& hash, Follow const& follow, Perform const& perform ) {
   std::array<U64, bulkStep> hashes;
   std::array<Lead, bulkStep> leads;
   std::size_t const blocks = ( count + bulkStep - 1 ) / bulkStep;
   for ( std::size_t turn = 0; turn < blocks + 2; ++turn ) {
      if ( turn >= 2 ) {
         forEachInBlock(
            turn - 2,
            count,
            [ & ]( std::size_t number, std::size_t i )
               __attribute__( ( always_inline ) ) { perform( number, leads[ i ] ); } );
      }
      if ( turn >= 1 ) {
         forEachInBlock(
            turn - 1,
            count,
            [ & ]( std::size_t /*number*/, std::size_t i )
               __attribute__( ( always_inline ) ) { leads[ i ] = follow( hashes[ i ] ); } );
      }
      forEachInBlock(
         turn,
         count,
         [ & ]( std::size_t number, std::size_t i )
            __attribute__( ( always_inline ) ) { hashes[ i ] = hash( number ); } );
   }
}

} // namespace Tessel
