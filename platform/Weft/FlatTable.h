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
#include <array>
#include <bit>
#include <cstddef>
#include <memory>
#include <type_traits>
#include <utility>

#if defined( __SSE2__ )
#include <emmintrin.h>
#endif

namespace Weft {

/// The hash of a table's element from one of 32 bits: the table takes the place of an element from
/// the upper bits and its tag from the lowest.
constexpr U64 widened( U32 hash ) {
   return U64{ hash } << 32 | hash;
}

/// `Element` moves without throwing; `HashOf` gives the 64-bit hash of an element, never throws,
/// and hashes equal elements alike.
template<class Element, class HashOf>
class FlatTable {
   static_assert( std::is_nothrow_move_constructible_v<Element> );

 public:
   using Position = U64;
   static constexpr Position nowhere = ~Position{ 0 };
   static constexpr Position anywhere = nowhere - 1; ///< only a search can tell

   /// `expectedMost` elements are expected at most; growth stops at the memory that these need as
   /// long as they are not exceeded. 0: no expectation.
   explicit FlatTable( U64 expectedMost = 0, HashOf hashOf = HashOf() )
         : hashOf_( hashOf ), expectedGroups_( groupsFor( expectedMost ) ) {}
   FlatTable( FlatTable&& other ) noexcept
         : hashOf_( other.hashOf_ ), expectedGroups_( other.expectedGroups_ ) {
      take( other );
   }
   FlatTable& operator=( FlatTable&& ) = delete;
   ~FlatTable() { destroyElements(); }

   U64 size() const { return size_; }
   /// Elements held before the table grows.
   U64 capacity() const { return capacity_; }

   Element& operator[]( Position position ) { return elements()[ elementOf( position ) ]; }
   Element const& operator[]( Position position ) const {
      return elements()[ elementOf( position ) ];
   }

   /// An element and its position; null and nowhere when there is none.
   struct Found {
      Element* element;
      Position position;
   };

   /// The element with this hash for which `matches` is true.
   template<class Matches>
   [[gnu::always_inline]] Found find( U64 hash, Matches const& matches ) const {
      U64 const group = homeOf( hash );
      U32 const lanes = lanesWith( group, fourTagsOf( hash ) );
      if ( lanes != 0 ) [[likely]] {
         Found const first = at( group, lanes );
         if ( matches( *first.element ) ) [[likely]] {
            return first;
         }
      } else if ( overflow( group ) == 0 ) [[likely]] {
         return none();
      }
      return findFurther( hash, matches );
   }

   /// What the first look of find() says, which nearly always decides: calls `onFound( found )`,
   /// `absent()`, or `unsure()`, and answers what that does. (An answer that were to be looked at again
   /// would cost a good part of the search.)
   template<class Matches, class OnFound, class Absent, class Unsure>
   [[gnu::always_inline]] auto glance( U64 hash,
                                       Matches const& matches,
                                       OnFound const& onFound,
                                       Absent const& absent,
                                       Unsure const& unsure ) const {
      U64 const group = homeOf( hash );
      U32 const lanes = lanesWith( group, fourTagsOf( hash ) );
      if ( lanes != 0 ) {
         Found const first = at( group, lanes );
         if ( matches( *first.element ) ) [[likely]] {
            return onFound( first );
         }
      } else if ( overflow( group ) == 0 ) [[likely]] {
         return absent();
      }
      return unsure();
   }

   /// As find(), for a hash of which glance() is unsure.
   template<class Matches>
   [[gnu::always_inline]] Found findUnsure( U64 hash, Matches const& matches ) const {
      U32 const tag = fourTagsOf( hash );
      U64 group = homeOf( hash );
      for ( U64 passed = 0; passed < groups_; ++passed, group = after( group ) ) {
         for ( U32 lanes = lanesWith( group, tag ); lanes != 0; lanes &= lanes - 1 ) {
            Found const found = at( group, lanes );
            if ( matches( *found.element ) ) {
               return found;
            }
         }
         if ( overflow( group ) == 0 ) {
            return none();
         }
      }
      return none();
   }

   /// Makes sure that one more element can be inserted. std::bad_alloc leaves the table as it was.
   /// One allocation at most; positions taken before are void when the capacity changes.
   [[gnu::always_inline]] void makeRoom() {
      if ( size_ < capacity_ ) [[likely]] {
         return;
      }
      growTo( nextGroups() );
   }
   /// The same for `elements` more.
   void makeRoomFor( U64 elements ) {
      if ( size_ + elements > capacity() ) {
         growTo( groupsFor( size_ + elements ) );
      }
   }
   /// Whether all expected elements get their room with the first one.
   bool growsAtOnce() const { return takesAllAtOnce( 1 ); }
   /// Bytes that the table holds beside itself.
   U64 bytes() const { return memory_.size(); }

