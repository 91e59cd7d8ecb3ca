// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The operations on all entries of an exact-match table at once, as templates. Internal to EmTable.

#include "Tessel/EmTableWork.h"

namespace Tessel {

/// What takes every image into the bookkeeping, or entries out by the many.
template<bool traced, class KeyClass>
class EmShadowTable::WholeWork : public EntryWork<traced, KeyClass, EmShadowTable> {
   using Entries = EntryWork<traced, KeyClass, EmShadowTable>;
   using Entries::hashOf;
   using Entries::keys;
   using Entries::table_;
   using Entries::wordCount;
   using typename Entries::Keys;
   using typename Entries::Pair;

 public:
   using Entries::Entries;

   /// Takes every valid image into the bookkeeping, slot by slot.
   static void reconcile( EmShadowTable& table ) {
      WholeWork const work( table );
      if constexpr ( !traced ) {
         if ( table.readableRange() != nullptr ) {
            work.reconcileRange();
            return;
         }
      }
      for ( U32 slot = 0; slot < table.numEntries_; ++slot ) {
         work.takeOver( EmTableIndex( slot ) );
      }
   }

   static void deleteAll( EmShadowTable& table, Brine::ChipId chip ) {
      WholeWork const work( table );
      if ( !traced && work.keys().holdsOnly( chip ) && table.ownedSize() != 0 ) {
         work.clearInPlace();
      } else {
         work.deleteOneByOne( chip );
      }
      table.keyToSlot_->indexDelOfStrays( chip );
   }

   static void clearTable( EmShadowTable& table ) {
      WholeWork const work( table );
      if ( !traced && work.keys().objects() == 0 && table.ownedSize() != 0 ) [[likely]] {
         work.clearInPlace();
      } else {
         work.clearOneByOne();
      }
      table.keyToSlot_->delStrays();
   }

 private:
   /// Takes the image of a slot, if there is one, into the bookkeeping.
   void takeOver( EmTableIndex index ) const {
      this->template readImage<NoResult>( index, [ & ]( auto const& image ) {
         Pair const pair( image.chip(), image.key() );
         KeyPlace const place = keys().find( pair );
         if ( !place.index.valid() ) {
            keys().makeRoom( place );
         }
         // Counted by its bit, so that a slot is never counted twice, whatever the map says of its
         // key.
         bool const alreadyCounted = !table_.freeIndexBmp_->bit( index.value() );
         this->markSlotUsed( index );
         this->traceUpdate( image.chip(), index );
         keys().set( place, pair, index );
         if ( !alreadyCounted ) {
            this->countOneMore( image.chip() );
         }
      } );
   }

   /// reconcile() where the images can be looked at in place: counted first where the map would grow more
   /// than once otherwise, then taken over, in blocks where that pays.
   void reconcileRange() const {
      U64 images = table_.numEntries_;
      U64 end = table_.numEntries_;
      if ( !keys().growsAtOnce() ) {
         images = end = 0;
         forEachImage( table_.numEntries_, [ & ]( U32 slot ) {
            ++images;
            end = slot + 1;
         } );
         keys().makeRoomFor( images - std::min( images, keys().size() ) );
      }
      if ( images * sizeof( KeyElement<wordCount> ) <= cachedBytes ) {
         forEachImage( end, [ & ]( U32 slot ) { takeOverInPlace( EmTableIndex( slot ) ); } );
         return;
      }
      std::array<U32, bulkBlock> block;
      U32 inBlock = 0;
      forEachImage( end, [ & ]( U32 slot ) {
         block[ inBlock++ ] = slot;
         if ( inBlock == bulkBlock ) {
            takeOverBlock( block );
            inBlock = 0;
         }
      } );
      takeOverBlock( std::span( block ).first( inBlock ) );
   }

   /// Calls `visit( slot )` for every slot below `slots` whose image shows itself, in order.
   template<class Visit>
   void forEachImage( U64 slots, Visit const& visit ) const {
      U8 const* const range = table_.readableRange();
      Vellum::VellumChunk const& chunk = *table_.vellumChunk();
      U64 const length = table_.entryLengthBytes_;
      U64 const from = table_.vellumOffset();
      U64 const to = from + length * slots;
      auto const suppliedFrom = [ & ]( U64 offset ) {
         // Asking about less costs more than looking.
         constexpr U64 worthAsking = U64{ 256 } << 10;
         return to - from < worthAsking ? Vellum::Stretch{ .begin = offset, .end = to }
                                        : chunk.suppliedFrom( offset );
      };
      for ( Vellum::Stretch at = suppliedFrom( from ); at.begin < to;
            at = suppliedFrom( at.end ) ) {
         // The slots whose first bytes lie in the stretch.
         U64 const first = ( at.begin - from + length - 1 ) / length;
         U64 const end = ( std::min( at.end, to ) - from + length - 1 ) / length;
         for ( U64 slot = first; slot < end; ++slot ) {
            if ( Vellum::detail::loadFirst( range + slot * length ) != 0 ) {
               visit( static_cast<U32>( slot ) );
            }
         }
      }
   }

