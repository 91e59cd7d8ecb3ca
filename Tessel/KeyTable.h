// SPDX-License-Identifier: Apache-2.0
#pragma once

/// From (chip, key) to slot, for keys of one length and one class of lengths. Internal to EmTable.
///
/// Most keys live on one chip. So an element holds its key and, in one word, either the one chip and
/// slot of the key or its EmTableFapIndices:
///
///    K <= 8      key  8 bytes, where 8 bytes
///    K <= 16     key 16 bytes, where 8 bytes
///    K <= 20     key 20 bytes, where 8 bytes
///
///    where       bit 0 set: chip in bits 8 to 15, slot in bits 32 to 63
///                bit 0 clear: pointer to the object, on which the element holds a reference
///
/// The object is made when the key gets a second chip or when somebody asks for it. From then on it
/// is *the* object of the key and the only holder of its slots, so it does not matter to a caller
/// which way a key is stored.
///
/// Threads: as the table that owns the map.

#include "Tessel/EmTable.h"
#include "Weft/FlatTable.h"
#include "Weft/Hash.h"

#include <cstring>
#include <utility>

namespace Tessel {

/// Where a pair stands in a table of keys; void once a key has been added or removed.
struct KeyPlace {
   U64 position;       ///< of the key; nowhere when it is absent
   EmTableIndex index; ///< of the pair; invalid when it is absent
};

/// What an element knows about its key's slots.
class SlotOrObject {
 public:
   SlotOrObject( Brine::ChipId chip, EmTableIndex slot )
         : bits_( U64{ slot.value() } << slotBit | tagOf( chip ) ) {}
   /// Takes the reference over.
   explicit SlotOrObject( Corvo::Ptr<EmTableFapIndices> object )
         : bits_( reinterpret_cast<std::uintptr_t>( object.release() ) ) {}

   bool isObject() const { return ( bits_ & 1 ) == 0; }
   EmTableFapIndices* object() const { return reinterpret_cast<EmTableFapIndices*>( bits_ ); }
   Brine::ChipId chip() const { return Brine::ChipId( static_cast<U8>( bits_ >> chipBit ) ); }
   EmTableIndex slot() const { return EmTableIndex( static_cast<U32>( bits_ >> slotBit ) ); }

   /// Whether the key has this one chip, and no object.
   bool isOn( Brine::ChipId chip ) const { return static_cast<U32>( bits_ ) == tagOf( chip ); }
   EmTableIndex indexOn( Brine::ChipId wanted ) const {
      if ( isOn( wanted ) ) [[likely]] {
         return slot();
      }
      return isObject() ? object()->index( wanted ) : EmTableIndex();
   }

 private:
   static constexpr U32 chipBit = 8;
   static constexpr U32 slotBit = 32;
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

template<std::size_t wordCount>
class KeyElement {
 public:
   static constexpr std::size_t keyBytes = wordCount == 3 ? 20 : 8 * wordCount;

   KeyElement( KeyWords<wordCount> const& words, SlotOrObject where ) {
      std::memcpy( key_.data(), words.data(), keyBytes );
      whereIs( where );
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
   SlotOrObject where() const {
      SlotOrObject where{ Brine::ChipId( 0 ), EmTableIndex() };
      std::memcpy( &where, where_.data(), sizeof where );
      return where;
   }
   void whereIs( SlotOrObject where ) { std::memcpy( where_.data(), &where, sizeof where ); }

 private:
   // Bytes, not words: 20 + 8 bytes without padding.
   std::array<char, keyBytes> key_;
   std::array<char, sizeof( SlotOrObject )> where_;
};

static_assert( sizeof( KeyElement<1> ) == 16 );
static_assert( sizeof( KeyElement<2> ) == 24 );
static_assert( sizeof( KeyElement<3> ) == 28 );

/// A key that has been read and hashed.
template<std::size_t wordCount>
struct HashedKey {
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

/// The keys of one exact-match table.
template<std::size_t wordCount>
class KeyTable {
 public:
   static constexpr std::size_t words = wordCount;
   static constexpr U64 nowhere = ~U64{ 0 };
   using Key = HashedKey<wordCount>;

