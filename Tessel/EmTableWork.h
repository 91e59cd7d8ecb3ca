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

 protected:
   using Slots::table_;

 public:
   static constexpr std::size_t wordCount = KeyClass::words;
   using Keys = KeyTable<wordCount>;
   using Pair = HashedPair<wordCount>;
   using Home = typename Keys::Home;

   using Slots::Slots;

   [[gnu::always_inline]] KeyWords<wordCount> wordsAt( Weft::CharPtrConst key ) const {
      return keyWordsAt<wordCount>( key, KeyClass::exactly( table_.keyLengthBytes_ ) );
   }
   /// The pair of a chip and the key whose bytes are at `key`.
   [[gnu::always_inline]] Pair pairOf( Brine::ChipId chip, Weft::CharPtrConst key ) const {
      return Pair( chip, wordsAt( key ) );
   }
   [[gnu::always_inline]] U64 hashOf( Brine::ChipId chip, Weft::CharPtrConst key ) const {
      return pairOf( chip, key ).hash;
   }

   /// Whether the pair that a lead leads to is that of a chip and the key whose bytes are at `key`. False
   /// where it leads to an element.
   [[gnu::always_inline]] bool leadsTo( typename Keys::View keysBySlot,
                                        SlotLead lead,
                                        Brine::ChipId chip,
                                        Weft::CharPtrConst key ) const {
      return lead.saysAll() &&
             keysBySlot[ lead.slot() ].isPair( chip, wordsAt( readAgain( key ) ) );
   }

   // ---- single entries, as functions for calls through a pointer

   template<class Result>
   [[gnu::noinline]] static bool
   entryIs( Table& table, Brine::ChipId chip, Weft::CharPtrConst key, Weft::CharPtrConst result ) {
      return EntryWork( table ).template set<Result>( chip, key, result );
   }
   /// Whether the entry was there. `Result` matters where it tells the length of an image.
   template<class Result>
   [[gnu::noinline]] static bool
   entryDel( Table& table, Brine::ChipId chip, Weft::CharPtrConst key ) {
      return EntryWork( table ).template del<Result>( chip, key );
   }
   [[gnu::noinline]] static bool
   entryHas( Table& table, Brine::ChipId chip, Weft::CharPtrConst key ) {
      return EntryWork( table ).has( chip, key );
   }
   template<class Result>
   [[gnu::noinline]] static bool
   entry( Table& table, Brine::ChipId chip, Weft::CharPtrConst key, Weft::CharPtr result ) {
      return EntryWork( table ).template get<Result>( chip, key, result );
   }

   template<class Result>
   static void readEntry( Table& table, EmTableIndex index, EmTableEntry& entry ) {
      EntryWork const work( table );
      ImageShape const shape = work.template shape<Result>();
      U64 const offset = work.template offsetOf<Result>( index );
      bool const fits = entry.key().bytes().size() == shape.keyLength &&
                        entry.result().bytes().size() == shape.resultLength;
      if ( !traced && fits && offset < table.ownedSize() ) [[likely]] {
         // One reading is enough, since nobody else writes there; and the entry has room for it.
         ImageFields<wordCount, Result> image( shape );
         image.take( table.readableRange() + offset );
         if ( image.firstByte() == 1 ) [[likely]] {
            image.storeIn( entry );
            return;
         }
      }
      readEntryFully<Result>( table, index, entry );
   }

 protected:
   // ---- single entries. Each first tries what nearly always does, in a few instructions, and starts
   // again with the whole of it where that does not answer: by a tail call, which keeps the usual way
   // free of a stack frame, and to which GCC 12 objects when a copy of `chip` is around.

   template<class Result>
   [[gnu::always_inline]] bool
   set( Brine::ChipId const& chip, Weft::CharPtrConst key, Weft::CharPtrConst result ) const {
      U64 const hash = hashOf( chip, key );
      return setOrAdd<Result>(
         chip,
         key,
         hash,
         result,
         [ & ]( Home home ) __attribute__( ( always_inline ) ) {
            return addAbsent<Result>( table_, chip, key, hash, result, home );
         },
         [ & ]() __attribute__( ( always_inline ) ) {
            return setFully<Result>( table_, chip, key, hash, result );
         } );
   }
   /// `add( home )` for a pair that is absent, `fully()` for one of which a first look is unsure.
   template<class Result, class Add, class Fully>
   [[gnu::always_inline]] bool setOrAdd( Brine::ChipId const& chip,
                                         Weft::CharPtrConst key,
                                         U64 hash,
                                         Weft::CharPtrConst result,
                                         Add const& add,
                                         Fully const& fully ) const {
      if constexpr ( traced ) {
         return fully();
      } else {
         return keys().firstLook(
            hash,
            [ & ]( SlotLead lead, U64 /*position*/ ) __attribute__( ( always_inline ) ) {
               return setAt<Result>( lead, chip, key, result, fully );
            },
            add,
            fully );
      }
   }

   [[gnu::always_inline]] bool has( Brine::ChipId const& chip, Weft::CharPtrConst key ) const {
      U64 const hash = hashOf( chip, key );
      auto const fully = [ & ]() __attribute__( ( always_inline ) ) {
         return hasFully( table_, chip, key, hash );
      };
      if constexpr ( traced ) {
         return fully();
      } else {
         return keys().firstLook(
            hash,
            [ & ]( SlotLead lead, U64 /*position*/ ) __attribute__( ( always_inline ) ) {
               return leadsTo( keys().keysBySlot(), lead, chip, key ) || fully();
            },
            []( Home /*home*/ ) { return false; },
            fully );
      }
   }

   template<class Result>
   [[gnu::always_inline]] bool
   get( Brine::ChipId const& chip, Weft::CharPtrConst key, Weft::CharPtr result ) const {
      U64 const hash = hashOf( chip, key );
      auto const fully = [ & ]() __attribute__( ( always_inline ) ) {
         return getFully<Result>( table_, chip, key, hash, result );
      };
      if constexpr ( traced ) {
         return fully();
      } else {
         return keys().firstLook(
            hash,
            [ & ]( SlotLead lead, U64 /*position*/ ) __attribute__( ( always_inline ) ) {
               return getAt<Result>( lead, chip, key, result, fully );
            },
            []( Home /*home*/ ) { return false; },
            fully );
      }
   }

   template<class Result>
   [[gnu::always_inline]] bool del( Brine::ChipId const& chip, Weft::CharPtrConst key ) const {
      U64 const hash = hashOf( chip, key );
      auto const fully = [ & ]() __attribute__( ( always_inline ) ) {
         return delFully( table_, chip, key, hash );
      };
      if constexpr ( traced ) {
         return fully();
      } else {
         return keys().firstLook(
            hash,
            [ & ]( SlotLead lead, U64 position ) __attribute__( ( always_inline ) ) {
               return delAt<Result>( lead, position, chip, key, fully );
            },
            []( Home /*home*/ ) { return false; },
            fully );
      }
   }

   // What these do once a lead has been found. What the map says of a slot that the table owns, the image
   // says: chip and key are compared with that, which has to be fetched in any case, and not with what the
   // map knows of the pair. `otherwise()` where they differ, or where the table does not own the slot.

   template<class Result, class Otherwise>
   [[gnu::always_inline]] bool setAt( SlotLead lead,
                                      Brine::ChipId const& chip,
                                      Weft::CharPtrConst key,
                                      Weft::CharPtrConst result,
                                      Otherwise const& otherwise ) const {
      U64 const offset = offsetOf<Result>( lead.slot() );
      if ( offset >= table_.ownedSize() || !imageIs<Result>( offset, chip, key ) ) [[unlikely]] {
         return otherwise();
      }
      storeResultInImage<wordCount, Result>(
         table_.writableRange() + offset, shape<Result>(), chip, key, result );
      return true;
   }

   template<class Result, class Otherwise>
   [[gnu::always_inline]] bool getAt( SlotLead lead,
                                      Brine::ChipId const& chip,
                                      Weft::CharPtrConst key,
                                      Weft::CharPtr result,
                                      Otherwise const& otherwise ) const {
      U64 const offset = offsetOf<Result>( lead.slot() );
      if ( offset >= table_.ownedSize() ) [[unlikely]] {
         return getUnowned<Result>( table_, chip, key, lead, result );
      }
      Result bytes;
      if ( readImageOf<wordCount>( table_.readableRange() + offset,
                                   shape<Result>(),
                                   chip,
                                   wordsAt( readAgain( key ) ),
                                   bytes ) != 0 ) [[unlikely]] {
         return otherwise();
      }
      bytes.store( reinterpret_cast<U8*>( result ), shape<Result>().resultLength );
      return true;
   }

   template<class Result, class Otherwise>
   [[gnu::always_inline]] bool delAt( SlotLead lead,
                                      U64 position,
                                      Brine::ChipId const& chip,
                                      Weft::CharPtrConst key,
                                      Otherwise const& otherwise ) const {
      U64 const offset = offsetOf<Result>( lead.slot() );
      if ( offset >= table_.ownedSize() || !imageIs<Result>( offset, chip, key ) ) [[unlikely]] {
         return otherwise();
      }
      keys().eraseAtHome( position );
      this->template removeOwned<knownLength<Result>>( lead.slot(), offset, chip );
      return true;
   }

   /// Of an image that the table owns.
   template<class Result>
   [[gnu::always_inline]] bool
   imageIs( U64 offset, Brine::ChipId const& chip, Weft::CharPtrConst key ) const {
      NoResult none;
      return readImageOf<wordCount>( table_.writableRange() + offset,
                                     shape<Result>(),
                                     chip,
                                     wordsAt( readAgain( key ) ),
                                     none ) == 0;
   }

   [[gnu::noinline]] static bool
   delFully( Table& table, Brine::ChipId chip, Weft::CharPtrConst key, U64 hash ) {
      EntryWork const work( table );
      work.traceKey();
      Pair const pair( chip, work.wordsAt( key ), hash );
      KeyPlace const place = work.find( pair );
      work.traceLookup( chip, place.index );
      if ( !place.index.valid() ) {
         return false;
      }
      work.delFound( place, pair );
      return true;
   }

   template<class Result>
   [[gnu::noinline]] static bool setFully( Table& table,
                                           Brine::ChipId chip,
                                           Weft::CharPtrConst key,
                                           U64 hash,
                                           Weft::CharPtrConst result ) {
      EntryWork const work( table );
      work.traceKey();
      work.traceResult();
      Pair const pair( chip, work.wordsAt( key ), hash );
      KeyPlace const place = work.find( pair );
      work.traceLookup( chip, place.index );
      if ( !place.index.valid() ) {
         return work.template add<Result>( place.position, pair, key, result );
      }
      work.template writeImage<Result>( place.index, chip, key, result );
      return true;
   }

   /// For a pair that is known to be absent. A function of its own, which keeps the stack frame that it needs
   /// out of rewrites.
   template<class Result>
   [[gnu::noinline]] static bool addAbsent( Table& table,
                                            Brine::ChipId chip,
                                            Weft::CharPtrConst key,
                                            U64 hash,
                                            Weft::CharPtrConst result,
                                            Home home ) {
      EntryWork const work( table );
      auto const fully = [ & ]() __attribute__( ( always_inline ) ) {
         return addFully<Result>( table, chip, key, hash, result );
      };
      if ( table.ownedSize() == 0 || work.keys().room() == 0 ) [[unlikely]] {
         return fully();
      }
      return Keys::laneIn(
         home,
         [ & ]( typename Keys::Lane lane ) __attribute__( ( always_inline ) ) {
            return work.template addAtHome<Result>( lane, chip, key, hash, result );
         },
         fully );
   }

   template<class Result>
   [[gnu::noinline]] static bool addFully( Table& table,
                                           Brine::ChipId chip,
                                           Weft::CharPtrConst key,
                                           U64 hash,
                                           Weft::CharPtrConst result ) {
      EntryWork const work( table );
      Pair const pair( chip, work.wordsAt( key ), hash );
      return work.template add<Result>( Keys::nowhere, pair, key, result );
   }

   [[gnu::noinline]] static bool
   hasFully( Table& table, Brine::ChipId chip, Weft::CharPtrConst key, U64 hash ) {
      EntryWork const work( table );
      work.traceKey();
      EmTableIndex const index = work.find( Pair( chip, work.wordsAt( key ), hash ) ).index;
      work.traceLookup( chip, index );
      return index.valid();
   }

   /// For a lead of the right tag, whoever writes the image.
   template<class Result>
   [[gnu::noinline]] static bool getUnowned( Table& table,
                                             Brine::ChipId chip,
                                             Weft::CharPtrConst key,
                                             SlotLead lead,
                                             Weft::CharPtr result ) {
      EntryWork const work( table );
      ImageShape const shape = work.template shape<Result>();
      auto const words = work.wordsAt( key );
      U64 const offset = work.template offsetOf<Result>( lead.slot() );
      if ( offset < table.readableSize() &&
           work.leadsTo( work.keys().keysBySlot(), lead, chip, key ) ) [[likely]] {
         U8 const* const image = table.readableRange() + offset;
         Result bytes;
         U64 const difference =
            table.isWriter() ? readImageOf<wordCount>( image, shape, chip, words, bytes )
                             : readForeignImageOf<wordCount>( image, shape, chip, words, bytes );
         if ( difference == 0 ) [[likely]] {
            bytes.store( reinterpret_cast<U8*>( result ), shape.resultLength );
            return true;
         }
      }
      return getFully<Result>( table, chip, key, work.hashOf( chip, key ), result );
   }

   template<class Result>
   [[gnu::noinline]] static bool getFully(
      Table& table, Brine::ChipId chip, Weft::CharPtrConst key, U64 hash, Weft::CharPtr result ) {
      EntryWork const work( table );
      work.traceLine( { 7, "entry" }, "EmShadowTable::", "entry", " chipId:", chip );
      work.traceKey();
      Pair const pair( chip, work.wordsAt( key ), hash );
      EmTableIndex const index = work.find( pair ).index;
      work.traceLookup( chip, index );
      if ( !index.valid() ) {
         return false;
      }
      bool const valid = work.template readImage<Result>( index, [ & ]( auto const& image ) {
         sassert( image.chip() == chip, { "entry.chipId() == chipId", "entry" } );
         sassert(
            sameWords( image.key(), pair.words ),
            { "memcmp( key, entry.key().bytes().bytesPtr(), tableHelper()->keyLengthBytes() ) == 0",
              "entry" } );
         image.storeResult( result );
      } );
      sassert( valid, { "entry.valid() == true", "entry" } );
      return true;
   }

   template<class Result>
   [[gnu::noinline]] static void
   readEntryFully( Table& table, EmTableIndex index, EmTableEntry& entry ) {
      bool const valid = EntryWork( table ).template readImage<Result>(
         index, [ & ]( auto const& image ) { image.storeIn( entry ); } );
      if ( !valid ) {
         entry = {};
      }
   }

   /// The place of a pair of which a first look was unsure; with traces there was none.
   [[gnu::always_inline]] KeyPlace find( Pair const& pair ) const {
      if constexpr ( traced ) {
         return keys().find( pair );
      } else {
         return keys().findUnsure( pair );
      }
   }

   /// Bytes of an image where every table that works so has the same; else 0.
   template<class Result>
   static constexpr U32 knownLength =
      KeyClass::isExact && Result::isExact
         ? imageLength( KeyClass::exactly( 0 ), Result::exactly( 0 ) )
         : 0;

   template<class Result>
   ImageShape shape() const {
      U32 const keyLength = KeyClass::exactly( table_.keyLengthBytes_ );
      U32 const resultLength = Result::exactly( table_.resultLengthBytes_ );
      constexpr bool known = KeyClass::isExact && Result::isExact;
      return { .keyLength = keyLength,
               .resultLength = resultLength,
               .length =
                  known ? imageLength( keyLength, resultLength ) : table_.entryLengthBytes_ };
   }

   /// Of any slot that the map may name.
   template<class Result>
   U64 offsetOf( EmTableIndex slot ) const {
      return U64{ slot.value() } * shape<Result>().length;
   }

   [[gnu::always_inline]] Keys& keys() const {
      return table_.keyToSlot_->template keys<wordCount>();
   }
   /// In a table that owns its slots and whose map has room.
   template<class Result>
   [[gnu::always_inline]] bool addAtHome( typename Keys::Lane lane,
                                          Brine::ChipId chip,
                                          Weft::CharPtrConst key,
                                          U64 hash,
                                          Weft::CharPtrConst result ) const {
      // Its bitmap is the one it made itself, with all bits set.
      EmTableIndex const slot( table_.freeIndexBmp_->lowestUntoggled() );
      if ( !slot.valid() ) [[unlikely]] {
         return false;
      }
      putInSlot<Result>( slot, lane, chip, key, hash, result );
      keys().countPut( 1 );
      ++table_.numUsedEntries_;
      table_.freeIndexBmp_->toggleLowestUntoggled();
      return true;
   }
   /// The part of it that concerns one entry alone: nothing can fail, and what lies in a free slot is no image.
   template<class Result>
   [[gnu::always_inline]] void putInSlot( EmTableIndex slot,
                                          typename Keys::Lane lane,
                                          Brine::ChipId chip,
                                          Weft::CharPtrConst key,
                                          U64 hash,
                                          Weft::CharPtrConst result ) const {
      Keys::putAtHome( lane, keys().keysBySlot(), Pair( chip, wordsAt( key ), hash ), slot );
      storeEntryImage<wordCount, Result, Before::nothing>( table_.writableRange() +
                                                              offsetOf<Result>( slot ),
                                                           shape<Result>(),
                                                           chip,
                                                           readAgain( key ),
                                                           result );
      U32 const ofChip = table_.usedByChip_.count( chip );
      if ( ofChip == 0 ) [[unlikely]] {
         keys().noteChip( chip );
      }
      table_.usedByChip_.countIs( chip, ofChip + 1 );
   }

   template<class Result>
   [[gnu::always_inline]] bool
   add( U64 position, Pair const& pair, Weft::CharPtrConst key, Weft::CharPtrConst result ) const {
      EmTableIndex const slot = this->takeSlot();
      if ( !slot.valid() ) {
         return false;
      }
      // All that can fail comes before the first change of the map and the counts.
      typename Slots::ClaimedSlot claimed( *table_.freeIndexBmp_, slot );
      KeyPlace const place{ .position = position, .index = {} };
      keys().makeRoom( place );
      writeImage<Result>( slot, pair.chip, key, result );
      claimed.keep();
      this->traceUpdate( pair.chip, slot );
      keys().set( place, pair, slot, table_.isTrusted() ? Keys::Slot::ofNoPair : Keys::Slot::any );
      this->countOneMore( pair.chip );
      return true;
   }

   [[gnu::always_inline]] void delFound( KeyPlace const& place, Pair const& pair ) const {
      sassert( place.index.value() < table_.bitmap( "entryDel" ).size(),
               { "index.value() < freeIndexBmp()->size()", "entryDel" } );
      this->traceDelete( pair.chip );
      // The write may fail its contract, the steps after it cannot: failing here, nothing has changed.
      this->wipeImage( place.index );
      keys().erase( place, pair );
      this->giveBackSlot( place.index );
      this->countOneLess( pair.chip );
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
