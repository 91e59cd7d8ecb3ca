// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The operations on entries of an exact-match table, as templates. Internal to EmTable.
///
/// Each is compiled with and without tracing, for each class of key lengths, and, where it matters,
/// for each of result lengths. A table chooses when it is built; a call then is a handful of loads,
/// compares and stores that the processor overlaps with those of the next call.

#include "Tessel/EmTableImage.h"
#include "Tessel/EmTableSlotWork.h"
#include "Tessel/KeyToSlotMap.h"

#include <span>

namespace Tessel {

/// What concerns keys of a class of lengths. `Table` is EmShadowTable, const for the operations that
/// only look.
template<bool traced, class KeyClass, class Table>
class EmShadowTable::EntryWork : public SlotWork<traced, Table> {
   using Slots = SlotWork<traced, Table>;
   using Slots::table_;

 public:
   static constexpr std::size_t wordCount = KeyClass::words;
   using Keys = KeyTable<wordCount>;
   using Key = HashedKey<wordCount>;

   using Slots::Slots;

   /// The key whose bytes are at `bytes`.
   [[gnu::always_inline]] Key keyAt( Weft::CharPtrConst bytes ) const {
      return Keys::hashed(
         keyWordsAt<wordCount>( bytes, KeyClass::exactly( table_.keyLengthBytes_ ) ) );
   }

   // ---- single entries. Each first tries what nearly always does, in a few instructions and without
   // a stack frame, and starts again with the whole of it where that does not answer.

   template<class Result>
   [[gnu::always_inline]] bool
   set( Brine::ChipId chip, Weft::CharPtrConst key, Weft::CharPtrConst result ) const {
      if constexpr ( !traced ) {
         U64 const slot = keys().glance( chip, keyAt( key ) );
         U8* const range = table_.writableRange();
         if ( slot < table_.numEntries_ && range != nullptr ) [[likely]] {
            table_.isWriter_ = true;
            storeEntryImage<wordCount, Result>(
               range + offsetOf( slot ), shape<Result>(), chip, key, result );
            return true;
         }
         if ( slot == Keys::absent ) {
            return addAbsent<Result>( table_, chip, key, result );
         }
      }
      return setFully<Result>( table_, chip, key, result );
   }

   [[gnu::always_inline]] bool has( Brine::ChipId chip, Weft::CharPtrConst key ) const {
      if constexpr ( !traced ) {
         U64 const slot = keys().glance( chip, keyAt( key ) );
         if ( slot != Keys::unsure ) [[likely]] {
            return slot != Keys::absent;
         }
      }
      return hasFully( table_, chip, key );
   }

   template<class Result>
   [[gnu::always_inline]] bool
   get( Brine::ChipId chip, Weft::CharPtrConst key, Weft::CharPtr result ) const {
      if constexpr ( !traced ) {
         Key const hashed = keyAt( key );
         U64 const slot = keys().glance( chip, hashed );
         U8 const* const range = table_.readableRange();
         Result bytes;
         if ( slot < table_.numEntries_ && range != nullptr &&
              readExpectedImage<wordCount>( range + offsetOf( slot ),
                                            shape<Result>(),
                                            chip,
                                            hashed.words,
                                            table_.isWriter_,
                                            bytes ) ) [[likely]] {
            bytes.store( reinterpret_cast<U8*>( result ), shape<Result>().resultLength );
            return true;
         }
         if ( slot == Keys::absent ) {
            return false;
         }
      }
      return getFully<Result>( table_, chip, key, result );
   }

   /// Whether the entry was there.
   [[gnu::always_inline]] bool del( Brine::ChipId chip, Weft::CharPtrConst key ) const {
      this->traceKey();
      Key const hashed = keyAt( key );
      KeyPlace const place = keys().find( chip, hashed );
      this->traceLookup( chip, place.index );
      if ( !place.index.valid() ) {
         return false;
      }
      delAt( place, hashed, chip );
      return true;
   }

   // ---- many entries

   /// Calls `one` for each pair, in order, and counts what it answers. Before, what the calls of a
   /// block will read is fetched, all of it at once instead of one thing after another.
   template<class Pair, class One>
   U64 inBulk( std::span<Pair const> pairs, bool* answers, One const& one ) const {
      bool const fetches = !traced && keys().bytes() > cachedBytes;
      U64 count = 0;
      for ( std::size_t done = 0; done < pairs.size(); done += bulkBlock ) {
         auto const block =
            pairs.subspan( done, std::min<std::size_t>( bulkBlock, pairs.size() - done ) );
         if ( fetches ) {
            fetchBlock( block );
         }
         for ( std::size_t i = 0; i < block.size(); ++i ) {
            bool const answer = one( block[ i ] );
            count += answer ? 1 : 0;
            if ( answers != nullptr ) {
               answers[ done + i ] = answer;
            }
         }
      }
      return count;
   }