   /// For keys of `keyLength` bytes, of which there will be at most `mostKeys`.
   KeyTable( U32 keyLength, U64 mostKeys ) : elements_( mostKeys ), keyLength_( keyLength ) {}
   KeyTable( KeyTable&& ) noexcept = default;
   KeyTable& operator=( KeyTable&& ) = delete;
   ~KeyTable() { delAll(); }

   U64 count() const { return elements_.size(); }
   U64 capacity() const { return elements_.capacity(); }

   [[gnu::always_inline]] static Key hashed( KeyWords<wordCount> const& words ) {
      return { .words = words, .hash = Weft::hashWordsOfOneLength( words ) };
   }
   /// Reads keyLength bytes.
   [[gnu::always_inline]] Key keyAt( char const* bytes ) const {
      return hashed( keyWordsAt<wordCount>( bytes, keyLength_ ) );
   }

   [[gnu::always_inline]] U64 positionOf( Key const& key ) const {
      return elements_.find( key.hash, Holds{ key.words } ).position;
   }
   [[gnu::always_inline]] KeyPlace find( Brine::ChipId chip, Key const& key ) const {
      auto const found = elements_.find( key.hash, Holds{ key.words } );
      if ( found.element == nullptr ) {
         return { .position = nowhere, .index = {} };
      }
      return { .position = found.position, .index = found.element->where().indexOn( chip ) };
   }

   /// What the first look of find() says, which nearly always decides: calls `onSlot( slot, position )`
   /// when the key has this one chip and no object, `onOther( where, position )` when it has an
   /// object or another chip, `absent()` when it is not there, or else `unsure()`; and answers what that does.
   template<class HoldsKey, class OnSlot, class OnOther, class Absent, class Unsure>
   [[gnu::always_inline]] auto glance( Brine::ChipId chip,
                                       U64 hash,
                                       HoldsKey const& holdsKey,
                                       OnSlot const& onSlot,
                                       OnOther const& onOther,
                                       Absent const& absent,
                                       Unsure const& unsure ) const {
      return elements_.glance(
         hash,
         holdsKey,
         [ & ]( auto const& found ) __attribute__( ( always_inline ) ) {
            SlotOrObject const where = found.element->where();
            if ( where.isOn( chip ) ) [[likely]] {
               return onSlot( where.slot(), found.position );
            }
            return onOther( where, found.position );
         },
         absent,
         unsure );
   }

   /// Makes sure that set() of a pair that find() did not find needs no memory. One allocation at
   /// most; std::bad_alloc leaves the table as it was.
   [[gnu::always_inline]] void makeRoom( KeyPlace const& place ) {
      if ( place.position == nowhere ) {
         elements_.makeRoom();
      } else {
         makeRoomOnChips( elements_[ place.position ] );
      }
   }
   /// The same for that many keys that are absent.
   void makeRoomFor( U64 keys ) { elements_.makeRoomFor( keys ); }

   /// Sets the pair's slot; for a pair that find() did not find, after makeRoom().
   [[gnu::always_inline]] void
   set( KeyPlace const& place, Brine::ChipId chip, Key const& key, EmTableIndex slot ) {
      if ( place.position == nowhere ) {
         elements_.insert( key.hash,
                           KeyElement<wordCount>( key.words, SlotOrObject( chip, slot ) ) );
      } else if ( auto& element = elements_[ place.position ]; element.where().isObject() ) {
         element.where().object()->indexIs( chip, slot );
      } else {
         element.whereIs( SlotOrObject( chip, slot ) );
      }
   }

   /// Adds a pair if the first look shows that its key is absent and that there is room for it. False,
   /// and nothing added, otherwise.
   [[gnu::always_inline]] bool
   addAtFirstLook( Brine::ChipId chip, Key const& key, EmTableIndex slot ) {
      return elements_.insertAtFirstLook(
         key.hash, KeyElement<wordCount>( key.words, SlotOrObject( chip, slot ) ) );
   }

   /// Removes a pair that find() found, and the key with its last pair.
   [[gnu::always_inline]] void erase( KeyPlace const& place, Brine::ChipId chip, Key const& key ) {
      SlotOrObject const where = elements_[ place.position ].where();
      if ( where.isObject() ) [[unlikely]] {
         where.object()->indexDel( chip );
         if ( where.object()->indexCount() > 0 ) {
            return;
         }
      }
      eraseKey( place.position, key );
   }

