// SPDX-License-Identifier: Apache-2.0
#include "Tessel/KeyToSlotMap.h"

namespace Tessel {

KeyToSlotMap::KeyToSlotMap( U32 keyLength, U32 mostKeys )
      : keyLength_( keyLength ), keys_( keysFor( keyLength, mostKeys ) ) {}

KeyToSlotMap::KeysOfOneLength KeyToSlotMap::keysFor( U32 keyLength, U32 mostKeys ) {
   if ( keyLength <= 8 ) {
      return KeysOfOneLength( std::in_place_index<0>, mostKeys, KeyHash<1>{ keyLength } );
   }
   if ( keyLength <= 16 ) {
      return KeysOfOneLength( std::in_place_index<1>, mostKeys, KeyHash<2>{ keyLength } );
   }
   return KeysOfOneLength( std::in_place_index<2>, mostKeys, KeyHash<3>{ keyLength } );
}

EmTableIndex KeyToSlotMap::index( Brine::ChipId chip, EntryKey const& key ) const {
   if ( ofLength( key ) ) {
      return find( chip, key.bytes().bytesPtr() ).index;
   }
   U64 const position = strayPosition( key );
   return position == nowhere ? EmTableIndex()
                              : strays_[ position & ~strayBit ].object->index( chip );
}

void KeyToSlotMap::indexIs( Brine::ChipId chip, EntryKey const& key, EmTableIndex slot ) {
   if ( ofLength( key ) ) {
      char const* const bytes = key.bytes().bytesPtr();
      KeyPlace const place = find( chip, bytes );
      if ( !place.index.valid() ) {
         makeRoom( place );
      }
      set( place, chip, bytes, slot );
      return;
   }
   auto indices = object( key );
   if ( !indices ) {
      indices = EmTableFapIndices::EmTableFapIndicesIs();
   }
   indices->makeRoom();
   objectIs( key, indices );
   indices->indexIs( chip, slot );
}

void KeyToSlotMap::indexDel( Brine::ChipId chip, EntryKey const& key ) {
   if ( ofLength( key ) ) {
      KeyPlace const place = find( chip, key.bytes().bytesPtr() );
      if ( place.index.valid() ) {
         erase( place, chip );
      }
      return;
   }
   auto const indices = object( key );
   if ( !indices || !indices->indexHas( chip ) ) {
      return;
   }
   indices->indexDel( chip );
   if ( indices->indexCount() == 0 ) {
      objectDel( key );
   }
}

Corvo::Ptr<EmTableFapIndices> KeyToSlotMap::object( EntryKey const& key ) {
   U64 const position = positionOf( key );
   if ( position == nowhere ) {
      return {};
   }
   if ( isStray( position ) ) {
      return strays_[ position & ~strayBit ].object;
   }
   return onKeys( [ & ]( auto& keys ) {
      return Corvo::Ptr<EmTableFapIndices>( &objectOf( keys[ position ] ) );
   } );
}

template<std::size_t wordCount>
void KeyToSlotMap::setObjectIn( Keys<wordCount>& keys,
                                EntryKey const& key,
                                Corvo::Ptr<EmTableFapIndices> const& object ) {
   auto const words = keyWordsAt<wordCount>( key.bytes().bytesPtr(), keyLength_ );
   U32 const hash = Weft::hashWords( words, keyLength_ );
   U64 const position = positionIn( keys, words, hash );
   if ( position == nowhere ) {
      keys.makeRoom();
      keys.insert( hash, KeyElement<wordCount>( words, SlotOrObject( object ) ) );
      ++objects_;
      return;
   }
   SlotOrObject const before = keys[ position ].where();
   keys[ position ].whereIs( SlotOrObject( object ) );
   if ( before.isObject() ) {
      Corvo::Ptr<EmTableFapIndices>::adopt( before.object() ); // drops the element's reference
   } else {
      ++objects_;
   }
}

void KeyToSlotMap::objectIs( EntryKey const& key, Corvo::Ptr<EmTableFapIndices> const& object ) {
   if ( !object ) {
      objectDel( key );
   } else if ( ofLength( key ) ) {
      onKeys( [ & ]( auto& keys ) { setObjectIn( keys, key, object ); } );
   } else {
      strayIs( key, object );
   }
}

void KeyToSlotMap::strayIs( EntryKey const& key, Corvo::Ptr<EmTableFapIndices> const& object ) {
   U64 const position = strayPosition( key );
   if ( position != nowhere ) {
      strays_[ position & ~strayBit ].object = object;
      return;
   }
   Stray stray{ key, object };
   strays_.makeRoom();
   strays_.insert( key.hash(), std::move( stray ) );
}

Corvo::Ptr<EmTableFapIndices> KeyToSlotMap::objectDel( EntryKey const& key ) {
   // Made before the key goes, so that a caller of the last moment gets the object it would have got.
   auto removed = object( key );
   if ( !removed ) {
      return {};
   }
   U64 const position = positionOf( key );
   if ( isStray( position ) ) {
      strays_.erase( position & ~strayBit );
   } else {
      onKeys( [ & ]( auto& keys ) { eraseAt( keys, position ); } );
   }
   return removed;
}

void KeyToSlotMap::delAll() noexcept {
   onKeys( [ & ]( auto& keys ) {
      for ( U64 at = keys.next( 0 ); objects_ > 0 && at != nowhere; at = keys.next( at + 1 ) ) {
         eraseAt( keys, at );
      }
      keys.clear();
   } );
   delStrays();
}

void KeyToSlotMap::delStrays() noexcept {
   strays_.clear();
}

U64 KeyToSlotMap::count() const {
   return strays_.size() + onKeys( []( auto const& keys ) { return keys.size(); } );
}

U64 KeyToSlotMap::capacity() const {
   return strays_.capacity() + onKeys( []( auto const& keys ) { return keys.capacity(); } );
}

U64 KeyToSlotMap::next( U64 position ) const {
   if ( !isStray( position ) ) {
      U64 const at = onKeys( [ & ]( auto const& keys ) { return keys.next( position ); } );
      if ( at != nowhere ) {
         return at;
      }
      position = strayBit;
   }
   U64 const at = strays_.next( position & ~strayBit );
   return at == Strays::nowhere ? nowhere : at | strayBit;
}

U64 KeyToSlotMap::strayPosition( EntryKey const& key ) const {
   U64 const position =
      strays_.find( key.hash(), [ & ]( Stray const& stray ) { return stray.key == key; } );
   return position == Strays::nowhere ? nowhere : position | strayBit;
}

U64 KeyToSlotMap::positionOf( EntryKey const& key ) const {
   if ( !ofLength( key ) ) {
      return strayPosition( key );
   }
   return find( Brine::ChipId( 0 ), key.bytes().bytesPtr() ).position;
}

EntryKey KeyToSlotMap::keyAt( U64 position ) const {
   if ( isStray( position ) ) {
      return strays_[ position & ~strayBit ].key;
   }
   return onKeys( [ & ]( auto const& keys ) {
      return EntryKey( Corvo::Bytes( keys[ position ].key(), keyLength_ ) );
   } );
}

} // namespace Tessel
