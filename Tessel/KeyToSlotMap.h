// SPDX-License-Identifier: Apache-2.0
#pragma once

/// From (chip, key) to slot, for one exact-match table. Internal to EmTable.
///
/// Most keys live on one chip. So an element holds its key and, in one word, either the one chip and
/// slot of the key or its EmTableFapIndices:
///
///    K <= 8      key  8 bytes, where 8 bytes
///    K <= 16     key 16 bytes, where 8 bytes
///    K <= 20     key 20 bytes, where 8 bytes
///
///    where       bit 0 set: chip in bits 1 to 8, slot in bits 9 to 40
///                bit 0 clear: pointer to the object, on which the element holds a reference
///
/// The object is made when the key gets a second chip or when somebody asks for it. From then on it
/// is *the* object of the key and the only holder of its slots, so it does not matter to a caller
/// which way a key is stored.
///
/// A key of another length than the table's can be set through the key collection but can never
/// have an image. Such strays are kept in a table of their own.
///
/// Threads: as the table that owns the map.

#include "Tessel/EmTable.h"
#include "Weft/FlatTable.h"
#include "Weft/Hash.h"

#include <cstring>
#include <utility>
#include <variant>

namespace Tessel {

/// Where a pair stands in the map; void once a key has been added or removed.
struct KeyPlace {
   U64 position;       ///< of the key; KeyToSlotMap::nowhere when it is absent
   U32 hash;           ///< of the key
   EmTableIndex index; ///< of the pair; invalid when it is absent
};

/// What an element knows about its key's slots.
class SlotOrObject {
 public:
   SlotOrObject( Brine::ChipId chip, EmTableIndex slot )
         : bits_( U64{ slot.value() } << 9 | U64{ chip.value() } << 1 | 1 ) {}
   /// Takes the reference over.
   explicit SlotOrObject( Corvo::Ptr<EmTableFapIndices> object )
         : bits_( reinterpret_cast<std::uintptr_t>( object.release() ) ) {}

   bool isObject() const { return ( bits_ & 1 ) == 0; }
   EmTableFapIndices* object() const { return reinterpret_cast<EmTableFapIndices*>( bits_ ); }
   Brine::ChipId chip() const { return Brine::ChipId( static_cast<U8>( bits_ >> 1 ) ); }
   EmTableIndex slot() const { return EmTableIndex( static_cast<U32>( bits_ >> 9 ) ); }

   EmTableIndex indexOn( Brine::ChipId wanted ) const {
      if ( isObject() ) [[unlikely]] {
         return object()->index( wanted );
      }
      return chip() == wanted ? slot() : EmTableIndex();
   }