   // ---- all entries

   /// Takes every valid image into the bookkeeping, slot by slot.
   void reconcile() const {
      if constexpr ( !traced ) {
         if ( table_.readableRange() != nullptr ) {
            reconcileRange();
            return;
         }
      }
      for ( U32 slot = 0; slot < table_.numEntries_; ++slot ) {
         takeOver( EmTableIndex( slot ) );
      }
   }

   void deleteAll( Brine::ChipId chip ) const {
      forEachKey( [ & ]( U64 position, SlotOrObject where ) {
         EmTableIndex const index = where.indexOn( chip );
         if ( index.valid() ) {
            deletePair( { .position = position, .index = index }, chip );
         }
      } );
      table_.keyToSlot_->indexDelOfStrays( chip );
   }

   void clear() const {
      forEachKey( [ & ]( U64 position, SlotOrObject where ) {
         if ( where.isObject() ) {
            deleteObject( position, *where.object() );
         } else {
            deletePair( { .position = position, .index = where.slot() }, where.chip() );
         }
      } );
      table_.keyToSlot_->delStrays();
   }

   template<class Result>
   EmTableEntry entryAt( EmTableIndex index ) const {
      EmTableEntry entry;
      readImage<Result>( index, [ & ]( auto const& image ) {
         entry = EmTableEntry( true, image.chip(), image.keyBytes(), image.resultBytes() );
      } );
      return entry;
   }

 private:
   template<class Result>
   [[gnu::noinline]] static bool
   setFully( Table& table, Brine::ChipId chip, Weft::CharPtrConst key, Weft::CharPtrConst result ) {
      EntryWork const work( table );
      work.traceKey();
      work.traceResult();
      Key const hashed = work.keyAt( key );
      KeyPlace const place = work.keys().find( chip, hashed );
      work.traceLookup( chip, place.index );
      if ( !place.index.valid() ) {
         return work.template add<Result>( place.position, hashed, chip, key, result );
      }
      work.template writeImage<Result>( place.index, chip, key, result );
      return true;
   }

   /// For a key that is known to be absent.
   template<class Result>
   [[gnu::noinline]] static bool addAbsent( Table& table,
                                            Brine::ChipId chip,
                                            Weft::CharPtrConst key,
                                            Weft::CharPtrConst result ) {
      EntryWork const work( table );
      return work.template add<Result>( Keys::nowhere, work.keyAt( key ), chip, key, result );
   }

   [[gnu::noinline]] static bool
   hasFully( Table& table, Brine::ChipId chip, Weft::CharPtrConst key ) {
      EntryWork const work( table );
      work.traceKey();
      EmTableIndex const index = work.keys().find( chip, work.keyAt( key ) ).index;
      work.traceLookup( chip, index );
      return index.valid();
   }

   template<class Result>
   [[gnu::noinline]] static bool
   getFully( Table& table, Brine::ChipId chip, Weft::CharPtrConst key, Weft::CharPtr result ) {
      EntryWork const work( table );
      work.traceLine( { 7, "entry" }, "EmShadowTable::", "entry", " chipId:", chip );
      work.traceKey();
      Key const hashed = work.keyAt( key );
      EmTableIndex const index = work.keys().find( chip, hashed ).index;
      work.traceLookup( chip, index );
      if ( !index.valid() ) {
         return false;
      }
      bool const valid = work.template readImage<Result>( index, [ & ]( auto const& image ) {
         sassert( image.chip() == chip, { "entry.chipId() == chipId", "entry" } );
         sassert(
            sameWords( image.key(), hashed.words ),
            { "memcmp( key, entry.key().bytes().bytesPtr(), tableHelper()->keyLengthBytes() ) == 0",
              "entry" } );
         image.storeResult( result );
      } );
      sassert( valid, { "entry.valid() == true", "entry" } );
      return true;
   }

   /// Of a slot below numEntries: below 2^32.
   U64 offsetOf( U64 slot ) const { return slot * table_.entryLengthBytes_; }

   template<class Result>
   ImageShape shape() const {
      return { .keyLength = KeyClass::exactly( table_.keyLengthBytes_ ),
               .resultLength = Result::exactly( table_.resultLengthBytes_ ),
               .length = table_.entryLengthBytes_ };
   }

