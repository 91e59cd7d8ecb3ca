// SPDX-License-Identifier: Apache-2.0
#pragma once

/// An open-addressing hash table of elements that the caller hashes and compares.
///
/// One block of memory:
///
///    groups     16 bytes each: 15 tags, one per lane, then an overflow count
///    elements   15 per group, in the order of the lanes
///
/// A tag is 0 for an empty lane, else 8 bits of the element's hash; 15 tags are compared at once.
/// An element lies in the first group with an empty lane from its home group on. The overflow count
/// of a group says how many elements passed it by because it was full: where it is 0, a search may
/// stop. Erasing an element lowers the counts that its insertion raised, so a table that lives long
/// does not fill up with old overflow (a count that once reached 255 is no longer exact and stays
/// until the table grows).
///
/// Elements never move but when the table grows, so a position stays good while elements, the one
/// at the position included, are erased.
///
/// Threads: none of its own; use one table from one thread at a time.

#include "Weft/ArrayMemory.h"
#include "Weft/Types.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <memory>
#include <type_traits>
#include <utility>

#if defined( __SSE2__ )
#include <emmintrin.h>
#endif

namespace Weft {

/// `Element` moves without throwing; `HashOf` gives the 32-bit hash of an element, never throws,
/// and hashes equal elements alike.
template<class Element, class HashOf>
class FlatTable {
   static_assert( std::is_nothrow_move_constructible_v<Element> );

 public:
   using Position = U64;
   static constexpr Position nowhere = ~Position{ 0 };

   /// `expectedMost` elements are expected at most; growth stops at the memory that these need as
   /// long as they are not exceeded. 0: no expectation.
   explicit FlatTable( U64 expectedMost = 0, HashOf hashOf = HashOf() )
         : hashOf_( hashOf ), expectedGroups_( groupsFor( expectedMost ) ) {}
   FlatTable( FlatTable&& other ) noexcept
         : hashOf_( other.hashOf_ ), expectedGroups_( other.expectedGroups_ ),
           memory_( std::move( other.memory_ ) ), groups_( std::exchange( other.groups_, 0 ) ),
           size_( std::exchange( other.size_, 0 ) ) {}
   FlatTable& operator=( FlatTable&& ) = delete;
   ~FlatTable() { destroyElements(); }

   U64 size() const { return size_; }
   /// Elements held before the table grows.
   U64 capacity() const { return mostIn( groups_ ); }

   Element& operator[]( Position position ) { return elements()[ elementOf( position ) ]; }
   Element const& operator[]( Position position ) const {
      return elements()[ elementOf( position ) ];
   }

   /// The position of the element with this hash for which `matches` is true, or nowhere.
   template<class Matches>
   Position find( U32 hash, Matches const& matches ) const {
      U8 const tag = tagOf( hash );
      U64 group = homeOf( hash );
      for ( U64 probes = 0; probes < groups_; ++probes ) {
         for ( U32 lanes = lanesWith( group, tag ); lanes != 0; lanes &= lanes - 1 ) {
            Position const position = positionOf( group, lanes );
            if ( matches( ( *this )[ position ] ) ) [[likely]] {
               return position;
            }
         }
         if ( overflow( group ) == 0 ) [[likely]] {
            return nowhere;
         }
         group = after( group );
      }
      return nowhere;
   }

   /// Makes sure that one more element can be inserted. std::bad_alloc leaves the table as it was.
   /// One allocation at most; positions taken before are void when the capacity changes.
   void makeRoom() {
      if ( size_ < capacity() ) [[likely]] {
         return;
      }
      grow();
   }

   /// Adds an element that the table does not hold. There must be room (see makeRoom).
   Position insert( U32 hash, Element element ) noexcept {
      U64 group = homeOf( hash );
      while ( lanesWith( group, 0 ) == 0 ) {
         U8& count = overflow( group );
         count = static_cast<U8>( count + ( count != exactOverflowEnds ) );
         group = after( group );
      }
      Position const position = positionOf( group, lanesWith( group, 0 ) );
      tagAt( position ) = tagOf( hash );
      std::construct_at( &( *this )[ position ], std::move( element ) );
      ++size_;
      return position;
   }

   /// Removes the element at `position` and returns it.
   Element erase( Position position ) noexcept {
      Element& element = ( *this )[ position ];
      U64 const last = position / lanesPerGroup;
      for ( U64 group = homeOf( hashOf_( element ) ); group != last; group = after( group ) ) {
         U8& count = overflow( group );
         count = static_cast<U8>( count - ( count != exactOverflowEnds ) );
      }
      tagAt( position ) = 0;
      --size_;
      Element erased = std::move( element );
      std::destroy_at( &element );
      return erased;
   }

