// SPDX-License-Identifier: Apache-2.0
#pragma once

/// An open-addressing hash table of elements that the caller hashes and compares.
///
/// Its memory is drawn in Weft/FlatSearch.h.
///
/// Elements never move but when the table grows, so a position stays good while elements, the one
/// at the position included, are erased.
///
/// Threads: none of its own; use one table from one thread at a time.

#include "Weft/ArrayMemory.h"
#include "Weft/FlatSearch.h"

#include <algorithm>
#include <array>
#include <memory>
#include <span>
#include <type_traits>
#include <utility>

namespace Weft {

/// The hash of a table's element from one of 32 bits: the table takes the place of an element from
/// the upper bits and its tag from the lowest.
constexpr U64 widened( U32 hash ) {
   return U64{ hash } << 32 | hash;
}

/// `Element` moves without throwing; `HashOf` gives the 64-bit hash of an element, never throws,
/// and hashes equal elements alike: `hashOf( element )`.
///
/// In a table with leads an element is plain bytes, its hash is `hashOf( lead, element )`, and
/// `hashOf.fetch( lead )` may start to fetch what that is made of. `lead.saysAll()` tells that there is nothing
/// in the element, which must not be read then.
template<class Element, class HashOf, class LeadOfElement = NoLead>
class FlatTable : private FlatSearch<Element, LeadOfElement> {
   static_assert( std::is_nothrow_move_constructible_v<Element> );

 public:
   using Search = FlatSearch<Element, LeadOfElement>;
   using Search::hasLeads;
   using Search::nowhere;
   using typename Search::Found;
   using typename Search::Home;
   using typename Search::Lead;
   using typename Search::Position;
   using Search::operator[];
   using Search::fetchGroup;
   using Search::find;
   using Search::findUnsure;
   using Search::firstLook;
   using Search::forEach;
   using Search::lead;
   using Search::next;

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

   /// The read side, for who keeps a copy.
   Search const& search() const { return *this; }

   U64 size() const { return size_; }
   /// Elements held before the table grows.
   U64 capacity() const { return capacity_; }
   /// How many more that are.
   U64 room() const { return capacity_ - size_; }

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
   /// Says how many more elements will probably be inserted: when the table grows, it grows for them, too,
   /// as far as it expects them at all. 0 takes it back.
   void announce( U64 elements ) { announced_ = elements; }
   /// Whether all expected elements get their room with the first one.
   bool growsAtOnce() const { return takesAllAtOnce( 1 ); }

   /// Adds an element that the table does not hold. There must be room (see makeRoom).
   [[gnu::always_inline]] Position insert( U64 hash, Element element ) noexcept
      requires( !hasLeads )
   {
      Position const position = takeLane( hash );
      std::construct_at( &( *this )[ position ], std::move( element ) );
      return position;
   }
   /// The same for its lead. Where that does not say all, the element at the position that is answered has to
   /// be assigned before it is asked for.
   [[gnu::always_inline]] Position insert( U64 hash, Lead lead ) noexcept
      requires hasLeads
   {
      Position const position = takeLane( hash );
      leadIs( position, lead );
      return position;
   }
   void leadIs( Position position, Lead lead )
      requires hasLeads
   {
      *leadAt( position ) = lead;
   }

   /// A lane that is empty: where its tag and its lead are.
   struct Lane {
      U8* tag;
      Lead* lead;
   };
   /// Calls `onLane( lane )` with a lane for an element more in this home group, or `otherwise()` when there
   /// is none; and answers what that does.
   template<class OnLane, class Otherwise>
   [[gnu::always_inline]] static auto
   laneIn( Home home, OnLane const& onLane, Otherwise const& otherwise ) {
      U8* const tags = tagsOf( home );
      U32 const empty = lanesWith( tags, 0 );
      if ( empty == 0 ) [[unlikely]] {
         return otherwise();
      }
      U32 const lane = lowestOf( empty );
      return onLane( Lane{ .tag = tags + lane, .lead = leadsOf( tags ) + lane } );
   }
   /// Puts an element that the table does not hold in a lane of its home. There must be room, and
   /// countPut() has to follow before anything else is asked of the table.
   [[gnu::always_inline]] static void putAtHome( Lane lane, U64 hash, Lead lead ) noexcept {
      *lane.tag = static_cast<U8>( fourTagsOf( hash ) );
      *lane.lead = lead;
   }
   /// Counts elements that have been put in lanes.
   void countPut( U64 elements ) noexcept { size_ += elements; }

