// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The map of one exact-match table from keys to slots: a KeyTable of the class that its key length
/// needs. Internal to EmTable.
///
/// A key of another length than the table's can be set through the key collection but can never
/// have an image. Such strays are kept in a table of their own.
///
/// Threads: as the table that owns the map.

#include "Tessel/KeyTable.h"

#include <variant>

namespace Tessel {

class KeyToSlotMap {
 public:
   static constexpr U64 nowhere = ~U64{ 0 };

   /// For keys of `keyLength` bytes, at most MAX_KEY_LENGTH_IN_BYTE, in at most `mostPairs`
   /// pairs.
   KeyToSlotMap( U32 keyLength, U32 mostPairs );

   /// Calls `work` with the KeyTable of the keys that are no strays. The key length never changes,
   /// so the switch is always predicted.
   template<class Work>
   [[gnu::always_inline]] decltype( auto ) onKeys( Work const& work ) {
      return dispatch( keys_, work );
   }
   template<class Work>
   [[gnu::always_inline]] decltype( auto ) onKeys( Work const& work ) const {
      return dispatch( keys_, work );
   }

   /// The KeyTable of the keys that are no strays, for who knows how many words they have.
   template<std::size_t wordCount>
   [[gnu::always_inline]] KeyTable<wordCount>& keys() {
      auto* const keys = std::get_if<KeyTable<wordCount>>( &keys_ );
      if ( keys == nullptr ) {
         __builtin_unreachable();
      }
      return *keys;
   }
   static constexpr std::size_t wordsFor( U32 keyLength ) {
      return keyLength <= 8 ? 1 : keyLength <= 16 ? 2 : 3;
   }

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
   static bool isStray( U64 position ) { return ( position & strayBit ) != 0; }
   void indexDelOfStrays( Brine::ChipId chip );
   void delStrays() noexcept;

 private:
   using Keys = std::variant<KeyTable<1>, KeyTable<2>, KeyTable<3>>;

   struct Stray {
      EntryKey key;
      Corvo::Ptr<EmTableFapIndices> object;
   };
   struct StrayHash {
      U64 operator()( Stray const& stray ) const { return Weft::widened( stray.key.hash() ); }
   };
   using Strays = Weft::FlatTable<Stray, StrayHash>;

   static constexpr U64 strayBit = U64{ 1 } << 63;

   static Keys keysFor( U32 keyLength, U32 mostPairs );

   template<class Self, class Work>
   [[gnu::always_inline]] static decltype( auto ) dispatch( Self& keys, Work const& work ) {
      switch ( keys.index() ) {
      case 0:
         return work( *std::get_if<0>( &keys ) );
      case 1:
         return work( *std::get_if<1>( &keys ) );
      default:
         return work( *std::get_if<2>( &keys ) );
      }
   }

   bool ofLength( EntryKey const& key ) const { return key.bytes().size() == keyLength_; }
   U64 strayPosition( EntryKey const& key ) const;
   void strayIs( EntryKey const& key, Corvo::Ptr<EmTableFapIndices> const& object );

   U32 keyLength_;
   Keys keys_;
   Strays strays_;
};

} // namespace Tessel
