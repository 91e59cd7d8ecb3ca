// SPDX-License-Identifier: Apache-2.0
#pragma once

/// From (chip, key) to slot, for keys of one length and one class of lengths. Internal to EmTable.
///
/// What the hash of chip and key leads to is a slot and no more, so one line of memory leads to the image,
/// where chip and key are, too. Who must not look there finds them in an array in the order of the slots.
///
/// A caller can give two pairs the same slot, or a pair what is no slot. Of such a pair all that is known
/// lies in an element of its own.
///
/// The EmTableFapIndices of a key is made when somebody asks for it, out of all pairs of the key, and
/// takes the place of the one with the lowest chip, in an element. From then on it is *the* object of the
/// key and the only holder of its slots, so it does not matter to a caller which way a key is stored.
///
/// Threads: as the table that owns the map.

#include "Tessel/KeysBySlot.h"
#include "Weft/FlatTable.h"

#include <bit>
#include <numeric>
#include <utility>

namespace Tessel {

/// Where a pair stands in a table of keys; void once a key has been added or removed.
struct KeyPlace {
   U64 position;       ///< of the pair, or of the object of its key; nowhere when there is neither
   EmTableIndex index; ///< of the pair; invalid when it is absent
};

/// Chips, as a set.
class ChipSet {
 public:
   void add( Brine::ChipId chip ) { wordOf( chip ) |= bitOf( chip ); }
   void clear() { words_ = {}; }
   bool has( Brine::ChipId chip ) const {
      return ( words_[ chip.value() / 64U ] & bitOf( chip ) ) != 0;
   }
   bool hasSeveral() const {
      return std::accumulate( words_.begin(), words_.end(), 0, []( int count, U64 word ) {
                return count + std::popcount( word );
             } ) > 1;
   }

   /// Calls `visit( chip )` for each from the lowest on, until it answers true; whether it did.
   template<class Visit>
   bool anyOf( Visit const& visit ) const {
      for ( std::size_t i = 0; i < words_.size(); ++i ) {
         for ( U64 left = words_[ i ]; left != 0; left &= left - 1 ) {
            auto const chip = i * 64 + static_cast<U32>( std::countr_zero( left ) );
            if ( visit( Brine::ChipId( static_cast<U8>( chip ) ) ) ) {
               return true;
            }
         }
      }
      return false;
   }

 private:
   U64& wordOf( Brine::ChipId chip ) { return words_[ chip.value() / 64U ]; }
   static U64 bitOf( Brine::ChipId chip ) { return U64{ 1 } << chip.value() % 64U; }

   std::array<U64, 4> words_{};
};

/// Leads to a slot that one pair alone has; or to an element.
class SlotLead {
 public:
   SlotLead() = default;
   explicit SlotLead( EmTableIndex slot ) : slot_( slot.value() ) {}

   /// Whether it leads to a slot.
   bool saysAll() const { return slot().valid(); }
   /// The invalid index where there is none: no range is so long that it could be a slot.
   EmTableIndex slot() const { return EmTableIndex( slot_ ); }

 private:
   U32 slot_ = EmTableIndex::invalid;
};

/// The pairs of one exact-match table.
template<std::size_t wordCount>
class KeyTable {
 public:
   static constexpr U64 nowhere = ~U64{ 0 };
   using Pair = HashedPair<wordCount>;
   using Words = KeyWords<wordCount>;
   using Element = KeyElement<wordCount>;

   using View = typename KeysBySlot<wordCount>::View;

 private:
   struct ElementHash {
      View keys;
      U64 operator()( SlotLead lead, Element const& element ) const {
         if ( lead.saysAll() ) [[likely]] {
            auto const& key = keys[ lead.slot() ];
            return Pair( key.beside().chip(), key.words() ).hash;
         }
         return Pair( element.beside().placeChip(), element.words() ).hash;
      }
      [[gnu::always_inline]] void fetch( SlotLead lead ) const { keys.fetch( lead.slot() ); }
   };
   using Elements = Weft::FlatTable<Element, ElementHash, SlotLead>;

 public:
   using Search = typename Elements::Search;
   using Home = typename Elements::Home;

   /// For keys of `keyLength` bytes, in at most `mostPairs` pairs, whose slots are below that.
   KeyTable( U32 keyLength, U32 mostPairs )
         : bySlot_( mostPairs ), elements_( mostPairs, ElementHash{ bySlot_.view() } ),
           keyLength_( keyLength ) {}
   KeyTable( KeyTable&& ) noexcept = default;
   KeyTable& operator=( KeyTable&& ) = delete;
   ~KeyTable() { delAll(); }

