// SPDX-License-Identifier: Apache-2.0
#include "Tessel/KeyToSlotMap.h"

namespace Tessel {

namespace {

/// The pair of a key that is no stray.
template<std::size_t wordCount>
HashedPair<wordCount>
pairIn( KeyTable<wordCount> const& keys, Brine::ChipId chip, EntryKey const& key ) {
   return HashedPair<wordCount>( chip, keys.wordsAt( key.bytes().bytesPtr() ) );
}

} // namespace

KeyToSlotMap::KeyToSlotMap( U32 keyLength, U32 mostPairs )
      : keyLength_( keyLength ), keys_( keysFor( keyLength, mostPairs ) ) {}

KeyToSlotMap::Keys KeyToSlotMap::keysFor( U32 keyLength, U32 mostPairs ) {
   switch ( wordsFor( keyLength ) ) {
   case 1:
      return Keys( std::in_place_type<KeyTable<1>>, keyLength, mostPairs );
   case 2:
      return Keys( std::in_place_type<KeyTable<2>>, keyLength, mostPairs );
   default:
      return Keys( std::in_place_type<KeyTable<3>>, keyLength, mostPairs );
   }
}

EmTableIndex KeyToSlotMap::index( Brine::ChipId chip, EntryKey const& key ) const {
   if ( ofLength( key ) ) {
      return onKeys(
         [ & ]( auto const& keys ) { return keys.find( pairIn( keys, chip, key ) ).index; } );
   }
   U64 const position = strayPosition( key );
   return position == nowhere ? EmTableIndex()
                              : strays_[ position & ~strayBit ].object->index( chip );
}

void KeyToSlotMap::indexIs( Brine::ChipId chip, EntryKey const& key, EmTableIndex slot ) {
   if ( ofLength( key ) ) {
      onKeys( [ & ]( auto& keys ) {
         auto const pair = pairIn( keys, chip, key );
         KeyPlace const place = keys.find( pair );
         if ( !place.index.valid() ) {
            keys.makeRoom( place );
         }
         keys.set( place, pair, slot, std::decay_t<decltype( keys )>::Slot::any );
      } );
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
      onKeys( [ & ]( auto& keys ) {
         auto const pair = pairIn( keys, chip, key );
         KeyPlace const place = keys.find( pair );
         if ( place.index.valid() ) {
            keys.erase( place, pair );
         }
      } );
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
   return onKeys(
      [ & ]( auto& keys ) { return Corvo::Ptr<EmTableFapIndices>( &keys.objectAt( position ) ); } );
}

void KeyToSlotMap::objectIs( EntryKey const& key, Corvo::Ptr<EmTableFapIndices> const& object ) {
   if ( !object ) {
      objectDel( key );
   } else if ( ofLength( key ) ) {
      onKeys(
         [ & ]( auto& keys ) { keys.objectIs( keys.wordsAt( key.bytes().bytesPtr() ), object ); } );
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
   U64 const hash = StrayHash()( stray );
   strays_.insert( hash, std::move( stray ) );
}

Corvo::Ptr<EmTableFapIndices> KeyToSlotMap::objectDel( EntryKey const& key ) {
   // Made before the key goes, so that a caller of the last moment gets the object it would have got.
   auto removed = object( key );
   if ( !removed ) {
      return {};
   }
   U64 const position = positionOf( key );
   if ( isStray( position ) ) {
      strays_.erase( position & ~strayBit, Weft::widened( key.hash() ) );
   } else {
      onKeys( [ & ]( auto& keys ) { keys.eraseAt( position ); } );
   }
   return removed;
}

void KeyToSlotMap::delAll() noexcept {
   onKeys( []( auto& keys ) { keys.delAll(); } );
   delStrays();
}

void KeyToSlotMap::indexDelOfStrays( Brine::ChipId chip ) {
   for ( U64 at = strays_.next( 0 ); at != Strays::nowhere; at = strays_.next( at + 1 ) ) {
      indexDel( chip, EntryKey( strays_[ at ].key ) ); // a copy: the stray may go
   }
}

void KeyToSlotMap::delStrays() noexcept {
   strays_.clear();
}

U64 KeyToSlotMap::count() const {
   return strays_.size() + onKeys( []( auto const& keys ) { return keys.countKeys(); } );
}

U64 KeyToSlotMap::capacity() const {
   return strays_.capacity() + onKeys( []( auto const& keys ) { return keys.capacity(); } );
}

U64 KeyToSlotMap::next( U64 position ) const {
   if ( !isStray( position ) ) {
      U64 const at = onKeys( [ & ]( auto const& keys ) { return keys.nextKey( position ); } );
      if ( at != nowhere ) {
         return at;
      }
      position = strayBit;
   }
   U64 const at = strays_.next( position & ~strayBit );
   return at == Strays::nowhere ? nowhere : at | strayBit;
}

U64 KeyToSlotMap::strayPosition( EntryKey const& key ) const {
   U64 const position = strays_
                           .find( Weft::widened( key.hash() ),
                                  [ & ]( Stray const& stray ) { return stray.key == key; } )
                           .position;
   return position == Strays::nowhere ? nowhere : position | strayBit;
}

U64 KeyToSlotMap::positionOf( EntryKey const& key ) const {
   if ( !ofLength( key ) ) {
      return strayPosition( key );
   }
   return onKeys( [ & ]( auto const& keys ) {
      return keys.positionOfKey( keys.wordsAt( key.bytes().bytesPtr() ) );
   } );
}

EntryKey KeyToSlotMap::keyAt( U64 position ) const {
   if ( isStray( position ) ) {
      return strays_[ position & ~strayBit ].key;
   }
   return onKeys( [ & ]( auto const& keys ) {
      return EntryKey( Corvo::Bytes( keys.bytesOf( position ), keyLength_ ) );
   } );
}

} // namespace Tessel