   /// Removes the element at `position`, which has this hash, and returns it.
   [[gnu::always_inline]] Element erase( Position position, U64 hash ) noexcept
      requires( !hasLeads )
   {
      giveLaneBack( position, hash );
      Element& element = ( *this )[ position ];
      Element erased = std::move( element );
      std::destroy_at( &element );
      return erased;
   }
   [[gnu::always_inline]] void erase( Position position, U64 hash ) noexcept
      requires hasLeads
   {
      static_assert( std::is_trivially_destructible_v<Element> );
      giveLaneBack( position, hash );
   }

   /// The same for an element that firstLook() found: it lies at home, so no group counts it as overflow.
   /// (Of one that does not, counts stay behind, which make searches longer and not wrong.)
   [[gnu::always_inline]] void eraseAtHome( Position position ) noexcept {
      static_assert( std::is_trivially_destructible_v<Element> );
      tagAt( position ) = 0;
      --size_;
   }
   /// The same for all elements. Keeps the memory.
   void eraseAll() noexcept {
      static_assert( std::is_trivially_destructible_v<Element> );
      if ( size_ != 0 ) {
         std::fill_n( groupsAt_, groups_ * groupBytes, U8{ 0 } );
         size_ = 0;
      }
   }

   /// Removes every element and gives the memory back.
   void clear() noexcept {
      FlatTable empty;
      destroyElements();
      take( empty );
   }

 private:
   using Search::after;
   using Search::allLanes;
   using Search::elements_;
   using Search::elementsPerGroup;
   using Search::emptyLanes;
   using Search::fourTagsOf;
   using Search::groupBytes;
   using Search::groups_;
   using Search::groupsAt_;
   using Search::homeOf;
   using Search::lanesWith;
   using Search::leadAt;
   using Search::leadsOf;
   using Search::lowestOf;
   using Search::noTags;
   using Search::overflow;
   using Search::positionOf;
   using Search::tagsOf;

   static constexpr U8 exactOverflowEnds = 0xff;

   // With leads, at 5 of 8 lanes, one search in fifty for what is not there goes on to a second group; at 3 of
   // 4, one in thirteen does.
   static constexpr U64 mostIn( U64 groups ) { return groups * elementsPerGroup * 5 / 8; }
   static constexpr U64 groupsFor( U64 elements ) {
      return ( elements * 8 + elementsPerGroup * 5 - 1 ) / ( elementsPerGroup * 5 );
   }

   U8& tagAt( Position position ) { return groupsAt_[ position ]; }
   /// The first empty lane from the home group on, no longer empty.
   [[gnu::always_inline]] Position takeLane( U64 hash ) noexcept {
      U64 group = homeOf( hash );
      while ( emptyLanes( group ) == 0 ) {
         U8& count = overflow( group, hash );
         count = static_cast<U8>( count + ( count != exactOverflowEnds ) );
         group = after( group );
      }
      Position const position = positionOf( group, emptyLanes( group ) );
      tagAt( position ) = static_cast<U8>( fourTagsOf( hash ) );
      ++size_;
      return position;
   }

   [[gnu::always_inline]] void giveLaneBack( Position position, U64 hash ) noexcept {
      U64 const last = position / groupBytes;
      for ( U64 group = homeOf( hash ); group != last; group = after( group ) ) {
         U8& count = overflow( group, hash );
         count = static_cast<U8>( count - ( count != exactOverflowEnds ) );
      }
      tagAt( position ) = 0;
      --size_;
   }