   /// Adds an element that the table does not hold. There must be room (see makeRoom).
   [[gnu::always_inline]] Position insert( U64 hash, Element element ) noexcept {
      U64 group = homeOf( hash );
      while ( emptyLanes( group ) == 0 ) {
         U8& count = overflow( group );
         count = static_cast<U8>( count + ( count != exactOverflowEnds ) );
         group = after( group );
      }
      Position const position = positionOf( group, emptyLanes( group ) );
      tagAt( position ) = static_cast<U8>( fourTagsOf( hash ) );
      std::construct_at( &( *this )[ position ], std::move( element ) );
      ++size_;
      return position;
   }

   /// Calls `onPlace( place )` with the place of a new element with this hash in its home group, or
   /// `otherwise()` when there is none, or no room; and answers what that does.
   template<class OnPlace, class Otherwise>
   [[gnu::always_inline]] auto
   placeAtHome( U64 hash, OnPlace const& onPlace, Otherwise const& otherwise ) const {
      U64 const group = homeOf( hash );
      U32 const empty = emptyLanes( group );
      if ( empty == 0 || size_ >= capacity_ ) [[unlikely]] {
         return otherwise();
      }
      return onPlace( at( group, empty ) );
   }
   /// Adds an element that the table does not hold in its place at home.
   [[gnu::always_inline]] void
   insertAtHome( Found const& place, U64 hash, Element const& element ) noexcept {
      tagAt( place.position ) = static_cast<U8>( fourTagsOf( hash ) );
      std::construct_at( place.element, element );
      ++size_;
   }
   /// Adds an element that the table may hold and for which there may be no room, if the first look
   /// decides both. False, and nothing added, otherwise.
   [[gnu::always_inline]] bool insertAtFirstLook( U64 hash, Element const& element ) noexcept {
      U64 const group = homeOf( hash );
      if ( overflow( group ) != 0 || lanesWith( group, fourTagsOf( hash ) ) != 0 ) [[unlikely]] {
         return false;
      }
      return placeAtHome(
         hash,
         [ & ]( Found const& place ) __attribute__( ( always_inline ) ) {
            insertAtHome( place, hash, element );
            return true;
         },
         [] { return false; } );
   }

   /// Removes the element at `position`, which has this hash, and returns it.
   [[gnu::always_inline]] Element erase( Position position, U64 hash ) noexcept {
      Element& element = ( *this )[ position ];
      U64 const last = position / lanesPerGroup;
      for ( U64 group = homeOf( hash ); group != last; group = after( group ) ) {
         U8& count = overflow( group );
         count = static_cast<U8>( count - ( count != exactOverflowEnds ) );
      }
      tagAt( position ) = 0;
      --size_;
      Element erased = std::move( element );
      std::destroy_at( &element );
      return erased;
   }

   /// The same for an element that glance() found: it lies at home, so no group counts it as overflow.
   /// (Of one that does not, counts stay behind, which make searches longer and not wrong.)
   [[gnu::always_inline]] void eraseGlanced( Position position ) noexcept {
      static_assert( std::is_trivially_destructible_v<Element> );
      tagAt( position ) = 0;
      --size_;
   }
   /// The same for all elements. Keeps the memory.
   void eraseAll() noexcept {
      static_assert( std::is_trivially_destructible_v<Element> );
      if ( size_ != 0 ) {
         std::fill_n( tags_, groups_ * lanesPerGroup, U8{ 0 } );
         size_ = 0;
      }
   }

   // These start to fetch what a search for this hash will read: the tags of its first group and, once
   // these are there, the first element with the tag; or the place that a new element will take. Inlined
   // at any price: GCC 12 takes a call of a function that does nothing else for one that does nothing.

   [[gnu::always_inline]] void fetchTags( U64 hash ) const {
      __builtin_prefetch( tags_ + homeOf( hash ) * lanesPerGroup );
   }
   /// The position of that first element, nowhere when none can have the hash, or anywhere.
   [[gnu::always_inline]] Position fetchElement( U64 hash ) const {
      U64 const group = homeOf( hash );
      U32 const lanes = lanesWith( group, fourTagsOf( hash ) );
      if ( lanes == 0 ) {
         return overflow( group ) == 0 ? nowhere : anywhere;
      }
      return fetchAt( group, lanes );
   }
   /// The same, but anywhere also when none can have the hash: whoever adds elements looks again.
   [[gnu::always_inline]] Position fetchElementOrPlace( U64 hash ) const {
      U64 const group = homeOf( hash );
      U32 const lanes = lanesWith( group, fourTagsOf( hash ) );
      if ( lanes != 0 ) {
         return fetchAt( group, lanes );
      }
      if ( U32 const empty = emptyLanes( group ); empty != 0 ) {
         fetchAt( group, empty );
      }
      return anywhere;
   }
   /// Whether there is an element at a position that was given at any time, or at nowhere or anywhere.
   [[gnu::always_inline]] bool holds( Position position ) const {
      return position < groups_ * lanesPerGroup && tags_[ position ] != 0;
   }