   /// Pairs, and keys that have an object; held now, and before more memory is taken.
   U64 size() const { return elements_.size(); }
   U64 capacity() const { return elements_.capacity(); }
   /// Keys that have an object.
   U64 objects() const { return objects_; }

   /// Reads keyLength bytes.
   [[gnu::always_inline]] Words wordsAt( char const* bytes ) const {
      return keyWordsAt<wordCount>( bytes, keyLength_ );
   }

   /// The keys of the slots that leads lead to.
   View keysBySlot() const { return bySlot_.view(); }

   [[gnu::always_inline]] KeyPlace find( Pair const& pair ) const {
      return placeOf( pair, elements_.find( pair.hash, isPair( pair ) ) );
   }
   /// The same for a pair of which a first look is unsure.
   [[gnu::always_inline]] KeyPlace findUnsure( Pair const& pair ) const {
      return placeOf( pair, elements_.findUnsure( pair.hash, isPair( pair ) ) );
   }

   /// What the first look of find() says, which nearly always decides: calls `onFirst( lead, position )`
   /// for a pair that most likely is the one, `absent( home )` when the pair is not there, or else `unsure()`;
   /// and answers what that does.
   template<class OnFirst, class Absent, class Unsure>
   [[gnu::always_inline]] auto
   firstLook( U64 hash, OnFirst const& onFirst, Absent const& absent, Unsure const& unsure ) const {
      return elements_.firstLook(
         hash,
         onFirst,
         [ & ]( Home home ) __attribute__( ( always_inline ) ) {
            if ( objects_ != 0 ) [[unlikely]] { // of which one may hold the pair, at another place
               return unsure();
            }
            return absent( home );
         },
         unsure );
   }
   SlotLead leadAt( U64 position ) const { return elements_.lead( position ); }

   /// Makes sure that set() of a pair that find() did not find needs no memory. One allocation at
   /// most; std::bad_alloc leaves the table as it was.
   [[gnu::always_inline]] void makeRoom( KeyPlace const& place ) {
      if ( place.position == nowhere ) {
         elements_.makeRoom();
      } else if ( SlotOrObject const where = whereOf( place.position ); where.isObject() ) {
         where.object()->makeRoom();
      }
   }
   /// The same for that many pairs of keys that have no object.
   void makeRoomFor( U64 pairs ) { elements_.makeRoomFor( pairs ); }
   /// Says how many pairs will probably be added: when the table grows, it grows for them, too. 0 takes it
   /// back.
   void announce( U64 pairs ) { elements_.announce( pairs ); }
   /// Whether the first pair makes room for all.
   bool growsAtOnce() const { return elements_.growsAtOnce(); }

   /// What is known of a slot that a pair gets.
   enum class Slot {
      ofNoPair, ///< no other pair has it
      any
   };
   /// Sets the pair's slot; for a pair that find() did not find, after makeRoom().
   [[gnu::always_inline]] void
   set( KeyPlace const& place, Pair const& pair, EmTableIndex slot, Slot known ) {
      if ( place.position == nowhere ) {
         chips_.add( pair.chip );
         giveSlot( elements_.insert( pair.hash, SlotLead() ), pair, slot, known );
      } else if ( SlotOrObject const where = whereOf( place.position ); where.isObject() ) {
         where.object()->indexIs( pair.chip, slot );
      } else {
         leaveSlot( place.position );
         elements_.leadIs( place.position, SlotLead() );
         giveSlot( place.position, pair, slot, known );
      }
   }

   // The following are for slots of no other pair, in a table in which no caller has set a slot, or that is
   // empty again and has been told so.

   void startAfresh() { bySlot_.trackNoMore(); }

   using Lane = typename Elements::Lane;
   /// Calls `onLane( lane )` if putAtHome() can put a pair there that is absent and has this home, or
   /// `otherwise()`, when makeRoom() and set() have to find a place; and answers what that does.
   template<class OnLane, class Otherwise>
   [[gnu::always_inline]] static auto
   laneIn( Home home, OnLane const& onLane, Otherwise const& otherwise ) {
      return Elements::laneIn( home, onLane, otherwise );
   }
   /// Pairs for which there is room.
   U64 room() const { return elements_.room(); }
   /// There must be room. The chip has had a pair before, or noteChip() follows; and countPut() does before
   /// anything else is asked of the table.
   [[gnu::always_inline]] static void
   putAtHome( Lane lane, View keysBySlot, Pair const& pair, EmTableIndex slot ) {
      Elements::putAtHome( lane, pair.hash, SlotLead( slot ) );
      keysBySlot[ slot ] = KeyOfSlot<wordCount>( pair.words, ChipOfPair( pair.chip ) );
   }
   void countPut( U64 pairs ) { elements_.countPut( pairs ); }