   /// How far into its memory the first group may have to lie, so that no group has two cache lines.
   static constexpr U64 mostPadding =
      groupBytes - std::min<U64>( groupBytes, ArrayMemory::alignment );
   static constexpr U64 bytesOf( U64 groups ) {
      return mostPadding + groups * ( groupBytes + elementsPerGroup * sizeof( Element ) );
   }
   U64 groupsHeld() const { return memory_.size() == 0 ? 0 : groups_; }

   // Up to here the expected elements get their room at once, from the heap: what nobody touches costs
   // nothing. Larger tables grow, in huge pages once that pays.
   static constexpr U64 mostAtOnce = U64{ 8 } << 20;

   bool takesAllAtOnce( U64 groups ) const {
      return groups <= expectedGroups_ && bytesOf( expectedGroups_ ) <= mostAtOnce;
   }
   ArrayMemory memoryFor( U64 groups ) const {
      U64 const bytes = bytesOf( groups );
      return bytes < ArrayMemory::hugePagesFrom || takesAllAtOnce( groups )
                ? ArrayMemory::fromHeap( bytes, mostPadding + groups * groupBytes )
                : ArrayMemory::fromSystem( bytes );
   }

   /// Four times the groups, or what the announced elements need, but no more than the expected ones do
   /// while that is enough.
   U64 nextGroups() const {
      U64 const now = groupsHeld();
      U64 const larger = std::max( { U64{ 1 }, now * 4, groupsFor( size_ + announced_ ) } );
      return expectedGroups_ > now ? std::min( larger, expectedGroups_ ) : larger;
   }

   [[gnu::cold, gnu::noinline]] void growTo( U64 wanted ) {
      FlatTable larger( 0, hashOf_ );
      larger.layOut( takesAllAtOnce( wanted ) ? expectedGroups_ : wanted, *this );
      if constexpr ( hasLeads ) {
         moveWithLeads( larger );
      } else {
         forEach( [ & ]( Position at ) {
            U64 const hash = hashOf_( ( *this )[ at ] );
            larger.insert( hash, std::move( ( *this )[ at ] ) );
         } );
      }
      destroyElements();
      take( larger );
   }

   /// Gives an empty table memory for `groups`, of the kind that `like` takes.
   void layOut( U64 groups, FlatTable const& like ) {
      memory_ = like.memoryFor( groups );
      U8* const bytes = memory_.bytes();
      groupsAt_ = bytes + -reinterpret_cast<std::uintptr_t>( bytes ) % groupBytes;
      elements_ = reinterpret_cast<Element*>( groupsAt_ + groups * groupBytes );
      groups_ = groups;
      capacity_ = mostIn( groups );
   }

   void moveWithLeads( FlatTable& larger ) {
      static_assert( std::is_trivially_copyable_v<Element> );
      constexpr std::size_t fetchedAhead = 32;
      std::array<Position, fetchedAhead> block;
      std::size_t count = 0;
      auto const moveBlock = [ & ] {
         for ( Position const at : std::span( block ).first( count ) ) {
            Element const& element = ( *this )[ at ];
            Position const to = larger.insert( hashOf_( lead( at ), element ), lead( at ) );
            if ( !lead( at ).saysAll() ) {
               larger[ to ] = element;
            }
         }
         count = 0;
      };
      forEach( [ & ]( Position at ) {
         hashOf_.fetch( lead( at ) );
         block[ count++ ] = at;
         if ( count == fetchedAhead ) {
            moveBlock();
         }
      } );
      moveBlock();
   }

   /// Takes over what `other` holds and leaves it empty. What this table held must be gone.
   void take( FlatTable& other ) noexcept {
      memory_ = std::move( other.memory_ );
      groupsAt_ = std::exchange( other.groupsAt_, noTags.data() );
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
   U64 announced_ = 0;
   ArrayMemory memory_;
   U64 capacity_ = 0;
   U64 size_ = 0;
};

} // namespace Weft