   /// The first occupied position at or after `position`, or nowhere: a walk is
   /// for ( p = next( 0 ); p != nowhere; p = next( p + 1 ) ).
   [[gnu::always_inline]] Position next( Position position ) const {
      U32 passed = static_cast<U32>( position % lanesPerGroup );
      for ( U64 group = position / lanesPerGroup; group < groups_; ++group, passed = 0 ) {
         U32 const used = ~emptyLanes( group ) & allLanes & ( ~U32{ 0 } << passed );
         if ( used != 0 ) {
            return positionOf( group, used );
         }
      }
      return nowhere;
   }

   /// Calls `visit( position )` for each occupied position from the first on. Elements at positions that
   /// have been visited may be erased meanwhile, and no other.
   template<class Visit>
   [[gnu::always_inline]] void forEach( Visit const& visit ) const {
      for ( U64 group = 0; group < groups_; ++group ) {
         for ( U32 used = ~emptyLanes( group ) & allLanes; used != 0; used &= used - 1 ) {
            visit( positionOf( group, used ) );
         }
      }
   }

   /// Removes every element and gives the memory back.
   void clear() noexcept {
      FlatTable empty;
      destroyElements();
      take( empty );
   }

 private:
   static constexpr U64 lanesPerGroup = 16; ///< 15 tags and the overflow count
   static constexpr U64 elementsPerGroup = 15;
   static constexpr U32 allLanes = 0x7fff;
   static constexpr U8 exactOverflowEnds = 0xff;

   // At 3 of 4 lanes, one search in twenty for what is not there goes on to a second group; at 7 of 8,
   // one in four does.
   static constexpr U64 mostIn( U64 groups ) { return groups * elementsPerGroup * 3 / 4; }
   static constexpr U64 groupsFor( U64 elements ) {
      return ( elements * 4 + elementsPerGroup * 3 - 1 ) / ( elementsPerGroup * 3 );
   }

   /// The tag of a hash, in each of four bytes: its lowest byte, 1 for 0.
   static U32 fourTagsOf( U64 hash ) { return fourTags[ hash & 0xff ]; }
   static constexpr std::array<U32, 256> fourTags = [] {
      std::array<U32, 256> tags{};
      for ( U32 byte = 0; byte < tags.size(); ++byte ) {
         tags[ byte ] = 0x01010101U * ( byte == 0 ? 1 : byte );
      }
      return tags;
   }();
   U64 homeOf( U64 hash ) const {
      __extension__ using U128 = unsigned __int128;
      return static_cast<U64>( ( static_cast<U128>( hash ) * groups_ ) >> 64 );
   }
   U64 after( U64 group ) const { return group + 1 == groups_ ? 0 : group + 1; }

   static Found none() { return { .element = nullptr, .position = nowhere }; }
   /// What is at the lowest of `lanes`.
   Found at( U64 group, U32 lanes ) const {
      U32 const lane = static_cast<U32>( std::countr_zero( lanes ) );
      return { .element = elements() + ( group * elementsPerGroup + lane ),
               .position = group * lanesPerGroup + lane };
   }

   [[gnu::always_inline]] Position fetchAt( U64 group, U32 lanes ) const {
      Found const wanted = at( group, lanes );
      auto const* const element = reinterpret_cast<char const*>( wanted.element );
      __builtin_prefetch( element );
      __builtin_prefetch( element + sizeof( Element ) - 1 );
      return wanted.position;
   }

   // Out of the way of the first look. The test is copied, so that its owner may keep it in registers.
   template<class Matches>
   [[gnu::noinline]] Found findFurther( U64 hash, Matches matches ) const {
      return findUnsure( hash, matches );
   }

   static Position positionOf( U64 group, U32 lanes ) {
      return group * lanesPerGroup + static_cast<U32>( std::countr_zero( lanes ) );
   }
   static U64 elementOf( Position position ) { return position - position / lanesPerGroup; }