   /// Where no key has an object: the same for a pair of which it is not known whether it is absent, if a first
   /// look in `search` shows that. False, and nothing put, otherwise.
   [[gnu::always_inline]] static bool
   putAtFirstLook( Search const& search, View keysBySlot, Pair const& pair, EmTableIndex slot ) {
      auto const refused = []( auto... ) { return false; };
      return search.firstLook(
         pair.hash,
         refused,
         [ & ]( Home home ) __attribute__( ( always_inline ) ) {
            return laneIn(
               home,
               [ & ]( Lane lane ) __attribute__( ( always_inline ) ) {
                  putAtHome( lane, keysBySlot, pair, slot );
                  return true;
               },
               refused );
         },
         refused );
   }
   void noteChip( Brine::ChipId chip ) { chips_.add( chip ); }

   /// Removes a pair that find() found, and the object of its key with its last pair.
   [[gnu::always_inline]] void erase( KeyPlace const& place, Pair const& pair ) {
      SlotOrObject const where = whereOf( place.position );
      if ( where.isObject() ) [[unlikely]] {
         where.object()->indexDel( pair.chip );
         if ( where.object()->indexCount() == 0 ) {
            eraseAt( place.position );
         }
         return;
      }
      leaveSlot( place.position );
      elements_.erase( place.position, pair.hash );
   }

   // The following three are for tables in which no caller has set a slot.

   /// Removes the pair at a position that firstLook() gave.
   [[gnu::always_inline]] void eraseAtHome( U64 position ) { elements_.eraseAtHome( position ); }
   /// Removes the pair that has a slot, and this hash; false when there is none.
   [[gnu::always_inline]] bool eraseWithSlot( U64 hash, EmTableIndex slot ) {
      auto const further = [ & ] {
         U64 const position = elements_
                                 .findUnsure( hash,
                                              [ & ]( SlotLead lead, Element const& /*element*/ ) {
                                                 return lead.slot() == slot;
                                              } )
                                 .position;
         if ( position != nowhere ) {
            elements_.erase( position, hash );
         }
         return position != nowhere;
      };
      return elements_.firstLook(
         hash,
         [ & ]( SlotLead lead, U64 position ) __attribute__( ( always_inline ) ) {
            if ( lead.slot() != slot ) [[unlikely]] {
               return further();
            }
            eraseAtHome( position );
            return true;
         },
         []( Home /*home*/ ) { return false; },
         further );
   }
   /// Removes all pairs, of whose keys none has an object.
   void eraseAll() { elements_.eraseAll(); }
   /// Removes the pair, or the object with all pairs of its key, at `position`.
   [[gnu::always_inline]] void eraseAt( U64 position ) {
      SlotOrObject const where = whereOf( position );
      leaveSlot( position );
      elements_.erase( position, hashOf( position ) );
      if ( where.isObject() ) {
         --objects_;
         Corvo::Ptr<EmTableFapIndices>::adopt( where.object() ); // drops the element's reference
      }
   }

   void delAll() noexcept {
      for ( U64 at = next( 0 ); objects_ > 0 && at != nowhere; at = next( at + 1 ) ) {
         eraseAt( at );
      }
      elements_.clear();
      bySlot_.trackNoMore();
      objectPlaces_.clear();
   }

   // ---- every pair, and every object

   /// The first position of either at or after `position`, or nowhere. Positions stay good while
   /// pairs are removed.
   U64 next( U64 position ) const { return elements_.next( position ); }
   SlotOrObject whereOf( U64 position ) const {
      SlotLead const lead = leadAt( position );
      return lead.saysAll() ? SlotOrObject( keyOf( lead ).beside().chip(), lead.slot() )
                            : elements_[ position ].beside();
   }
   Words wordsOf( U64 position ) const {
      SlotLead const lead = leadAt( position );
      return lead.saysAll() ? keyOf( lead ).words() : elements_[ position ].words();
   }

   /// Whether all pairs are of this chip, and no key has an object; false may also be said of pairs that
   /// once were of several.
   bool holdsOnly( Brine::ChipId chip ) const {
      return objects_ == 0 && chips_.has( chip ) && !chips_.hasSeveral();
   }

   // ---- the collection of keys