   void takeOverBlock( std::span<U32 const> slots ) const {
      std::array<U64, bulkBlock> hashes;
      for ( std::size_t i = 0; i < slots.size(); ++i ) {
         // A hint, read without care: what counts is read again below.
         U8 const* const image =
            table_.readableRange() + table_.offsetOf( EmTableIndex( slots[ i ] ) );
         hashes[ i ] = hashOf( Brine::ChipId( image[ ImageShape::chipOffset ] ),
                               reinterpret_cast<char const*>( image + ImageShape::keyOffset ) );
         keys().fetchTags( hashes[ i ] );
      }
      for ( std::size_t i = 0; i < slots.size(); ++i ) {
         keys().fetchElementOrPlace( hashes[ i ] );
      }
      for ( U32 const slot : slots ) {
         takeOverInPlace( EmTableIndex( slot ) );
      }
   }

   /// takeOver() of a slot whose image showed itself in place, and whose pair is most likely new.
   [[gnu::always_inline]] void takeOverInPlace( EmTableIndex index ) const {
      auto const image =
         Vellum::loadImageBy( ImageFields<wordCount, NoResult>( this->template shape<NoResult>() ),
                              table_.readableRange() + table_.offsetOf( index ),
                              table_.entryLengthBytes_ );
      Brine::HBitmap& free = *table_.freeIndexBmp_;
      bool const isTaken = image.firstByte() != 0 && free.bit( index.value() ) &&
                           keys().addAtFirstLook( Pair( image.chip(), image.key() ), index );
      if ( !isTaken ) [[unlikely]] {
         takeOver( index );
         return;
      }
      free.clearBit( index.value() );
      this->countOneMore( image.chip() );
   }

   /// Calls `visit( position, where )` for every pair of a key without an object, if `isWanted( where )`
   /// is 1 and not 0, and every object; what is there may be removed meanwhile.
   template<class IsWanted, class Visit>
   [[gnu::always_inline]] void forEachPair( IsWanted const& isWanted, Visit const& visit ) const {
      std::array<U64, bulkBlock> block;
      U32 count = 0;
      auto const visitBlock = [ & ] {
         for ( U64 const position : std::span( block ).first( count ) ) {
            visit( position, keys().whereOf( position ) );
         }
         count = 0;
      };
      keys().forEach( [ & ]( U64 position ) __attribute__( ( always_inline ) ) {
         // Without a branch: of several chips, nothing foretells which one comes next.
         SlotOrObject const where = keys().whereOf( position );
         U32 const isObject = static_cast<U32>( where.isObject() );
         U32 const isPair = isWanted( where ) & ( isObject ^ 1 );
         this->fetchImage( EmTableIndex( where.slot().value() * isPair ) );
         block[ count ] = position;
         count += isObject | isPair;
         if ( count == bulkBlock ) {
            visitBlock();
         }
      } );
      visitBlock();
   }
   static constexpr auto isAny = []( SlotOrObject /*where*/ ) { return U32{ 1 }; };

   /// Nothing here can fail, so the pairs may go all at once in the end.
   void clearInPlace() const {
      forEachPair( isAny, [ & ]( U64 /*position*/, SlotOrObject where ) {
         this->removeOwned( where.slot(), table_.offsetOf( where.slot() ), where.chip() );
      } );
      keys().eraseAll();
   }

   void deleteOneByOne( Brine::ChipId chip ) const {
      auto const isOnChip = [ & ]( SlotOrObject where ) {
         return static_cast<U32>( where.isOn( chip ) );
      };
      forEachPair( isOnChip, [ & ]( U64 position, SlotOrObject where ) {
         if ( where.isOn( chip ) ) {
            deletePairAt( position, where );
         } else if ( where.isObject() && where.object()->indexHas( chip ) ) {
            deletePair( { .position = position, .index = where.object()->index( chip ) }, chip );
         }
      } );
   }

   void clearOneByOne() const {
      forEachPair( isAny, [ & ]( U64 position, SlotOrObject where ) {
         if ( where.isObject() ) {
            deleteObject( position, *where.object() );
         } else {
            deletePairAt( position, where );
         }
      } );
   }

   [[gnu::always_inline]] void deletePairAt( U64 position, SlotOrObject where ) const {
      if ( !traced && this->owns( where.slot() ) ) [[likely]] {
         keys().eraseAt( position );
         this->removeOwned( where.slot(), table_.offsetOf( where.slot() ), where.chip() );
      } else {
         deletePair( { .position = position, .index = where.slot() }, where.chip() );
      }
   }

   void deletePair( KeyPlace const& place, Brine::ChipId chip ) const {
      Pair const pair( chip, keys().wordsOf( place.position ) );
      // A caller may have set an index that is no slot.
      if ( place.index.value() >= table_.numEntries_ ) {
         keys().erase( place, pair );
         return;
      }
      this->traceKey();
      this->traceLookup( chip, place.index );
      this->delAt( place, pair );
   }

   void deleteObject( U64 position, EmTableFapIndices& object ) const {
      Corvo::Ptr<EmTableFapIndices> const indices( &object ); // outlives the removals
      for ( U32 at = indices->nextChip( 0 ); at < 256; at = indices->nextChip( at + 1 ) ) {
         Brine::ChipId const chip( static_cast<U8>( at ) );
         deletePair( { .position = position, .index = indices->index( chip ) }, chip );
      }
      if ( keys().next( position ) == position ) {
         keys().eraseAt( position ); // an object that a caller emptied
      }
   }
};

} // namespace Tessel