   /// Removes the key at a position that glance() gave.
   [[gnu::always_inline]] void eraseGlanced( U64 position ) { elements_.eraseGlanced( position ); }
   /// Removes all keys, of which none has an object.
   void eraseAll() { elements_.eraseAll(); }

   [[gnu::always_inline]] Corvo::Ptr<EmTableFapIndices> eraseKey( U64 position, Key const& key ) {
      SlotOrObject const where = elements_.erase( position, key.hash ).where();
      if ( !where.isObject() ) {
         return {};
      }
      --objects_;
      return Corvo::Ptr<EmTableFapIndices>::adopt( where.object() );
   }

   /// The object of the key at `position`, made when it was not there. std::bad_alloc.
   EmTableFapIndices& objectAt( U64 position ) { return objectOf( elements_[ position ] ); }

   /// `object` is not null. std::bad_alloc leaves the table as it was.
   void objectIs( Key const& key, Corvo::Ptr<EmTableFapIndices> const& object ) {
      U64 const position = positionOf( key );
      if ( position == nowhere ) {
         elements_.makeRoom();
         elements_.insert( key.hash, KeyElement<wordCount>( key.words, SlotOrObject( object ) ) );
         ++objects_;
         return;
      }
      SlotOrObject const before = elements_[ position ].where();
      elements_[ position ].whereIs( SlotOrObject( object ) );
      if ( before.isObject() ) {
         Corvo::Ptr<EmTableFapIndices>::adopt( before.object() ); // drops the element's reference
      } else {
         ++objects_;
      }
   }

   void delAll() noexcept {
      for ( U64 at = next( 0 ); objects_ > 0 && at != nowhere; at = next( at + 1 ) ) {
         eraseKey( at, keyOf( at ) );
      }
      elements_.clear();
   }
   /// Keys that have an object.
   U64 objects() const { return objects_; }

   /// The first position of a key at or after `position`, or nowhere. Positions stay good while
   /// keys are removed.
   U64 next( U64 position ) const { return elements_.next( position ); }
   Key keyOf( U64 position ) const { return hashed( elements_[ position ].words() ); }
   /// The keyLength bytes of the key at `position`.
   char const* bytesOf( U64 position ) const { return elements_[ position ].key(); }
   SlotOrObject whereOf( U64 position ) const { return elements_[ position ].where(); }

   // Steps on the way to a key, each of which starts to fetch what the next one reads.

   [[gnu::always_inline]] void fetchTags( U64 hash ) const { elements_.fetchTags( hash ); }
   [[gnu::always_inline]] void fetchElement( U64 hash ) const { elements_.fetchElement( hash ); }
   [[gnu::always_inline]] void fetchElementOrPlace( U64 hash ) const {
      elements_.fetchElementOrPlace( hash );
   }
   static void fetchObject( EmTableFapIndices const& object ) {
      __builtin_prefetch( &object );
      __builtin_prefetch( reinterpret_cast<char const*>( &object + 1 ) - 1 );
   }
   /// Bytes that a look-up may touch.
   U64 bytes() const { return elements_.bytes(); }

 private:
   struct Holds {
      KeyWords<wordCount> wanted;
      [[gnu::always_inline]] bool operator()( KeyElement<wordCount> const& element ) const {
         return sameWords( element.words(), wanted );
      }
   };
   struct ElementHash {
      U64 operator()( KeyElement<wordCount> const& element ) const {
         return Weft::hashWordsOfOneLength( element.words() );
      }
   };

   void makeRoomOnChips( KeyElement<wordCount>& element ) {
      // Either a new object, which has room, or room in the object: one allocation.
      if ( element.where().isObject() ) {
         element.where().object()->makeRoom();
      } else {
         objectOf( element );
      }
   }

   EmTableFapIndices& objectOf( KeyElement<wordCount>& element ) {
      SlotOrObject const where = element.where();
      if ( where.isObject() ) {
         return *where.object();
      }
      auto object = EmTableFapIndices::EmTableFapIndicesIs();
      object->indexIs( where.chip(), where.slot() );
      auto& made = *object;
      element.whereIs( SlotOrObject( std::move( object ) ) );
      ++objects_;
      return made;
   }

   Weft::FlatTable<KeyElement<wordCount>, ElementHash> elements_;
   U32 keyLength_;
   U64 objects_ = 0; ///< elements that hold an object
};

} // namespace Tessel