   /// How many there are. Where the table has seen several chips, this takes a look at every pair, and
   /// one more for each of its lower chips.
   U64 countKeys() const {
      if ( !chips_.hasSeveral() ) {
         return size();
      }
      U64 count = 0;
      for ( U64 at = nextKey( 0 ); at != nowhere; at = nextKey( at + 1 ) ) {
         ++count;
      }
      return count;
   }
   /// The first position at or after `position` of what stands for a key: its object, or its pair with
   /// the lowest chip. Nowhere when there is none. Positions stay good while pairs are removed.
   U64 nextKey( U64 position ) const {
      U64 at = next( position );
      while ( at != nowhere && !standsForKey( at ) ) {
         at = next( at + 1 );
      }
      return at;
   }
   /// The position of what stands for a key; nowhere when it is absent.
   U64 positionOfKey( Words const& key ) const {
      U64 const position = objects_ == 0 ? nowhere : positionOfObject( key );
      return position == nowhere ? lowestPairOf( key ) : position;
   }
   /// The keyLength bytes of the key at `position`.
   char const* bytesOf( U64 position ) const {
      SlotLead const lead = leadAt( position );
      return lead.saysAll() ? keyOf( lead ).key() : elements_[ position ].key();
   }

   /// The object of the key for which `position` stands, made when it was not there. std::bad_alloc leaves
   /// the table as it was.
   EmTableFapIndices& objectAt( U64 position ) {
      SlotOrObject const where = whereOf( position );
      if ( where.isObject() ) {
         return *where.object();
      }
      Words const key = wordsOf( position );
      U32 pairs = 0;
      forEachPairOf( key, [ & ]( U64 /*position*/ ) { ++pairs; } );
      auto object = EmTableFapIndices::withRoomFor( pairs );
      forEachPairOf(
         key, [ & ]( U64 at ) { object->indexIs( whereOf( at ).chip(), whereOf( at ).slot() ); } );
      auto& made = *object;
      objectTakesPlace( position, std::move( object ) );
      return made;
   }

   /// `object` is not null. std::bad_alloc leaves the table as it was.
   void objectIs( Words const& key, Corvo::Ptr<EmTableFapIndices> object ) {
      U64 const position = positionOfKey( key );
      if ( position != nowhere ) {
         objectTakesPlace( position, std::move( object ) );
         return;
      }
      elements_.makeRoom();
      Pair const place( Brine::ChipId( 0 ), key );
      U64 const made = elements_.insert( place.hash, SlotLead() );
      elements_[ made ] = Element( key, SlotOrObject( place.chip, std::move( object ) ) );
      objectPlaces_.add( place.chip );
      ++objects_;
   }

   /// Calls `visit( position )` for every element. Those that have been visited may be removed meanwhile,
   /// and no other.
   template<class Visit>
   [[gnu::always_inline]] void forEach( Visit const& visit ) const {
      elements_.forEach( visit );
   }

   /// Starts to fetch what the first look for a pair with this hash reads.
   [[gnu::always_inline]] void fetchGroup( U64 hash ) const { elements_.fetchGroup( hash ); }
   /// For who asks often while the table does not change; it knows nothing of objects.
   Search const& search() const { return elements_.search(); }

   /// Bytes that look-ups among so many pairs may touch.
   static constexpr U64 bytesFor( U64 pairs ) {
      constexpr U64 tag = 1;
      return pairs * ( tag + sizeof( SlotLead ) + sizeof( KeyOfSlot<wordCount> ) );
   }
   U64 bytes() const { return bytesFor( capacity() ); }

 private:
   KeyOfSlot<wordCount> const& keyOf( SlotLead lead ) const { return keysBySlot()[ lead.slot() ]; }

   /// Gives a slot to the pair at `position`, which leads to no slot.
   [[gnu::always_inline]] void
   giveSlot( U64 position, Pair const& pair, EmTableIndex slot, Slot known ) {
      bool const isFree = known == Slot::ofNoPair && !bySlot_.tracks();
      if ( isFree || takeSlot( slot ) ) [[likely]] {
         keysBySlot()[ slot ] = KeyOfSlot<wordCount>( pair.words, ChipOfPair( pair.chip ) );
         elements_.leadIs( position, SlotLead( slot ) );
      } else {
         elements_[ position ] = Element( pair.words, SlotOrObject( pair.chip, slot ) );
      }
   }
   [[gnu::noinline]] bool takeSlot( EmTableIndex slot ) {
      if ( !bySlot_.tracks() ) {
         bySlot_.track( [ this ]( auto const& visit ) {
            forEach( [ & ]( U64 position ) {
               if ( leadAt( position ).saysAll() ) {
                  visit( leadAt( position ).slot() );
               }
            } );
         } );
      }
      return bySlot_.take( slot );
   }
   /// For a pair that is about to lose its slot.
   [[gnu::always_inline]] void leaveSlot( U64 position ) {
      if ( bySlot_.tracks() && leadAt( position ).saysAll() ) [[unlikely]] {
         bySlot_.giveBack( leadAt( position ).slot() );
      }
   }

