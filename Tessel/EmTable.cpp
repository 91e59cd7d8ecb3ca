// SPDX-License-Identifier: Apache-2.0
#include "Tessel/EmTable.h"

#include "Tessel/EmTableInternal.h"
#include "Tessel/KeyToSlotMap.h"

namespace Tessel {

Weft::AllocTrackTypeInfo EmShadowTable::memAllocationTracker_;
Weft::TraceHelper const emTableTrace{ "TesselEmTable" };

namespace {

using Brine::HBitmap;

constexpr U64 addressableBytes = U64{ 1 } << 32;

/// Bytes of a slot: valid, chip, key, result, up to a multiple of 4. In 64 bits, so that lengths past
/// the limits do not wrap into a slot that would fit.
U64 slotLength( TableHelper const& geometry ) {
   return ( U64{ geometry.keyLengthBytes() } + geometry.resultLengthBytes() + 5 ) & ~U64{ 3 };
}

void traceSlot( char const* operation, EmTableIndex index ) {
   emTableTrace( { 7, operation }, "EmShadowTable::", operation, " index:", index );
}

void traceLookup( Brine::ChipId chipId, EmTableIndex found ) {
   constexpr char const* operation = "getTableIndex";
   if ( found.valid() ) {
      emTableTrace(
         { 7, operation }, "EmShadowTable::", operation, " chipId:", chipId, " index:", found );
   } else {
      emTableTrace( { 7, operation }, "EmShadowTable::", operation, " non-existing key" );
   }
}

void traceUpdate( Brine::ChipId chipId, EmTableIndex index ) {
   constexpr char const* operation = "updateTableIndex";
   emTableTrace( { 7, operation },
                 "EmShadowTable::",
                 operation,
                 " chipId:",
                 chipId,
                 " valid:",
                 index.valid(),
                 " index:",
                 index );
}

void traceDelete( Brine::ChipId chipId ) {
   constexpr char const* operation = "deleteTableIndex";
   emTableTrace( { 7, operation }, "EmShadowTable::", operation, " chipId:", chipId );
}

void traceWrite( char const* operation, EmTableIndex index, Brine::ChipId chipId ) {
   emTableTrace(
      { 7, operation }, "EmShadowTable::", operation, " index:", index, " chipId:", chipId );
}

} // namespace

/// A slot just taken, given back unless it is kept.
class EmShadowTable::ClaimedSlot {
 public:
   ClaimedSlot( HBitmap& bitmap, EmTableIndex slot ) : bitmap_( &bitmap ), slot_( slot ) {}
   ClaimedSlot( ClaimedSlot const& ) = delete;
   ClaimedSlot& operator=( ClaimedSlot const& ) = delete;
   ~ClaimedSlot() {
      if ( bitmap_ ) {
         bitmap_->setBit( slot_.value() );
      }
   }
   void keep() { bitmap_ = nullptr; }

