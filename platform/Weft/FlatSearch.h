// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The arrays of a FlatTable, and the ways to look into them.
///
/// One block of memory:
///
///    groups     16 bytes each: 15 tags, one per lane, then an overflow count
///    elements   15 per group, in the order of the lanes
///
/// or, when elements have leads,
///
///    groups     64 bytes each, a cache line: 12 tags, an overflow count for each of four classes, 12 leads
///    elements   12 per group
///
/// A tag is 0 for an empty lane, else 8 bits of the element's hash; the tags of a group are compared at once.
/// An element lies in the first group with an empty lane from its home group on. The overflow count
/// of a group says how many elements passed it by because it was full, all or those whose hash has the same
/// class: where it is 0, a search may stop. Erasing an element lowers the counts that its insertion raised, so
/// a table that lives long does not fill up with old overflow (a count that once reached 255 is no longer
/// exact and stays until the table grows or all elements are erased).
///
/// A lead is a number of 4 bytes that most often says all that there is to know of its element, which then
/// is never written nor read: a search looks at one line, and a change changes one.
///
/// Threads: as the table.

#include "Weft/Types.h"

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#if defined( __SSE2__ )
#include <emmintrin.h>
#endif

namespace Weft {

/// Starts to fetch the `length` bytes at `offset` from `base`, if there are any: what is no place is no error.
/// Inlined at any price, as all that only fetches: GCC 12 takes a call of a function that does nothing else
/// for one that does nothing.
[[gnu::always_inline]] inline void fetchBytes( void const* base, U64 offset, U64 length ) {
   // As a number: a pointer must not be made to lead astray.
   std::uintptr_t const from = reinterpret_cast<std::uintptr_t>( base ) + offset;
   __builtin_prefetch( reinterpret_cast<void const*>( from ) );
   __builtin_prefetch( reinterpret_cast<void const*>( from + length - 1 ) );
}

/// The lead in a table that has none.
struct NoLead {};

/// The read side of a FlatTable. A copy owns nothing and is good until the table changes: who asks often
/// while it does not keeps one, which stays in registers where the members of the table would be loaded
/// again after every store.
template<class Element, class LeadOfElement = NoLead>
class FlatSearch {
 public:
   using Lead = LeadOfElement;
   static constexpr bool hasLeads = !std::is_same_v<Lead, NoLead>;
   using Position = U64;
   static constexpr Position nowhere = ~Position{ 0 };

   Element& operator[]( Position position ) { return elements_[ elementOf( position ) ]; }
   Element const& operator[]( Position position ) const {
      return elements_[ elementOf( position ) ];
   }

   Lead lead( Position position ) const
      requires hasLeads
   {
      return *leadAt( position );
   }

   /// An element and its position; null and nowhere when there is none.
   struct Found {
      Element* element;
      Position position;
   };

   /// Where an element lies at best, for who adds one that a first look has not found. Good until the table
   /// grows or gives its memory back.
   class Home {
      friend FlatSearch;
      explicit Home( U8* tags ) : tags_( tags ) {}
      U8* tags_;
   };

   // `matches( element )` says whether an element is the one that is wanted; in a table with leads,
   // `matches( lead, element )`.

   /// The element with this hash for which `matches` is true.
   template<class Matches>
   [[gnu::always_inline]] Found find( U64 hash, Matches const& matches ) const {
      U64 const group = homeOf( hash );
      U32 const lanes = lanesWith( group, fourTagsOf( hash ) );
      if ( lanes != 0 ) [[likely]] {
         Found const first = at( group, lanes );
         if ( isWanted( matches, first ) ) [[likely]] {
            return first;
         }
      } else if ( overflow( group, hash ) == 0 ) [[likely]] {
         return none();
      }
      return findFurther( hash, matches );
   }

   /// The first look of find() alone, which nearly always decides, for who can tell by other means whether
   /// the first element with the right tag is the one: calls `onFirst( lead, position )` with it,
   /// `absent( home )` when there is none, or `unsure()` when others have to be looked at, as onFirst() may;
   /// and answers what that does. (An answer that were to be looked at again would cost a good part of the
   /// search.)
   template<class OnFirst, class Absent, class Unsure>
   [[gnu::always_inline]] auto
   firstLook( U64 hash, OnFirst const& onFirst, Absent const& absent, Unsure const& unsure ) const
      requires hasLeads
   {
      U8* const tags = tagsOf( homeOf( hash ) );
      U32 const lanes = lanesWith( tags, fourTagsOf( hash ) );
      if ( lanes != 0 ) {
         U32 const lane = lowestOf( lanes );
         return onFirst( leadsOf( tags )[ lane ],
                         static_cast<Position>( tags - groupsAt_ ) + lane );
      }
      return overflowIn( tags, hash ) == 0 ? absent( Home( tags ) ) : unsure();
   }