   /// The first occupied position at or after `position`, or nowhere: a walk is
   /// for ( p = next( 0 ); p != nowhere; p = next( p + 1 ) ).
   Position next( Position position ) const {
      U32 passed = static_cast<U32>( position % lanesPerGroup );
      for ( U64 group = position / lanesPerGroup; group < groups_; ++group, passed = 0 ) {
         U32 const used = ~lanesWith( group, 0 ) & allLanes & ( ~U32{ 0 } << passed );
         if ( used != 0 ) {
            return positionOf( group, used );
         }
      }
      return nowhere;
   }

   /// Removes every element and gives the memory back.
   void clear() noexcept {
      destroyElements();
      memory_ = ArrayMemory();
      groups_ = 0;
      size_ = 0;
   }

 private:
   static constexpr U64 lanesPerGroup = 16; ///< 15 tags and the overflow count
   static constexpr U64 elementsPerGroup = 15;
   static constexpr U32 allLanes = 0x7fff;
   static constexpr U8 exactOverflowEnds = 0xff;

   // Fuller than 7 of 8 lanes, groups run over so often that misses cost a second group.
   static constexpr U64 mostIn( U64 groups ) { return groups * elementsPerGroup * 7 / 8; }
   static constexpr U64 groupsFor( U64 elements ) {
      return ( elements * 8 + elementsPerGroup * 7 - 1 ) / ( elementsPerGroup * 7 );
   }

   static U8 tagOf( U32 hash ) {
      U8 const low = static_cast<U8>( hash );
      return static_cast<U8>( low + ( low == 0 ) );
   }
   U64 homeOf( U32 hash ) const { return ( hash * groups_ ) >> 32; }
   U64 after( U64 group ) const { return group + 1 == groups_ ? 0 : group + 1; }

   static Position positionOf( U64 group, U32 lanes ) {
      return group * lanesPerGroup + static_cast<U32>( std::countr_zero( lanes ) );
   }
   static U64 elementOf( Position position ) { return position - position / lanesPerGroup; }

   U8& tagAt( Position position ) { return memory_.bytes()[ position ]; }
   U8& overflow( U64 group ) { return tagAt( group * lanesPerGroup + elementsPerGroup ); }
   U8 overflow( U64 group ) const {
      return memory_.bytes()[ group * lanesPerGroup + elementsPerGroup ];
   }
   Element* elements() const {
      return reinterpret_cast<Element*>( memory_.bytes() + groups_ * lanesPerGroup );
   }

   /// A bit for each of the 15 lanes of a group whose tag is `tag`.
   U32 lanesWith( U64 group, U8 tag ) const {
      U8 const* const tags = memory_.bytes() + group * lanesPerGroup;
#if defined( __SSE2__ )
      __m128i const all = _mm_load_si128( reinterpret_cast<__m128i const*>( tags ) );
      __m128i const wanted = _mm_set1_epi8( static_cast<char>( tag ) );
      return static_cast<U32>( _mm_movemask_epi8( _mm_cmpeq_epi8( all, wanted ) ) ) & allLanes;
#else
      U32 lanes = 0;
      for ( U32 lane = 0; lane < elementsPerGroup; ++lane ) {
         lanes |= U32{ tags[ lane ] == tag } << lane;
      }
      return lanes;
#endif
   }

   /// Twice the groups, but no more than the expected elements need while that is enough, and
   /// these at once when twice the groups would come close.
   U64 nextGroups() const {
      U64 const doubled = std::max<U64>( 1, groups_ * 2 );
      bool const expectationHolds = expectedGroups_ > groups_;
      return expectationHolds && doubled + doubled / 2 >= expectedGroups_ ? expectedGroups_
                                                                          : doubled;
   }

   [[gnu::cold, gnu::noinline]] void grow() {
      U64 const groups = nextGroups();
      FlatTable larger( 0, hashOf_ );
      larger.memory_ =
         ArrayMemory( groups * ( lanesPerGroup + elementsPerGroup * sizeof( Element ) ) );
      larger.groups_ = groups;
      for ( Position at = next( 0 ); at != nowhere; at = next( at + 1 ) ) {
         Element& element = ( *this )[ at ];
         U32 const hash = hashOf_( element );
         larger.insert( hash, std::move( element ) );
      }
      destroyElements();
      memory_ = std::move( larger.memory_ );
      groups_ = std::exchange( larger.groups_, 0 );
      larger.size_ = 0;
   }

   void destroyElements() noexcept {
      if constexpr ( !std::is_trivially_destructible_v<Element> ) {
         for ( Position at = next( 0 ); at != nowhere; at = next( at + 1 ) ) {
            std::destroy_at( &( *this )[ at ] );
         }
      }
   }

   [[no_unique_address]] HashOf hashOf_;
   U64 expectedGroups_;
   ArrayMemory memory_;
   U64 groups_ = 0;
   U64 size_ = 0;
};

} // namespace Weft
