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

   /// Takes every valid image into the bookkeeping, in the order of the slots.
   static void reconcile( EmShadowTable& table ) {
      WholeWork const work( table );
      if ( work.keys().size() != 0 ) {
         // An image that somebody else has written meanwhile gives its pair a slot that the map already
         // gives to another.
         table.trustIsLost();
         work.takeOverAll( Keys::Slot::any );
         return;
      }
      work.keys().startAfresh();
      if constexpr ( !traced ) {
         Brine::HBitmap const& free = *table.freeIndexBmp_;
         if ( table.readableRange() != nullptr && free.size() == table.numEntries_ &&
              free.initialBitState() == Brine::HBitmap::BitState::allSet ) {
            work.reconcileRange();
            return;
         }
      }
      work.takeOverAll( Keys::Slot::ofNoPair );
   }

   static void deleteAll( EmShadowTable& table, Brine::ChipId chip ) {
      WholeWork( table ).deleteOfChip( chip );
      table.keyToSlot_->indexDelOfStrays( chip );
   }

   static void clearTable( EmShadowTable& table ) {
      WholeWork const work( table );
      work.ownIfAny( table.numUsedEntries_ );
      if ( work.mayClearAtOnce() ) [[likely]] {
         work.clearAtOnce();
      } else {
         work.clearOneByOne();
      }
      table.keyToSlot_->delStrays();
   }

 private:
   void takeOverAll( typename Keys::Slot known ) const {
      for ( U32 slot = 0; slot < table_.numEntries_; ++slot ) {
         takeOver( EmTableIndex( slot ), known );
      }
   }

   /// Takes the image of a slot, if there is one, into the bookkeeping.
   void takeOver( EmTableIndex index, typename Keys::Slot known ) const {
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
         keys().set( place, pair, index, known );
         if ( !alreadyCounted ) {
            this->countOneMore( image.chip() );
         }
      } );
   }

   static constexpr U32 wordBits = Brine::HBitmap::wordBits;

   /// Images that are in the map and still have to be counted for their chips. The destructor sees to it, also
   /// when memory has run out.
   class Newcomers {
    public:
      explicit Newcomers( WholeWork const& work ) : table_( work.table_ ), keys_( work.keys() ) {}
      Newcomers( Newcomers const& ) = delete;
      Newcomers& operator=( Newcomers const& ) = delete;
      ~Newcomers() {
         for ( U32 chip = 0; chip < byChip_.size(); ++chip ) {
            if ( byChip_[ chip ] != 0 ) {
               table_.countMore( Brine::ChipId( static_cast<U8>( chip ) ), byChip_[ chip ] );
               keys_.noteChip( Brine::ChipId( static_cast<U8>( chip ) ) );
            }
         }
      }

      [[gnu::always_inline]] void countOne( Brine::ChipId chip ) { ++byChip_[ chip.value() ]; }

    private:
      EmShadowTable& table_;
      Keys& keys_;
      std::array<U32, ChipCounts::capacity> byChip_{};
   };

   /// reconcile() of an empty map where the images can be looked at in place: counted first where the map
   /// would grow more than once otherwise.
   void reconcileRange() const {
      U64 images = table_.numEntries_;
      U64 end = table_.numEntries_;
      if ( !keys().growsAtOnce() ) {
         images = end = 0;
         forEachWord( table_.numEntries_, [ & ]( U32 word, U64 shown ) {
            images += static_cast<U32>( std::popcount( shown ) );
            end = ( U64{ word } + 1 ) * wordBits;
         } );
         end = std::min<U64>( end, table_.numEntries_ );
         keys().makeRoomFor( images );
      }
      bool const fetches = Keys::bytesFor( images ) > uncachedBytes;
      Newcomers newcomers( *this );
      forEachWord( end, [ & ]( U32 word, U64 shown ) {
         if ( fetches ) {
            fetchGroups( word, shown );
         }
         takeOverWord( word, shown, newcomers );
      } );
   }

   /// Calls `visit( word, slots )`, by words of the bitmap and in order, for the slots below `slots` whose
   /// images show themselves.
   template<class Visit>
   void forEachWord( U64 slots, Visit const& visit ) const {
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
         for ( U64 slot = first; slot < end; slot = ( slot / wordBits + 1 ) * wordBits ) {
            U64 const shown =
               shownFrom( slot, std::min( end, ( slot / wordBits + 1 ) * wordBits ) );
            if ( shown != 0 ) {
               visit( static_cast<U32>( slot / wordBits ), shown );
            }
         }
      }
   }

   /// Which slots from `first` to `end`, all of one word of the bitmap, show an image; as that word has
   /// them. Without a branch per slot: in a table that is neither full nor empty, nothing foretells it.
   [[gnu::always_inline]] U64 shownFrom( U64 first, U64 end ) const {
      U64 const length = table_.entryLengthBytes_;
      U8 const* const range = table_.readableRange();
      U32 any = 0;
      U8 const* image = range + first * length;
#pragma GCC unroll 4
      for ( U64 left = end - first; left > 0; --left, image += length ) {
         any |= Vellum::detail::loadFirst( image );
      }
      if ( any == 0 ) {
         return 0;
      }
      U64 shown = 0;
#pragma GCC unroll 4
      for ( U64 left = end - first; left > 0; --left ) {
         image -= length;
         shown = 2 * shown + ( Vellum::detail::loadFirst( image ) != 0 ? 1 : 0 );
      }
      return shown << first % wordBits;
   }

   template<class Visit>
   [[gnu::always_inline]] static void forEachBit( U64 bits, Visit const& visit ) {
      for ( ; bits != 0; bits &= bits - 1 ) {
         visit( static_cast<U32>( std::countr_zero( bits ) ) );
      }
   }

   /// Starts to fetch what takeOverWord() reads and writes of the map. Inlined at any price, as all that only
   /// fetches: see Weft/FlatSearch.h.
   [[gnu::always_inline]] void fetchGroups( U32 word, U64 shown ) const {
      U8 const* const images = imagesOf( word );
      forEachBit(
         shown, [ & ]( U32 bit ) __attribute__( ( always_inline ) ) {
            // A hint, read without care: what counts is read again.
            U8 const* const image = images + U64{ bit } * table_.entryLengthBytes_;
            U64 const hash =
               hashOf( Brine::ChipId( image[ ImageShape::chipOffset ] ),
                       reinterpret_cast<char const*>( image + ImageShape::keyOffset ) );
            keys().fetchGroup( hash );
         } );
   }
   U8 const* imagesOf( U32 word ) const {
      return table_.readableRange() + U64{ word } * wordBits * table_.entryLengthBytes_;
   }

   /// takeOver() of the slots `shown` of a word, whose pairs are most likely new.
   void takeOverWord( U32 word, U64 shown, Newcomers& newcomers ) const {
      keys().makeRoomFor( static_cast<U32>( std::popcount( shown ) ) );
      bool const noneIsCounted = ( table_.freeIndexBmp_->toggledIn( word ) & shown ) == 0;
      U64 const length = table_.entryLengthBytes_;
      U8 const* const images = imagesOf( word );
      auto const search = keys().search();
      auto const keysBySlot = keys().keysBySlot();
      U64 unsettled = shown;
      U64 left = shown;
      while ( left != 0 ) {
         U32 const bit = static_cast<U32>( std::countr_zero( left ) );
         EmTableIndex const slot( word * wordBits + bit );
         U8 const* const image = images + U64{ bit } * length;
         Brine::ChipId chip( 0 );
         KeyWords<wordCount> key;
         U64 const unlike =
            readFinishedImage<wordCount>( image, this->template shape<NoResult>(), chip, key );
         if ( noneIsCounted && unlike == 0 &&
              Keys::putAtFirstLook( search, keysBySlot, Pair( chip, key ), slot ) ) [[likely]] {
            newcomers.countOne( chip );
            left &= left - 1;
            continue;
         }
         settle( word, unsettled ^ left );
         left &= left - 1;
         unsettled = left;
         takeOver( slot, Keys::Slot::ofNoPair );
      }
      settle( word, unsettled );
   }
   /// Marks slots of a word whose pairs have been put in the map, and counts these.
   void settle( U32 word, U64 slots ) const {
      table_.freeIndexBmp_->toggleIn( word, slots );
      keys().countPut( static_cast<U32>( std::popcount( slots ) ) );
   }

   /// A removal of entries writes: a trusted table need not wait for the first to own what it writes.
   void ownIfAny( U32 entries ) const {
      if ( table_.isTrusted() && entries != 0 ) {
         table_.isWriterIs();
      }
   }

   /// Whether no pair has to be asked where its image lies: each slot in use is that of one pair. (A
   /// restart can find a pair in two slots.)
   bool mayClearAtOnce() const {
      return !traced && table_.ownedSize() != 0 && keys().objects() == 0 &&
             keys().size() == table_.numUsedEntries_;
   }
   /// In the order of the slots, so that each line of the range is written in one go. Nothing here can
   /// fail, so map and counts may follow in the end.
   void clearAtOnce() const {
      U32 const length = table_.entryLengthBytes_;
      table_.freeIndexBmp_->untoggleAll( [ & ]( U32 word, U64 used ) {
         U8* const images = table_.writableRange() + U64{ word } * wordBits * length;
         if ( used == ~U64{ 0 } ) {
            Vellum::storeNoImages( images, length, wordBits );
            return;
         }
         forEachBit( used, [ & ]( U32 bit ) {
            Vellum::storeNoImage( images + U64{ bit } * length, length );
         } );
      } );
      keys().eraseAll();
      table_.numUsedEntries_ = 0;
      table_.usedByChip_.countsAreZero();
   }

   /// deleteAll() of keys that are no strays.
   void deleteOfChip( Brine::ChipId chip ) const {
      U32 const entries = table_.usedByChip_.count( chip );
      ownIfAny( entries );
      if ( table_.ownedSize() != 0 && entries == 0 ) {
         return;
      }
      if ( keys().holdsOnly( chip ) && mayClearAtOnce() ) {
         clearAtOnce();
      } else if ( !traced && maySweep() ) {
         deleteBySlots( chip );
      } else {
         deleteOneByOne( chip );
      }
   }

   /// Whether a look at every word of the bitmap is worth it, in a table that owns its slots.
   bool maySweep() const {
      return table_.ownedSize() != 0 && keys().size() >= table_.numEntries_ / wordBits;
   }
   /// In the order of the slots.
   void deleteBySlots( Brine::ChipId chip ) const {
      U32 const words = ( table_.numEntries_ + wordBits - 1 ) / wordBits;
      for ( U32 word = 0; word < words; ++word ) {
         deleteInWord( word, slotsOn( chip, word ), chip );
      }
   }

   /// Which used slots of a word are those of pairs with `chip`, or were before a caller took the pair out
   /// of the map alone.
   [[gnu::always_inline]] U64 slotsOn( Brine::ChipId chip, U32 word ) const {
      auto const keysBySlot = keys().keysBySlot();
      U64 on = 0;
      forEachBit(
         table_.freeIndexBmp_->toggledIn( word ),
         [ & ]( U32 bit ) __attribute__( ( always_inline ) ) {
            EmTableIndex const slot( word * wordBits + bit );
            on |= U64{ keysBySlot[ slot ].beside().differenceFrom( chip ) == 0 } << bit;
         } );
      return on;
   }

   void deleteInWord( U32 word, U64 slots, Brine::ChipId chip ) const {
      auto const keysBySlot = keys().keysBySlot();
      std::array<U64, wordBits> hashes;
      forEachBit(
         slots, [ & ]( U32 bit ) __attribute__( ( always_inline ) ) {
            EmTableIndex const slot( word * wordBits + bit );
            hashes[ bit ] = Pair( chip, keysBySlot[ slot ].words() ).hash;
            keys().fetchGroup( hashes[ bit ] );
         } );
      U64 freed = 0;
      forEachBit(
         slots, [ & ]( U32 bit ) __attribute__( ( always_inline ) ) {
            EmTableIndex const slot( word * wordBits + bit );
            if ( keys().eraseWithSlot( hashes[ bit ], slot ) ) [[likely]] {
               Vellum::storeNoImage( table_.writableRange() + table_.offsetOf( slot ),
                                     table_.entryLengthBytes_ );
               freed |= U64{ 1 } << bit;
            }
         } );
      if ( freed != 0 ) {
         table_.freeIndexBmp_->untoggleIn( word, freed );
         table_.countMore( chip, 0U - static_cast<U32>( std::popcount( freed ) ) ); // modulo 2^32
      }
   }

   // What has been visited may be removed, and nothing else is.

   void deleteOneByOne( Brine::ChipId chip ) const {
      keys().forEach( [ & ]( U64 position ) {
         SlotOrObject const where = keys().whereOf( position );
         if ( where.isOn( chip ) ) {
            deletePair( { .position = position, .index = where.slot() }, chip );
         } else if ( where.isObject() && where.object()->indexHas( chip ) ) {
            deletePair( { .position = position, .index = where.object()->index( chip ) }, chip );
         }
      } );
   }

   void clearOneByOne() const {
      keys().forEach( [ & ]( U64 position ) {
         SlotOrObject const where = keys().whereOf( position );
         if ( where.isObject() ) {
            deleteObject( position, *where.object() );
         } else {
            deletePair( { .position = position, .index = where.slot() }, where.chip() );
         }
      } );
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
      this->delFound( place, pair );
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