   [[gnu::always_inline]] auto isPair( Pair const& pair ) const {
      return [ & ]( SlotLead lead, Element const& element ) __attribute__( ( always_inline ) ) {
         return lead.saysAll() ? keyOf( lead ).isPair( pair.chip, pair.words )
                               : element.isPair( pair.chip, pair.words );
      };
   }
   U64 hashOf( U64 position ) const {
      return ElementHash{ keysBySlot() }( leadAt( position ), elements_[ position ] );
   }

   [[gnu::always_inline]] KeyPlace placeOf( Pair const& pair,
                                            typename Elements::Found const& found ) const {
      if ( found.element != nullptr ) {
         SlotLead const lead = leadAt( found.position );
         return { .position = found.position,
                  .index = lead.saysAll() ? lead.slot() : found.element->beside().slot() };
      }
      return objects_ == 0 ? KeyPlace{ .position = nowhere, .index = {} } : findInObject( pair );
   }
   U64 positionOfPair( Pair const& pair ) const {
      return elements_.find( pair.hash, isPair( pair ) ).position;
   }
   /// Calls `visit( position )` for each pair of a key that has no object, the lowest chip first.
   template<class Visit>
   void forEachPairOf( Words const& key, Visit const& visit ) const {
      chips_.anyOf( [ & ]( Brine::ChipId chip ) {
         U64 const position = positionOfPair( Pair( chip, key ) );
         if ( position != nowhere ) {
            visit( position );
         }
         return false;
      } );
   }
   U64 lowestPairOf( Words const& key ) const {
      U64 position = nowhere;
      chips_.anyOf( [ & ]( Brine::ChipId chip ) {
         position = positionOfPair( Pair( chip, key ) );
         return position != nowhere;
      } );
      return position;
   }
   bool standsForKey( U64 position ) const {
      SlotOrObject const where = whereOf( position );
      if ( where.isObject() ) {
         return true;
      }
      Words const key = wordsOf( position );
      return !chips_.anyOf( [ & ]( Brine::ChipId chip ) {
         return chip < where.chip() && positionOfPair( Pair( chip, key ) ) != nowhere;
      } );
   }

   U64 positionOfObject( Words const& key ) const {
      U64 position = nowhere;
      objectPlaces_.anyOf( [ & ]( Brine::ChipId chip ) {
         Pair const place( chip, key );
         position = elements_
                       .find( place.hash,
                              [ & ]( SlotLead lead, Element const& element ) {
                                 return !lead.saysAll() && element.beside().isObject() &&
                                        sameWords( element.words(), key );
                              } )
                       .position;
         return position != nowhere;
      } );
      return position;
   }
   [[gnu::noinline]] KeyPlace findInObject( Pair const& pair ) const {
      U64 const position = positionOfObject( pair.words );
      return { .position = position,
               .index = position == nowhere ? EmTableIndex()
                                            : whereOf( position ).object()->index( pair.chip ) };
   }

   /// Puts an object in the place of what stands for its key, and takes the other pairs of it out.
   void objectTakesPlace( U64 position, Corvo::Ptr<EmTableFapIndices> object ) {
      SlotOrObject const before = whereOf( position );
      Words const key = wordsOf( position );
      if ( before.isObject() ) {
         Corvo::Ptr<EmTableFapIndices>::adopt( before.object() ); // drops the element's reference
      } else {
         forEachPairOf( key, [ & ]( U64 at ) {
            leaveSlot( at );
            if ( at != position ) {
               elements_.erase( at, hashOf( at ) );
            }
         } );
         ++objects_;
      }
      elements_[ position ] =
         Element( key, SlotOrObject( before.placeChip(), std::move( object ) ) );
      elements_.leadIs( position, SlotLead() );
      objectPlaces_.add( before.placeChip() );
   }

   KeysBySlot<wordCount> bySlot_;
   Elements elements_;
   U32 keyLength_;
   U64 objects_ = 0;      ///< elements that hold an object
   ChipSet chips_;        ///< of every pair, and of some that were
   ChipSet objectPlaces_; ///< the places that objects have taken, as `chips_`
};

} // namespace Tessel