   [[gnu::always_inline]] Keys& keys() const {
      return table_.keyToSlot_->template keys<wordCount>();
   }
   template<class Result>
   [[gnu::always_inline]] bool add( U64 position,
                                    Key const& hashed,
                                    Brine::ChipId chip,
                                    Weft::CharPtrConst key,
                                    Weft::CharPtrConst result ) const {
      EmTableIndex const slot = this->takeSlot();
      if ( !slot.valid() ) {
         return false;
      }
      // All that can fail comes before the first change of the map and the counts.
      typename Slots::ClaimedSlot claimed( *table_.freeIndexBmp_, slot );
      KeyPlace const place{ .position = position, .index = {} };
      keys().makeRoom( place );
      writeImage<Result>( slot, chip, key, result );
      claimed.keep();
      this->traceUpdate( chip, slot );
      keys().set( place, chip, hashed, slot );
      this->countOneMore( chip );
      return true;
   }

   [[gnu::always_inline]] void
   delAt( KeyPlace const& place, Key const& hashed, Brine::ChipId chip ) const {
      sassert( place.index.value() < table_.bitmap( "entryDel" ).size(),
               { "index.value() < freeIndexBmp()->size()", "entryDel" } );
      this->traceDelete( chip );
      // The write may fail its contract, the steps after it cannot: failing here, nothing has changed.
      this->wipeImage( place.index );
      keys().erase( place, chip, hashed );
      this->giveBackSlot( place.index );
      table_.numUsedEntriesDec( 1 );
      table_.numUsedEntriesByChipIdDec( chip, 1 );
   }

   /// Takes the image of a slot, if there is one, into the bookkeeping.
   void takeOver( EmTableIndex index ) const {
      readImage<NoResult>( index, [ & ]( auto const& image ) {
         Key const hashed = Keys::hashed( image.key() );
         KeyPlace const place = keys().find( image.chip(), hashed );
         if ( !place.index.valid() ) {
            keys().makeRoom( place );
         }
         // Counted by its bit, so that a slot is never counted twice, whatever the map says of its
         // key.
         bool const alreadyCounted = !table_.freeIndexBmp_->bit( index.value() );
         this->markSlotUsed( index );
         this->traceUpdate( image.chip(), index );
         keys().set( place, image.chip(), hashed, index );
         if ( !alreadyCounted ) {
            this->countOneMore( image.chip() );
         }
      } );
   }

   /// Starts to fetch what the calls for these pairs will read, one step of all before the next step
   /// of any. Inlined at any price, as FlatTable::fetchTags.
   template<class Pair>
   [[gnu::always_inline]] void fetchBlock( std::span<Pair const> block ) const {
      std::array<Key, bulkBlock> hashed;
      for ( std::size_t i = 0; i < block.size(); ++i ) {
         hashed[ i ] = keyAt( block[ i ].key );
         keys().fetchTags( hashed[ i ] );
      }
      for ( std::size_t i = 0; i < block.size(); ++i ) {
         keys().fetchElement( hashed[ i ] );
      }
      if constexpr ( !std::is_same_v<Pair, EmPair> ||
                     !std::is_const_v<Table> ) { // else no image is read
         for ( std::size_t i = 0; i < block.size(); ++i ) {
            U64 const slot = keys().glance( block[ i ].chipId, hashed[ i ] );
            if ( slot < table_.numEntries_ ) {
               this->fetchImage( EmTableIndex( static_cast<U32>( slot ) ) );
            }
         }
      }
   }