 private:
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
inline KeyWords<wordCount> keyWordsAt( char const* bytes, U32 length ) {
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

template<std::size_t wordCount>
class KeyElement {
 public:
   static constexpr std::size_t keyBytes = wordCount == 3 ? 20 : 8 * wordCount;

   KeyElement( KeyWords<wordCount> const& words, SlotOrObject where ) {
      std::memcpy( key_.data(), words.data(), keyBytes );
      whereIs( where );
   }

   KeyWords<wordCount> words() const {
      KeyWords<wordCount> words{};
      std::memcpy( words.data(), key_.data(), keyBytes );
      return words;
   }
   bool holds( KeyWords<wordCount> const& wanted ) const {
      // Word by word: comparing the arrays would go through memory.
      KeyWords<wordCount> const mine = words();
      U64 difference = 0;
      for ( std::size_t i = 0; i < wordCount; ++i ) {
         difference |= mine[ i ] ^ wanted[ i ];
      }
      return difference == 0;
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

class KeyToSlotMap {
 public:
   static constexpr U64 nowhere = ~U64{ 0 };

   /// For keys of `keyLength` bytes, at most MAX_KEY_LENGTH_IN_BYTE, of which there will be at most
   /// `mostKeys`.
   KeyToSlotMap( U32 keyLength, U32 mostKeys );
   KeyToSlotMap( KeyToSlotMap const& ) = delete;
   KeyToSlotMap& operator=( KeyToSlotMap const& ) = delete;
   ~KeyToSlotMap() { delAll(); }

   // ---- pairs whose key is given as keyLength bytes

   KeyPlace find( Brine::ChipId chip, char const* key ) const;
   /// Makes sure that set() of a pair that find() did not find needs no memory. One allocation at
   /// most; std::bad_alloc leaves the map as it was.
   void makeRoom( KeyPlace const& place );
   /// Sets the pair's slot; for a pair that find() did not find, after makeRoom().
   void set( KeyPlace const& place, Brine::ChipId chip, char const* key, EmTableIndex slot );
   /// Removes a pair that find() found, and the key with its last pair.
   void erase( KeyPlace const& place, Brine::ChipId chip );

   // ---- pairs whose key may be a stray

   EmTableIndex index( Brine::ChipId chip, EntryKey const& key ) const;
   /// std::bad_alloc leaves the map as it was.
   void indexIs( Brine::ChipId chip, EntryKey const& key, EmTableIndex slot );
   void indexDel( Brine::ChipId chip, EntryKey const& key );

   // ---- the collection of keys

   Corvo::Ptr<EmTableFapIndices> object( EntryKey const& key );
   void objectIs( EntryKey const& key, Corvo::Ptr<EmTableFapIndices> const& object );
   Corvo::Ptr<EmTableFapIndices> objectDel( EntryKey const& key );
   void delAll() noexcept;
   bool has( EntryKey const& key ) const { return positionOf( key ) != nowhere; }
   U64 count() const;
   U64 capacity() const;

   /// The first position of a key at or after `position`, or nowhere. Positions stay good while
   /// keys are removed.
   U64 next( U64 position ) const;
   U64 positionOf( EntryKey const& key ) const;
   EntryKey keyAt( U64 position ) const;
   /// What is known at the position of a key that is no stray.
   SlotOrObject whereAt( U64 position ) const;
   static bool isStray( U64 position ) { return ( position & strayBit ) != 0; }
   void delStrays() noexcept;

 private:
   template<std::size_t wordCount>
   struct KeyHash {
      U32 keyLength;
      U32 operator()( KeyElement<wordCount> const& element ) const {
         return Weft::hashWords( element.words(), keyLength );
      }
   };
   template<std::size_t wordCount>
   using Keys = Weft::FlatTable<KeyElement<wordCount>, KeyHash<wordCount>>;
   using KeysOfOneLength = std::variant<Keys<1>, Keys<2>, Keys<3>>;

   struct Stray {
      EntryKey key;
      Corvo::Ptr<EmTableFapIndices> object;
   };
   struct StrayHash {
      U32 operator()( Stray const& stray ) const { return stray.key.hash(); }
   };
   using Strays = Weft::FlatTable<Stray, StrayHash>;

   static constexpr U64 strayBit = U64{ 1 } << 63;

   static KeysOfOneLength keysFor( U32 keyLength, U32 mostKeys );

   /// Calls `work` with the table of keys. The key length never changes, so the switch is always
   /// predicted.
   template<class Self, class Work>
   static decltype( auto ) dispatch( Self& keys, Work const& work ) {
      switch ( keys.index() ) {
      case 0:
         return work( *std::get_if<0>( &keys ) );
      case 1:
         return work( *std::get_if<1>( &keys ) );
      default:
         return work( *std::get_if<2>( &keys ) );
      }
   }
   template<class Work>
   decltype( auto ) onKeys( Work const& work ) {
      return dispatch( keys_, work );
   }
   template<class Work>
   decltype( auto ) onKeys( Work const& work ) const {
      return dispatch( keys_, work );
   }

   template<std::size_t wordCount>
   U64 positionIn( Keys<wordCount> const& keys, KeyWords<wordCount> const& words, U32 hash ) const {
      return keys.find(
         hash, [ & ]( KeyElement<wordCount> const& element ) { return element.holds( words ); } );
   }

   template<std::size_t wordCount>
   KeyPlace findIn( Keys<wordCount> const& keys, Brine::ChipId chip, char const* key ) const {
      auto const words = keyWordsAt<wordCount>( key, keyLength_ );
      U32 const hash = Weft::hashWords( words, keyLength_ );
      U64 const position = positionIn( keys, words, hash );
      return { .position = position,
               .hash = hash,
               .index =
                  position == nowhere ? EmTableIndex() : keys[ position ].where().indexOn( chip ) };
   }

   template<std::size_t wordCount>
   void makeRoomIn( Keys<wordCount>& keys, KeyPlace const& place ) {
      if ( place.position == nowhere ) {
         keys.makeRoom();
      } else {
         makeRoomOnChips( keys[ place.position ] );
      }
   }

   template<std::size_t wordCount>
   void makeRoomOnChips( KeyElement<wordCount>& element ) {
      // Either a new object, which has room, or room in the object: one allocation.
      if ( element.where().isObject() ) {
         element.where().object()->makeRoom();
      } else {
         objectOf( element );
      }
   }

   template<std::size_t wordCount>
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

   template<std::size_t wordCount>
   void setIn( Keys<wordCount>& keys,
               KeyPlace const& place,
               Brine::ChipId chip,
               char const* key,
               EmTableIndex slot ) {
      if ( place.position == nowhere ) {
         keys.insert( place.hash,
                      KeyElement<wordCount>( keyWordsAt<wordCount>( key, keyLength_ ),
                                             SlotOrObject( chip, slot ) ) );
      } else if ( auto& element = keys[ place.position ]; element.where().isObject() ) {
         element.where().object()->indexIs( chip, slot );
      } else {
         element.whereIs( SlotOrObject( chip, slot ) );
      }
   }

   template<std::size_t wordCount>
   void eraseIn( Keys<wordCount>& keys, KeyPlace const& place, Brine::ChipId chip ) {
      SlotOrObject const where = keys[ place.position ].where();
      if ( where.isObject() ) [[unlikely]] {
         where.object()->indexDel( chip );
         if ( where.object()->indexCount() > 0 ) {
            return;
         }
      }
      eraseAt( keys, place.position );
   }

   template<std::size_t wordCount>
   Corvo::Ptr<EmTableFapIndices> eraseAt( Keys<wordCount>& keys, U64 position ) {
      SlotOrObject const where = keys.erase( position ).where();
      if ( !where.isObject() ) {
         return {};
      }
      --objects_;
      return Corvo::Ptr<EmTableFapIndices>::adopt( where.object() );
   }

   template<std::size_t wordCount>
   void setObjectIn( Keys<wordCount>& keys,
                     EntryKey const& key,
                     Corvo::Ptr<EmTableFapIndices> const& object );

   bool ofLength( EntryKey const& key ) const { return key.bytes().size() == keyLength_; }
   U64 strayPosition( EntryKey const& key ) const;
   void strayIs( EntryKey const& key, Corvo::Ptr<EmTableFapIndices> const& object );

   U32 keyLength_;
   KeysOfOneLength keys_;
   U64 objects_ = 0; ///< elements that hold an object
   Strays strays_;
};

inline KeyPlace KeyToSlotMap::find( Brine::ChipId chip, char const* key ) const {
   return onKeys( [ & ]( auto const& keys ) { return findIn( keys, chip, key ); } );
}

inline void KeyToSlotMap::makeRoom( KeyPlace const& place ) {
   onKeys( [ & ]( auto& keys ) { makeRoomIn( keys, place ); } );
}

inline void
KeyToSlotMap::set( KeyPlace const& place, Brine::ChipId chip, char const* key, EmTableIndex slot ) {
   onKeys( [ & ]( auto& keys ) { setIn( keys, place, chip, key, slot ); } );
}

inline void KeyToSlotMap::erase( KeyPlace const& place, Brine::ChipId chip ) {
   onKeys( [ & ]( auto& keys ) { eraseIn( keys, place, chip ); } );
}

inline SlotOrObject KeyToSlotMap::whereAt( U64 position ) const {
   return onKeys( [ & ]( auto const& keys ) { return keys[ position ].where(); } );
}

} // namespace Tessel
