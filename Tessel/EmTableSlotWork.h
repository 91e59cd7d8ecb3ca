// SPDX-License-Identifier: Apache-2.0
#pragma once

/// What the operations of an exact-match table do with slots, counts and traces, with and without
/// tracing. Internal to EmTable.

#include "Tessel/EmTableInternal.h"
#include "Vellum/OrderedCopy.h"
#include "Weft/FlatSearch.h"

namespace Tessel {

/// What concerns a slot and no key. `Table` is EmShadowTable, const for the operations that only look.
template<bool traced, class Table>
class EmShadowTable::SlotWork {
 public:
   explicit SlotWork( Table& table ) : table_( table ) {}

   [[gnu::always_inline]] EmTableIndex takeSlot() const {
      Brine::HBitmap& free = table_.bitmap( "alloc" );
      U32 const slot = free.findBitInSetState( Brine::HBitmap::IndexPreference::lowest );
      if ( slot >= table_.numEntries_ ) { // none, or one that only a bitmap of another size has
         return {};
      }
      free.clearBit( slot );
      traceLine( { 7, "alloc" }, "ManagedEmTable::", "alloc", " index:", slot );
      return EmTableIndex( slot );
   }

   [[gnu::always_inline]] void giveBackSlot( EmTableIndex index ) const {
      traceSlot( "free", index );
      sassert( index.valid(), { "index.valid()", "free" } );
      table_.checkSlot( index, "free" );
      table_.bitmap( "free" ).setBit( index.value() );
   }

   [[gnu::always_inline]] void markSlotUsed( EmTableIndex index ) const {
      traceSlot( "markIndexUsed", index );
      table_.checkSlot( index, "markIndexUsed" );
      table_.bitmap( "markIndexUsed" ).clearBit( index.value() );
   }

   [[gnu::always_inline]] void wipeImage( EmTableIndex index ) const {
      traceSlot( "invalidateVellumMemory", index );
      table_.checkSlot( index, "invalidateVellumMemory" );
      traceCopy( "copyToBuf" );
      Vellum::storeNoImage( writableImageOf( index ), table_.entryLengthBytes_ );
   }

 protected:
   /// A slot just taken, given back unless it is kept.
   class ClaimedSlot {
    public:
      ClaimedSlot( Brine::HBitmap& bitmap, EmTableIndex slot )
            : bitmap_( &bitmap ), slot_( slot ) {}
      ClaimedSlot( ClaimedSlot const& ) = delete;
      ClaimedSlot& operator=( ClaimedSlot const& ) = delete;
      ~ClaimedSlot() {
         if ( bitmap_ ) {
            bitmap_->setBit( slot_.value() );
         }
      }
      void keep() { bitmap_ = nullptr; }

    private:
      Brine::HBitmap* bitmap_;
      EmTableIndex slot_;
   };

   /// Where the image of a slot is read, and written.
   [[gnu::always_inline]] U8 const* imageOf( EmTableIndex index ) const {
      U8 const* const range = table_.readableRange();
      if ( range != nullptr ) [[likely]] {
         return range + table_.offsetOf( index );
      }
      return table_.readableAt( table_.offsetOf( index ), table_.entryLengthBytes_ );
   }
   [[gnu::always_inline]] U8* writableImageOf( EmTableIndex index ) const {
      U8* const range = table_.writableRange();
      U8* const image =
         range != nullptr ? range + table_.offsetOf( index )
                          : table_.writableAt( table_.offsetOf( index ), table_.entryLengthBytes_ );
      table_.isWriterIs();
      return image;
   }

   /// Removes an entry that the table owns, but for its key: nothing can fail. `knownLength` is that
   /// of the image, or 0.
   template<U32 knownLength = 0>
   [[gnu::always_inline]] void
   removeOwned( EmTableIndex slot, U64 offset, Brine::ChipId chip ) const {
      U8* const image = table_.writableRange() + offset;
      if constexpr ( knownLength != 0 ) {
         Vellum::storeNoImage<knownLength>( image );
      } else {
         Vellum::storeNoImage( image, table_.entryLengthBytes_ );
      }
      countOneLess( chip );
      // The bitmap is the one that the table made, with all bits set.
      table_.freeIndexBmp_->untoggle( slot.value() );
   }
   [[gnu::always_inline]] void countOneMore( Brine::ChipId chip ) const {
      table_.countMore( chip, 1 );
   }
   [[gnu::always_inline]] void countOneLess( Brine::ChipId chip ) const {
      table_.countMore( chip, ~U32{ 0 } ); // modulo 2^32
   }

   /// `index` may be no slot.
   [[gnu::always_inline]] void fetchImage( EmTableIndex index ) const {
      U64 const length = table_.entryLengthBytes_;
      Weft::fetchBytes( table_.readableRange(), index.value() * length, length );
   }

   // ---- traces

   template<class... Pieces>
   [[gnu::always_inline]] static void traceLine( Weft::TraceSite site, Pieces... pieces ) {
      if constexpr ( traced ) {
         emTableTrace( site, pieces... );
      }
   }
   static void traceSlot( char const* operation, EmTableIndex index ) {
      traceLine( { 7, operation }, "EmShadowTable::", operation, " index:", index );
   }
   static void traceLookup( Brine::ChipId chip, EmTableIndex found ) {
      if constexpr ( traced ) {
         traceTableLookup( chip, found );
      }
   }
   static void traceUpdate( Brine::ChipId chip, EmTableIndex index ) {
      if constexpr ( traced ) {
         traceTableUpdate( chip, index );
      }
   }
   static void traceDelete( Brine::ChipId chip ) {
      if constexpr ( traced ) {
         traceTableDelete( chip );
      }
   }
   /// What the making of a key and of a result trace; their lengths were checked with the geometry.
   void traceKey() const {
      if constexpr ( traced ) {
         checkKeySize( table_.keyLengthBytes_ );
      }
   }
   void traceResult() const {
      if constexpr ( traced ) {
         checkResultSize( table_.resultLengthBytes_ );
      }
   }
   void traceCopy( char const* operation ) const {
      if constexpr ( traced ) {
         traceImageCopy( operation, table_.keyLengthBytes_, table_.resultLengthBytes_ );
      }
   }

   Table& table_;
};

} // namespace Tessel