   /// reconcile() where the images can be looked at in place: counted first, so that the map grows
   /// once, then taken over in blocks.
   void reconcileRange() const {
      U64 images = 0;
      U64 end = 0;
      forEachImage( table_.numEntries_, [ & ]( U32 slot ) {
         ++images;
         end = slot + 1;
      } );
      std::array<U32, bulkBlock> block;
      U32 inBlock = 0;
      U64 taken = 0;
      auto const takeBlock = [ & ] {
         makeRoomForRest( images, taken );
         takeOverBlock( std::span( block ).first( inBlock ) );
         taken += inBlock;
         inBlock = 0;
      };
      forEachImage( end, [ & ]( U32 slot ) {
         block[ inBlock++ ] = slot;
         if ( inBlock == bulkBlock ) {
            takeBlock();
         }
      } );
      takeBlock();
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

   /// Makes room for as many more keys as `images` will bring if they go on as the first `taken` did:
   /// several chips may share a key.
   void makeRoomForRest( U64 images, U64 taken ) const {
      constexpr U64 sample = 1024; // before, it is too early to tell
      U64 const held = keys().count();
      if ( held + bulkBlock > keys().capacity() && ( taken >= sample || images < sample ) ) {
         U64 const keysPerImage1024 =
            taken == 0 ? 1024 : std::min<U64>( held * 1024 / taken, 1024 );
         // A writer in another process may have added some since they were counted.
         U64 const rest = images > taken ? images - taken : 0;
         keys().makeRoomFor( rest * keysPerImage1024 / 1024 + 1 );
      }
   }

   void takeOverBlock( std::span<U32 const> slots ) const {
      std::array<Key, bulkBlock> hashed;
      U8 const* const range = table_.readableRange();
      for ( std::size_t i = 0; i < slots.size(); ++i ) {
         // A hint, read without care: what counts is read again below.
         hashed[ i ] = keyAt( reinterpret_cast<char const*>( range + offsetOf( slots[ i ] ) +
                                                             ImageShape::keyOffset ) );
         keys().fetchTags( hashed[ i ] );
      }
      for ( std::size_t i = 0; i < slots.size(); ++i ) {
         keys().fetchElement( hashed[ i ] );
      }
      for ( U32 const slot : slots ) {
         takeOver( EmTableIndex( slot ) );
      }
   }

   /// Calls `visit( position, where )` for every key; the key may be removed meanwhile.
   template<class Visit>
   void forEachKey( Visit const& visit ) const {
      std::array<U64, bulkBlock> block;
      U64 at = keys().next( 0 );
      while ( at != Keys::nowhere ) {
         U32 count = 0;
         for ( ; count < bulkBlock && at != Keys::nowhere; at = keys().next( at + 1 ) ) {
            SlotOrObject const where = keys().whereOf( at );
            if ( !where.isObject() ) {
               this->fetchImage( where.slot() );
            }
            block[ count++ ] = at;
         }
         for ( U64 const position : std::span( block ).first( count ) ) {
            visit( position, keys().whereOf( position ) );
         }
      }
   }

   void deletePair( KeyPlace const& place, Brine::ChipId chip ) const {
      Key const hashed = keys().keyOf( place.position );
      // A caller may have set an index that is no slot.
      if ( place.index.value() >= std::min( table_.numEntries_, table_.bitmap().size() ) ) {
         keys().erase( place, chip, hashed );
         return;
      }
      this->traceKey();
      this->traceLookup( chip, place.index );
      delAt( place, hashed, chip );
   }

   void deleteObject( U64 position, EmTableFapIndices& object ) const {
      Corvo::Ptr<EmTableFapIndices> const indices( &object ); // outlives the removals
      for ( U32 at = indices->nextChip( 0 ); at < 256; at = indices->nextChip( at + 1 ) ) {
         Brine::ChipId const chip( static_cast<U8>( at ) );
         deletePair( { .position = position, .index = indices->index( chip ) }, chip );
      }
      if ( keys().next( position ) == position ) {
         keys().eraseKey( position, keys().keyOf( position ) ); // an object that a caller emptied
      }
   }

   // ---- images

   template<class Result>
   [[gnu::always_inline]] void writeImage( EmTableIndex index,
                                           Brine::ChipId chip,
                                           Weft::CharPtrConst key,
                                           Weft::CharPtrConst result ) const {
      this->traceLine( { 7, "writeToVellumMemory" },
                       "EmShadowTable::",
                       "writeToVellumMemory",
                       " index:",
                       index,
                       " chipId:",
                       chip );
      table_.checkSlot( index, "writeToVellumMemory" );
      this->traceCopy( "copyToBuf" );
      storeEntryImage<wordCount, Result>(
         this->writableImageOf( index ), shape<Result>(), chip, key, result );
   }

   /// Calls `use` with the image of a slot; false, and no call, when the slot is free.
   template<class Result, class Use>
   [[gnu::always_inline]] bool readImage( EmTableIndex index, Use const& use ) const {
      this->traceSlot( "readFromVellumMemory", index );
      table_.checkSlot( index, "readFromVellumMemory" );
      U8 const* const from = this->imageOf( index );
      this->traceCopy( "copyFromBuf" );
      if ( Vellum::detail::loadFirst( from ) == 0 ) {
         return false;
      }
      auto const image = Vellum::loadImageBy(
         ImageFields<wordCount, Result>( shape<Result>() ), from, table_.entryLengthBytes_ );
      if ( image.firstByte() == 0 ) {
         return false;
      }
      this->traceKey();
      this->traceResult();
      use( image );
      return true;
   }
};

} // namespace Tessel