   U8& tagAt( Position position ) { return tags_[ position ]; }
   U8& overflow( U64 group ) { return tagAt( group * lanesPerGroup + elementsPerGroup ); }
   U8 overflow( U64 group ) const { return tags_[ group * lanesPerGroup + elementsPerGroup ]; }
   Element* elements() const { return elements_; }

   /// A bit for each of the 15 lanes of a group whose tag is the one in `four`.
   U32 lanesWith( U64 group, U32 four ) const {
      U8 const* const tags = tags_ + group * lanesPerGroup;
#if defined( __SSE2__ )
      __m128i const all = _mm_load_si128( reinterpret_cast<__m128i const*>( tags ) );
      __m128i const wanted = _mm_shuffle_epi32( _mm_cvtsi32_si128( static_cast<int>( four ) ), 0 );
      return static_cast<U32>( _mm_movemask_epi8( _mm_cmpeq_epi8( all, wanted ) ) ) & allLanes;
#else
      U32 lanes = 0;
      for ( U32 lane = 0; lane < elementsPerGroup; ++lane ) {
         lanes |= U32{ tags[ lane ] == static_cast<U8>( four ) } << lane;
      }
      return lanes;
#endif
   }
   U32 emptyLanes( U64 group ) const { return lanesWith( group, 0 ); }

   static constexpr U64 bytesOf( U64 groups ) {
      return groups * ( lanesPerGroup + elementsPerGroup * sizeof( Element ) );
   }
   U64 groupsHeld() const { return memory_.size() == 0 ? 0 : groups_; }

   // Up to here the expected elements get their room at once, from the heap: what nobody touches costs
   // nothing. Larger tables grow, in huge pages once that pays.
   static constexpr U64 mostAtOnce = U64{ 8 } << 20;
   static constexpr U64 hugePagesFrom = U64{ 2 } << 20;

   bool takesAllAtOnce( U64 groups ) const {
      return groups <= expectedGroups_ && bytesOf( expectedGroups_ ) <= mostAtOnce;
   }
   ArrayMemory memoryFor( U64 groups ) const {
      U64 const bytes = bytesOf( groups );
      return bytes < hugePagesFrom || takesAllAtOnce( groups )
                ? ArrayMemory::fromHeap( bytes, groups * lanesPerGroup )
                : ArrayMemory::fromSystem( bytes );
   }

   /// Four times the groups, but no more than the expected elements need while that is enough.
   U64 nextGroups() const {
      U64 const now = groupsHeld();
      U64 const larger = std::max<U64>( 1, now * 4 );
      return expectedGroups_ > now ? std::min( larger, expectedGroups_ ) : larger;
   }

   [[gnu::cold, gnu::noinline]] void growTo( U64 wanted ) {
      U64 const groups = takesAllAtOnce( wanted ) ? expectedGroups_ : wanted;
      FlatTable larger( 0, hashOf_ );
      static_assert( ArrayMemory::alignment % lanesPerGroup == 0 );
      larger.memory_ = memoryFor( groups );
      larger.tags_ = larger.memory_.bytes();
      larger.elements_ = reinterpret_cast<Element*>( larger.tags_ + groups * lanesPerGroup );
      larger.groups_ = groups;
      larger.capacity_ = mostIn( groups );
      forEach( [ & ]( Position at ) {
         Element& element = ( *this )[ at ];
         U64 const hash = hashOf_( element );
         larger.insert( hash, std::move( element ) );
      } );
      destroyElements();
      take( larger );
   }

   /// Takes over what `other` holds and leaves it empty. What this table held must be gone.
   void take( FlatTable& other ) noexcept {
      memory_ = std::move( other.memory_ );
      tags_ = std::exchange( other.tags_, noTags.data() );
      elements_ = std::exchange( other.elements_, nullptr );
      groups_ = std::exchange( other.groups_, 1 );
      capacity_ = std::exchange( other.capacity_, 0 );
      size_ = std::exchange( other.size_, 0 );
   }

   void destroyElements() noexcept {
      if constexpr ( !std::is_trivially_destructible_v<Element> ) {
         forEach( [ & ]( Position at ) { std::destroy_at( &( *this )[ at ] ); } );
      }
   }

   [[no_unique_address]] HashOf hashOf_;
   U64 expectedGroups_;
   /// What a table without memory searches: one group, which never gets an element.
   alignas( lanesPerGroup ) inline static std::array<U8, lanesPerGroup> noTags{};

   ArrayMemory memory_;
   U8* tags_ = noTags.data();
   Element* elements_ = nullptr; ///< behind the groups
   U64 groups_ = 1;
   U64 capacity_ = 0;
   U64 size_ = 0;
};

} // namespace Weft