 private:
   HBitmap* bitmap_;
   EmTableIndex slot_;
};

// ----------------------------------------------------------------------------- life of a table

EmShadowTable::EmShadowTable( Corvo::String const& tableName,
                              Corvo::Ptr<TableHelper const> const& tableHelper,
                              Corvo::Ptr<Vellum::VellumChunk> const& vellumChunk,
                              U32 vellumOffset )
      : ManagedTableBase( tableName, tableHelper, vellumChunk, vellumOffset ) {
   handleInitialized();
}

EmShadowTable::~EmShadowTable() = default;

Corvo::Ptr<EmShadowTable>
EmShadowTable::EmShadowTableIs( Corvo::String const& tableName,
                                Corvo::Ptr<TableHelper const> const& tableHelper,
                                Corvo::Ptr<Vellum::VellumChunk> const& vellumChunk,
                                U32 vellumOffset ) {
   return Corvo::makePtr<EmShadowTable>( tableName, tableHelper, vellumChunk, vellumOffset );
}

Corvo::Ptr<EmShadowTable> emShadowTableFactory( Corvo::String const& tableName,
                                                Corvo::Ptr<TableHelper const> const& tableHelper,
                                                Corvo::Ptr<Vellum::VellumChunk> const& vellumChunk,
                                                U32 vellumOffset ) {
   return EmShadowTable::EmShadowTableIs( tableName, tableHelper, vellumChunk, vellumOffset );
}

bool EmShadowTable::withinLimits( TableHelper const& geometry ) {
   return geometry.keyLengthBytes() <= MAX_KEY_LENGTH_IN_BYTE &&
          geometry.resultLengthBytes() <= MAX_RESULT_LENGTH_IN_BYTE;
}

U64 EmShadowTable::rangeBytes( TableHelper const& geometry ) {
   return slotLength( geometry ) * geometry.numEntries();
}

void EmShadowTable::handleInitialized() {
   emTableTrace( 7, "EmShadowTable::handleInitialized" );
   auto const geometry = tableHelper();
   sassert( bool( geometry ), "tableHelper()" );
   sassert( geometry->keyLengthBytes() <= MAX_KEY_LENGTH_IN_BYTE,
            "tableHelper()->keyLengthBytes() <= MAX_KEY_LENGTH_IN_BYTE" );
   sassert( geometry->resultLengthBytes() <= MAX_RESULT_LENGTH_IN_BYTE,
            "tableHelper()->resultLengthBytes() <= MAX_RESULT_LENGTH_IN_BYTE" );
   sassert( vellumOffset() + rangeBytes( *geometry ) <= addressableBytes,
            "vellumOffset() + tableShadowSize() <= 4294967296" );
   if ( !keyToSlot_ ) {
      keyLengthBytes_ = geometry->keyLengthBytes();
      resultLengthBytes_ = geometry->resultLengthBytes();
      numEntries_ = geometry->numEntries();
      entryLengthBytes_ = static_cast<U32>( slotLength( *geometry ) );
      keyToSlot_ = std::make_unique<KeyToSlotMap>( keyLengthBytes_, numEntries_ );
   }
   auto const before = freeIndexBmp_;
   if ( freeIndexBmpIs( 0, numEntries_, HBitmap::BitState::allSet ) != before ) {
      // No slot is marked in the new bitmap, so none may be counted either.
      numUsedEntries_ = 0;
      usedByChip_.countsAreZero();
   }
   reconcile();
}

void EmShadowTable::reconcile() {
   emTableTrace( 7, "EmShadowTable::reconcile" );
   bitmap();
   EmTableEntryRaw raw{};
   for ( U32 slot = 0; slot < numEntries_; ++slot ) {
      if ( readImage( EmTableIndex( slot ), raw ) ) {
         takeOver( EmTableIndex( slot ), raw );
      }
   }
}

void EmShadowTable::takeOver( EmTableIndex index, EmTableEntryRaw const& raw ) {
   Brine::ChipId const chipId( raw.chipId );
   char const* const key = keyOf( raw );
   KeyPlace const place = keyToSlot_->find( chipId, key );
   if ( !place.index.valid() ) {
      keyToSlot_->makeRoom( place );
   }
   // Counted by its bit, so that a slot is never counted twice, whatever the map says of its key.
   bool const alreadyCounted = !freeIndexBmp_->bit( index.value() );
   markIndexUsed( index );
   traceUpdate( chipId, index );
   keyToSlot_->set( place, chipId, key, index );
   if ( !alreadyCounted ) {
      countOneMore( chipId );
   }
}

void EmShadowTable::countOneMore( Brine::ChipId chipId ) {
   numUsedEntriesInc( 1 );
   numUsedEntriesByChipIdInc( chipId, 1 );
}

// ------------------------------------------------------------------------------------- entries

bool EmShadowTable::isFull() const {
   return numUsedEntries_ >= numEntries_;
}

U32 EmShadowTable::tableShadowSize() const {
   return entryLengthBytes_ * numEntries_;
}

KeyPlace EmShadowTable::find( Brine::ChipId chipId, Weft::CharPtrConst key ) const {
   KeyPlace const place = keyToSlot_->find( chipId, key );
   traceLookup( chipId, place.index );
   return place;
}

bool EmShadowTable::entryIs( Brine::ChipId chipId,
                             Weft::CharPtrConst key,
                             Weft::CharPtrConst result ) {
   checkKeySize( keyLengthBytes_ );
   checkResultSize( resultLengthBytes_ );
   KeyPlace const place = find( chipId, key );
   if ( !place.index.valid() ) {
      return add( place, chipId, key, result );
   }
   writeImage( place.index, chipId, key, result );
   return true;
}

bool EmShadowTable::add( KeyPlace const& place,
                         Brine::ChipId chipId,
                         Weft::CharPtrConst key,
                         Weft::CharPtrConst result ) {
   EmTableIndex const slot = alloc();
   if ( !slot.valid() ) {
      return false;
   }
   // All that can fail comes before the first change of the map and the counts.
   ClaimedSlot claimed( *freeIndexBmp_, slot );
   keyToSlot_->makeRoom( place );
   writeImage( slot, chipId, key, result );
   claimed.keep();
   traceUpdate( chipId, slot );
   keyToSlot_->set( place, chipId, key, slot );
   countOneMore( chipId );
   return true;
}

void EmShadowTable::entryDel( Brine::ChipId chipId, Weft::CharPtrConst key ) {
   checkKeySize( keyLengthBytes_ );
   KeyPlace const place = find( chipId, key );
   if ( !place.index.valid() ) {
      return;
   }
   sassert( place.index.value() < bitmap().size(), "index.value() < freeIndexBmp()->size()" );
   traceDelete( chipId );
   // The write may fail its contract, the steps after it cannot: failing here, nothing has changed.
   invalidateVellumMemory( place.index );
   keyToSlot_->erase( place, chipId );
   free( place.index );
   numUsedEntriesDec( 1 );
   numUsedEntriesByChipIdDec( chipId, 1 );
}

bool EmShadowTable::entryHas( Brine::ChipId chipId, Weft::CharPtrConst key ) const {
   checkKeySize( keyLengthBytes_ );
   return find( chipId, key ).index.valid();
}

bool EmShadowTable::entry( Brine::ChipId chipId,
                           Weft::CharPtrConst key,
                           Weft::CharPtr result ) const {
   emTableTrace( 7, "EmShadowTable::", "entry", " chipId:", chipId );
   checkKeySize( keyLengthBytes_ );
   KeyPlace const place = find( chipId, key );
   if ( !place.index.valid() ) {
      return false;
   }
   EmTableEntryRaw raw;
   bool const valid = readImage( place.index, raw );
   sassert( valid, "entry.valid() == true" );
   sassert( raw.chipId == chipId.value(), "entry.chipId() == chipId" );
   sassert( Vellum::equalShort( key, keyOf( raw ), keyLengthBytes_ ),
            "memcmp( key, entry.key().bytes().bytesPtr(), tableHelper()->keyLengthBytes() ) == 0" );
   Vellum::copyShort( result, resultOf( raw, keyLengthBytes_ ), resultLengthBytes_ );
   return true;
}

void EmShadowTable::deleteAll( Brine::ChipId chipId ) {
   for ( U64 at = keyToSlot_->next( 0 ); at != KeyToSlotMap::nowhere;
         at = keyToSlot_->next( at + 1 ) ) {
      deleteOnChip( chipId, at );
   }
}

void EmShadowTable::deleteOnChip( Brine::ChipId chipId, U64 keyPosition ) {
   EntryKey const key = keyToSlot_->keyAt( keyPosition );
   bool const present = KeyToSlotMap::isStray( keyPosition ) ||
                        keyToSlot_->whereAt( keyPosition ).indexOn( chipId ).valid();
   if ( present ) {
      deletePair( chipId, key );
   }
}

void EmShadowTable::deletePair( Brine::ChipId chipId, EntryKey const& key ) {
   EmTableIndex const index = keyToSlot_->index( chipId, key );
   U32 const slots = std::min( numEntries_, bitmap().size() );
   // A caller may have set a key or an index that no image of this table can have.
   if ( key.bytes().size() != keyLengthBytes_ || index.value() >= slots ) {
      keyToSlot_->indexDel( chipId, key );
   } else {
      entryDel( chipId, key.bytes().bytesPtr() );
   }
}

void EmShadowTable::clearTable() {
   for ( U64 at = keyToSlot_->next( 0 ); at != KeyToSlotMap::nowhere;
         at = keyToSlot_->next( at + 1 ) ) {
      if ( !KeyToSlotMap::isStray( at ) ) {
         deleteOnAllChips( at );
      }
   }
   keyToSlot_->delStrays();
}

void EmShadowTable::deleteOnAllChips( U64 keyPosition ) {
   // The copy of the key and the reference on its object outlive the removals.
   EntryKey const key = keyToSlot_->keyAt( keyPosition );
   SlotOrObject const where = keyToSlot_->whereAt( keyPosition );
   if ( !where.isObject() ) {
      deletePair( where.chip(), key );
      return;
   }
   Corvo::Ptr<EmTableFapIndices> const indices( where.object() );
   for ( U32 chip = indices->nextChip( 0 ); chip < 256; chip = indices->nextChip( chip + 1 ) ) {
      deletePair( Brine::ChipId( static_cast<U8>( chip ) ), key );
   }
   // What is left has no slots: an object that a caller emptied, or filled with invalid indices.
   keyToSlot_->objectDel( key );
}

// -------------------------------------------------------------------- the map from keys to slots

Corvo::Ptr<EmTableFapIndices> EmShadowTable::keyToIndexList( EntryKey const& key ) const {
   return keyToSlot_->object( key );
}

void EmShadowTable::keyToIndexListIs( EntryKey const& key,
                                      Corvo::Ptr<EmTableFapIndices> const& indices ) {
   keyToSlot_->objectIs( key, indices );
}

Corvo::Ptr<EmTableFapIndices> EmShadowTable::keyToIndexListDel( EntryKey const& key ) {
   return keyToSlot_->objectDel( key );
}

void EmShadowTable::keyToIndexListDelAll() {
   keyToSlot_->delAll();
}

bool EmShadowTable::keyToIndexListHas( EntryKey const& key ) const {
   return keyToSlot_->has( key );
}

U64 EmShadowTable::keyToIndexListCount() const {
   return keyToSlot_->count();
}

U64 EmShadowTable::keyToIndexListCapacity() const {
   return keyToSlot_->capacity();
}

EmShadowTable::KeyCursor EmShadowTable::keyToIndexListCursor() const {
   return { *this, keyToSlot_->next( 0 ) };
}

EmShadowTable::KeyCursor EmShadowTable::keyToIndexListCursor( EntryKey const& key ) const {
   return { *this, keyToSlot_->positionOf( key ) };
}

bool EmShadowTable::KeyCursor::onMember() const {
   return position_ != KeyToSlotMap::nowhere && table_->keyToSlot_->next( position_ ) == position_;
}

EntryKey EmShadowTable::KeyCursor::key() const {
   return table_->keyToSlot_->keyAt( position_ );
}

Corvo::Ptr<EmTableFapIndices> EmShadowTable::KeyCursor::value() const {
   return table_->keyToIndexList( key() );
}

void EmShadowTable::KeyCursor::advance() {
   if ( position_ != KeyToSlotMap::nowhere ) {
      position_ = table_->keyToSlot_->next( position_ + 1 );
   }
}

EmTableIndex EmShadowTable::getTableIndex( Brine::ChipId chipId, EntryKey const& key ) const {
   EmTableIndex const found = keyToSlot_->index( chipId, key );
   traceLookup( chipId, found );
   return found;
}

void EmShadowTable::updateTableIndex( Brine::ChipId chipId,
                                      EntryKey const& key,
                                      EmTableIndex index ) {
   traceUpdate( chipId, index );
   sassert( index.valid(), "index.valid()" );
   keyToSlot_->indexIs( chipId, key, index );
}

void EmShadowTable::deleteTableIndex( Brine::ChipId chipId, EntryKey const& key ) {
   traceDelete( chipId );
   keyToSlot_->indexDel( chipId, key );
}

// --------------------------------------------------------------------------------------- slots

void EmShadowTable::checkSlot( EmTableIndex index, char const* operation ) const {
   sassert( index.value() < numEntries_,
            { "index.value() < tableHelper()->numEntries()", operation },
            "Table ",
            tableName(),
            " has ",
            numEntries_,
            " slots; index ",
            index );
}

HBitmap& EmShadowTable::bitmap( Weft::ContractSite site ) const {
   sassert( bool( freeIndexBmp_ ), site );
   return *freeIndexBmp_;
}

Corvo::Ptr<HBitmap>
EmShadowTable::freeIndexBmpIs( U64 id, U32 size, HBitmap::BitState initialBitState ) {
   bool const asAsked = freeIndexBmp_ && freeIndexBmp_->id() == id &&
                        freeIndexBmp_->size() == size &&
                        freeIndexBmp_->initialBitState() == initialBitState;
   if ( !asAsked ) {
      freeIndexBmp_ = Corvo::makePtr<HBitmap>( id, size, initialBitState );
   }
   return freeIndexBmp_;
}

Corvo::Ptr<HBitmap> EmShadowTable::freeIndexBmpDel() {
   return std::move( freeIndexBmp_ );
}

U32 EmShadowTable::numUsedEntriesByChipIdInc( Brine::ChipId chip, U32 amount ) {
   U32 const count = usedByChip_.count( chip ) + amount;
   numUsedEntriesByChipIdIs( chip, count );
   return count;
}

U32 EmShadowTable::numUsedEntriesByChipIdDec( Brine::ChipId chip, U32 amount ) {
   U32 const count = usedByChip_.count( chip ) - amount;
   numUsedEntriesByChipIdIs( chip, count );
   return count;
}

EmTableIndex EmShadowTable::alloc() {
   HBitmap& free = bitmap();
   U32 const slot = free.findBitInSetState( HBitmap::IndexPreference::lowest );
   if ( slot >= numEntries_ ) { // none, or one that only a bitmap of another size has
      return {};
   }
   free.clearBit( slot );
   emTableTrace( 7, "ManagedEmTable::", "alloc", " index:", slot );
   return EmTableIndex( slot );
}

void EmShadowTable::free( EmTableIndex index ) {
   traceSlot( "free", index );
   sassert( index.valid(), "index.valid()" );
   checkSlot( index );
   bitmap().setBit( index.value() );
}

void EmShadowTable::markIndexUsed( EmTableIndex index ) {
   traceSlot( "markIndexUsed", index );
   checkSlot( index );
   bitmap().clearBit( index.value() );
}

void EmShadowTable::writeImage( EmTableIndex index,
                                Brine::ChipId chipId,
                                Weft::CharPtrConst key,
                                Weft::CharPtrConst result ) {
   traceWrite( "writeToVellumMemory", index, chipId );
   checkSlot( index, "writeToVellumMemory" );
   traceImageCopy( "copyToBuf", keyLengthBytes_, resultLengthBytes_ );
   EmTableEntryRaw raw = emptyImageOf( chipId );
   Vellum::copyShort( keyOf( raw ), key, keyLengthBytes_ );
   Vellum::copyShort( resultOf( raw, keyLengthBytes_ ), result, resultLengthBytes_ );
   doWriteVellum( offsetOf( index ), bytesOf( raw ), entryLengthBytes_ );
}

void EmShadowTable::writeEntry( EmTableIndex index,
                                EmTableEntry const& entry,
                                char const* operation ) {
   checkSlot( index, operation );
   EmTableEntryRaw raw;
   entry.copyToBuf( &raw, keyLengthBytes_, resultLengthBytes_ );
   doWriteVellum( offsetOf( index ), bytesOf( raw ), entryLengthBytes_ );
}

void EmShadowTable::writeToVellumMemory( EmTableIndex index,
                                         Brine::ChipId chipId,
                                         EntryKey const& key,
                                         EntryResult const& result ) {
   traceWrite( "writeToVellumMemory", index, chipId );
   writeEntry( index, EmTableEntry( true, chipId, key, result ), "writeToVellumMemory" );
}

void EmShadowTable::writeToShadowMemory( EmTableIndex index,
                                         Brine::ChipId chipId,
                                         EntryKey const& key,
                                         EntryResult const& result ) {
   traceWrite( "writeToShadowMemory", index, chipId );
   writeEntry( index, EmTableEntry( true, chipId, key, result ), "writeToShadowMemory" );
}

void EmShadowTable::invalidateVellumMemory( EmTableIndex index ) {
   traceSlot( "invalidateVellumMemory", index );
   writeEntry( index, EmTableEntry(), "invalidateVellumMemory" );
}

bool EmShadowTable::readImage( EmTableIndex index, EmTableEntryRaw& raw ) const {
   traceSlot( "readFromVellumMemory", index );
   checkSlot( index, "readFromVellumMemory" );
   bool const visible = readVisible( offsetOf( index ), bytesOf( raw ), entryLengthBytes_ );
   traceImageCopy( "copyFromBuf", keyLengthBytes_, resultLengthBytes_ );
   if ( !visible || raw.valid == 0 ) {
      return false;
   }
   checkKeySize( keyLengthBytes_ );
   checkResultSize( resultLengthBytes_ );
   return true;
}

EmTableEntry EmShadowTable::readFromVellumMemory( EmTableIndex index ) const {
   EmTableEntryRaw raw;
   if ( !readImage( index, raw ) ) {
      return {};
   }
   return { true,
            Brine::ChipId( raw.chipId ),
            EntryKey( Corvo::Bytes( keyOf( raw ), keyLengthBytes_ ) ),
            EntryResult( Corvo::Bytes( resultOf( raw, keyLengthBytes_ ), resultLengthBytes_ ) ) };
}

void EmShadowTable::cleanupIndex( EmTableIndex index ) {
   checkSlot( index );
   sassert( index.value() < bitmap().size(), "index.value() < freeIndexBmp()->size()" );
   invalidateVellumMemory( index );
   free( index );
}

} // namespace Tessel