   /// As find(), for a hash of which a first look is unsure.
   template<class Matches>
   [[gnu::always_inline]] Found findUnsure( U64 hash, Matches const& matches ) const {
      U32 const tag = fourTagsOf( hash );
      U64 group = homeOf( hash );
      for ( U64 passed = 0; passed < groups_; ++passed, group = after( group ) ) {
         for ( U32 lanes = lanesWith( group, tag ); lanes != 0; lanes &= lanes - 1 ) {
            Found const found = at( group, lanes );
            if ( isWanted( matches, found ) ) {
               return found;
            }
         }
         if ( overflow( group, hash ) == 0 ) {
            return none();
         }
      }
      return none();
   }

   /// Starts to fetch what a first look for this hash will read. Inlined as fetchBytes().
   [[gnu::always_inline]] void fetchGroup( U64 hash ) const {
      __builtin_prefetch( tagsOf( homeOf( hash ) ) );
   }
   /// The first occupied position at or after `position`, or nowhere: a walk is
   /// for ( p = next( 0 ); p != nowhere; p = next( p + 1 ) ).
   [[gnu::always_inline]] Position next( Position position ) const {
      U32 passed = static_cast<U32>( position % groupBytes );
      for ( U64 group = position / groupBytes; group < groups_; ++group, passed = 0 ) {
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
   static constexpr U64 tagBytes = 16; ///< of a group, with the overflow counts
   static constexpr U64 elementsPerGroup = hasLeads ? 12 : 15;
   static constexpr U64 overflowLane = elementsPerGroup; ///< where the overflow counts are
   static constexpr U64 overflowClasses = tagBytes - elementsPerGroup;
   static constexpr U32 allLanes = ( U32{ 1 } << elementsPerGroup ) - 1;
   static constexpr U64 groupBytes = hasLeads ? 64 : tagBytes;
   static_assert( !hasLeads || tagBytes + elementsPerGroup * sizeof( Lead ) == groupBytes );

   /// The tag of a hash, in each of four bytes: its lowest byte, 1 for 0.
   static U32 fourTagsOf( U64 hash ) { return fourTags[ hash & 0xff ]; }
   static constexpr std::array<U32, 256> fourTags = [] {
      std::array<U32, 256> tags{};
      for ( U32 byte = 0; byte < tags.size(); ++byte ) {
         tags[ byte ] = 0x01010101U * ( byte == 0 ? 1 : byte );
      }
      return tags;
   }();
   /// From bits of the tag: among elements that are not the one, those of its class are as many as any.
   static U64 classOf( U64 hash ) { return hash % overflowClasses; }
   U64 homeOf( U64 hash ) const {
      __extension__ using U128 = unsigned __int128;
      return static_cast<U64>( ( static_cast<U128>( hash ) * groups_ ) >> 64 );
   }
   U64 after( U64 group ) const { return group + 1 == groups_ ? 0 : group + 1; }

   static Found none() { return { .element = nullptr, .position = nowhere }; }
   /// What is at the lowest of `lanes`.
   Found at( U64 group, U32 lanes ) const {
      U32 const lane = lowestOf( lanes );
      return { .element = elements_ + ( group * elementsPerGroup + lane ),
               .position = group * groupBytes + lane };
   }

   template<class Matches>
   [[gnu::always_inline]] bool isWanted( Matches const& matches, Found const& found ) const {
      if constexpr ( hasLeads ) {
         return matches( lead( found.position ), *found.element );
      } else {
         return matches( *found.element );
      }
   }

   U8* tagsOf( U64 group ) const { return groupsAt_ + group * groupBytes; }
   static U8* tagsOf( Home home ) { return home.tags_; }
   static Lead* leadsOf( U8* tags ) { return reinterpret_cast<Lead*>( tags + tagBytes ); }
   Lead* leadAt( Position position ) const {
      return leadsOf( tagsOf( position / groupBytes ) ) + position % groupBytes;
   }

   /// A bit for each of the lanes of a group whose tag is the one in `four`.
   static U32 lanesWith( U8 const* tags, U32 four ) {
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
   U32 lanesWith( U64 group, U32 four ) const { return lanesWith( tagsOf( group ), four ); }
   U32 emptyLanes( U64 group ) const { return lanesWith( group, 0 ); }
   /// How many elements of the class of this hash have passed a group by.
   static U8& overflowIn( U8* tags, U64 hash ) { return tags[ overflowLane + classOf( hash ) ]; }
   U8& overflow( U64 group, U64 hash ) const { return overflowIn( tagsOf( group ), hash ); }

   static U32 lowestOf( U32 lanes ) { return static_cast<U32>( std::countr_zero( lanes ) ); }
   static Position positionOf( U64 group, U32 lanes ) {
      return group * groupBytes + lowestOf( lanes );
   }
   static U64 elementOf( Position position ) {
      return position - position / groupBytes * ( groupBytes - elementsPerGroup );
   }

   /// What a table without memory searches: one group, which never gets an element.
   alignas( groupBytes ) inline static std::array<U8, groupBytes> noTags{};

   U8* groupsAt_ = noTags.data();
   Element* elements_ = nullptr;
   U64 groups_ = 1;

 private:
   // Out of the way of the first look. The test is copied, so that its owner may keep it in registers.
   template<class Matches>
   [[gnu::noinline]] Found findFurther( U64 hash, Matches matches ) const {
      return findUnsure( hash, matches );
   }
};

} // namespace Weft
