// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The arrays of a FlatTable, and the ways to look into them.
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
/// Threads: as the table.

#include "Weft/Types.h"

#include <array>
#include <bit>
#include <cstddef>

#if defined( __SSE2__ )
#include <emmintrin.h>
#endif

namespace Weft {

/// The read side of a FlatTable. A copy owns nothing and is good until the table changes: who asks often
/// while it does not keeps one, which stays in registers where the members of the table would be loaded
/// again after every store.
template<class Element>
class FlatSearch {
 public:
   using Position = U64;
   static constexpr Position nowhere = ~Position{ 0 };
   static constexpr Position anywhere = nowhere - 1; ///< only a search can tell

   Element& operator[]( Position position ) { return elements_[ elementOf( position ) ]; }
   Element const& operator[]( Position position ) const {
      return elements_[ elementOf( position ) ];
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

   // These start to fetch what a search for this hash will read: the tags of its first group and, once
   // these are there, the first element with the tag; or the place that a new element will take. Inlined
   // at any price: GCC 12 takes a call of a function that does nothing else for one that does nothing.

   [[gnu::always_inline]] void fetchTags( U64 hash ) const {
      __builtin_prefetch( tags_ + homeOf( hash ) * lanesPerGroup );
   }
   /// Calls `onFirst( found )` with that first element, `absent()` when none can have the hash, or
   /// `unsure()`; and answers what that does.
   template<class OnFirst, class Absent, class Unsure>
   [[gnu::always_inline]] auto fetchFirst( U64 hash,
                                           OnFirst const& onFirst,
                                           Absent const& absent,
                                           Unsure const& unsure ) const {
      U64 const group = homeOf( hash );
      U32 const lanes = lanesWith( group, fourTagsOf( hash ) );
      if ( lanes == 0 ) {
         return overflow( group ) == 0 ? absent() : unsure();
      }
      Found const first = at( group, lanes );
      fetch( first );
      return onFirst( first );
   }
   /// The position of that first element; nowhere when none can have the hash; or anywhere.
   [[gnu::always_inline]] Position fetchElement( U64 hash ) const {
      return fetchFirst(
         hash,
         []( Found const& found ) { return found.position; },
         [] { return nowhere; },
         [] { return anywhere; } );
   }
   /// The same, but anywhere also when none can have the hash: whoever adds elements looks again.
   [[gnu::always_inline]] Position fetchElementOrPlace( U64 hash ) const {
      U64 const group = homeOf( hash );
      U32 const lanes = lanesWith( group, fourTagsOf( hash ) );
      if ( lanes != 0 ) {
         Found const first = at( group, lanes );
         fetch( first );
         return first.position;
      }
      if ( U32 const empty = emptyLanes( group ); empty != 0 ) {
         fetch( at( group, empty ) );
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

 protected:
   static constexpr U64 lanesPerGroup = 16; ///< 15 tags and the overflow count
   static constexpr U64 elementsPerGroup = 15;
   static constexpr U32 allLanes = 0x7fff;

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
      return { .element = elements_ + ( group * elementsPerGroup + lane ),
               .position = group * lanesPerGroup + lane };
   }

   [[gnu::always_inline]] static void fetch( Found const& wanted ) {
      auto const* const element = reinterpret_cast<char const*>( wanted.element );
      __builtin_prefetch( element );
      __builtin_prefetch( element + sizeof( Element ) - 1 );
   }

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
   U8 overflow( U64 group ) const { return tags_[ group * lanesPerGroup + elementsPerGroup ]; }

   static Position positionOf( U64 group, U32 lanes ) {
      return group * lanesPerGroup + static_cast<U32>( std::countr_zero( lanes ) );
   }
   static U64 elementOf( Position position ) { return position - position / lanesPerGroup; }

   /// What a table without memory searches: one group, which never gets an element.
   alignas( lanesPerGroup ) inline static std::array<U8, lanesPerGroup> noTags{};

   U8* tags_ = noTags.data();
   Element* elements_ = nullptr; ///< behind the groups
   U64 groups_ = 1;

 private:
   // Out of the way of the first look. The test is copied, so that its owner may keep it in registers.
   template<class Matches>
   [[gnu::noinline]] Found findFurther( U64 hash, Matches matches ) const {
      return findUnsure( hash, matches );
   }
};

} // namespace Weft
