// SPDX-License-Identifier: Apache-2.0
#include "Tessel/EmTable.h"

#include "Tessel/EmTableCode.h"
#include "Tessel/EmTableSlotWork.h"
#include "Tessel/KeyToSlotMap.h"

namespace Tessel {

Weft::AllocTrackTypeInfo EmShadowTable::memAllocationTracker_;
Weft::TraceHelper const emTableTrace{ "TesselEmTable" };

namespace {

using Brine::HBitmap;

constexpr U64 addressableBytes = U64{ 1 } << 32;

U64 slotLength( TableHelper const& geometry ) {
   return imageLength<U64>( geometry.keyLengthBytes(), geometry.resultLengthBytes() );
}

void traceWrite( char const* operation, EmTableIndex index, Brine::ChipId chipId ) {
   emTableTrace(
      { 7, operation }, "EmShadowTable::", operation, " index:", index, " chipId:", chipId );
}

} // namespace

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
      rangeSizeIs( rangeBytes( *geometry ) );
      code_ = Code::untraced( keyLengthBytes_, resultLengthBytes_ );
      tracedCode_ = Code::traced( keyLengthBytes_ );
   }
   if ( hasBitmap( 0, numEntries_, HBitmap::BitState::allSet ) ) {
      reconcile();
      return;
   }
   auto bitmap = Corvo::makePtr<HBitmap>( U64{ 0 }, numEntries_, HBitmap::BitState::allSet );
   countAfresh( std::exchange( freeIndexBmp_, std::move( bitmap ) ) );
}

/// Reconciles with a new bitmap. In that no slot is marked, so none may be counted either; and where
/// the images cannot be read, an empty bitmap beside a filled map would give their slots away.
void EmShadowTable::countAfresh( Corvo::Ptr<HBitmap> const& formerBitmap ) {
   U32 const formerCount = std::exchange( numUsedEntries_, 0 );
   ChipCounts const formerCounts = usedByChip_;
   usedByChip_.countsAreZero();
   try {
      reconcile();
   } catch ( ... ) {
      freeIndexBmp_ = formerBitmap;
      numUsedEntries_ = formerCount;
      usedByChip_ = formerCounts;
      throw;
   }
}

void EmShadowTable::reconcile() {
   emTableTrace( 7, "EmShadowTable::reconcile" );
   bitmap();
   code().reconcile( *this );
}

// ------------------------------------------------------------------------------------- entries

EmShadowTable::Code const& EmShadowTable::tracedCode() const {
   return *tracedCode_;
}

inline EmShadowTable::Code const& EmShadowTable::code() const {
   // A call, so that the compiler makes no selection of it, for which every operation would wait.
   return emTableTrace.enabled() ? tracedCode() : *code_;
}

bool EmShadowTable::isFull() const {
   return numUsedEntries_ >= numEntries_;
}

U32 EmShadowTable::tableShadowSize() const {
   return entryLengthBytes_ * numEntries_;
}

bool EmShadowTable::entryIs( Brine::ChipId chipId,
                             Weft::CharPtrConst key,
                             Weft::CharPtrConst result ) {
   return code().entryIs( *this, chipId, key, result );
}

void EmShadowTable::entryDel( Brine::ChipId chipId, Weft::CharPtrConst key ) {
   code().entryDel( *this, chipId, key );
}

bool EmShadowTable::entryHas( Brine::ChipId chipId, Weft::CharPtrConst key ) const {
   return code().entryHas( *this, chipId, key );
}

bool EmShadowTable::entry( Brine::ChipId chipId,
                           Weft::CharPtrConst key,
                           Weft::CharPtr result ) const {
   return code().entry( *this, chipId, key, result );
}

namespace {

bool* checkedAnswers( std::span<bool> answers, std::size_t pairs, char const* operation ) {
   sassert( answers.empty() || answers.size() == pairs,
            { "answers.empty() || answers.size() == pairs.size()", operation } );
   return answers.empty() ? nullptr : answers.data();
}

} // namespace

U64 EmShadowTable::entryIsBulk( std::span<EmPairAndResult const> pairs, std::span<bool> answers ) {
   return code().entryIsBulk(
      *this, pairs, checkedAnswers( answers, pairs.size(), "entryIsBulk" ) );
}

U64 EmShadowTable::entryDelBulk( std::span<EmPair const> pairs, std::span<bool> answers ) {
   return code().entryDelBulk(
      *this, pairs, checkedAnswers( answers, pairs.size(), "entryDelBulk" ) );
}

U64 EmShadowTable::entryHasBulk( std::span<EmPair const> pairs, std::span<bool> answers ) const {
   return code().entryHasBulk(
      *this, pairs, checkedAnswers( answers, pairs.size(), "entryHasBulk" ) );
}

U64 EmShadowTable::entryBulk( std::span<EmPairAndBuffer const> pairs,
                              std::span<bool> answers ) const {
   return code().entryBulk( *this, pairs, checkedAnswers( answers, pairs.size(), "entryBulk" ) );
}

void EmShadowTable::deleteAll( Brine::ChipId chipId ) {
   return code().deleteAll( *this, chipId );
}

void EmShadowTable::clearTable() {
   return code().clearTable( *this );
}

// -------------------------------------------------------------------- the map from keys to slots

Corvo::Ptr<EmTableFapIndices> EmShadowTable::keyToIndexList( EntryKey const& key ) const {
   trustIsLost(); // a caller may change it at any time
   return keyToSlot_->object( key );
}

void EmShadowTable::keyToIndexListIs( EntryKey const& key,
                                      Corvo::Ptr<EmTableFapIndices> const& indices ) {
   trustIsLost();
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
   traceTableLookup( chipId, found );
   return found;
}

void EmShadowTable::updateTableIndex( Brine::ChipId chipId,
                                      EntryKey const& key,
                                      EmTableIndex index ) {
   traceTableUpdate( chipId, index );
   sassert( index.valid(), "index.valid()" );
   trustIsLost(); // the slot that is named need not hold an image
   keyToSlot_->indexIs( chipId, key, index );
}

void EmShadowTable::deleteTableIndex( Brine::ChipId chipId, EntryKey const& key ) {
   traceTableDelete( chipId );
   keyToSlot_->indexDel( chipId, key );
}

// --------------------------------------------------------------------------------------- slots

void EmShadowTable::refuseSlot( EmTableIndex index, char const* operation ) const {
   sassert.refuse( { "index.value() < tableHelper()->numEntries()", operation },
                   "Table ",
                   tableName(),
                   " has ",
                   numEntries_,
                   " slots; index ",
                   index );
}

void EmShadowTable::refuseWithoutBitmap( char const* operation ) const {
   sassert.refuse( { "freeIndexBmp()", operation } );
}

bool EmShadowTable::hasBitmap( U64 id, U32 size, HBitmap::BitState initialBitState ) const {
   return freeIndexBmp_ && freeIndexBmp_->id() == id && freeIndexBmp_->size() == size &&
          freeIndexBmp_->initialBitState() == initialBitState;
}

Corvo::Ptr<HBitmap>
EmShadowTable::freeIndexBmpIs( U64 id, U32 size, HBitmap::BitState initialBitState ) {
   trustIsLost(); // the bitmap that is returned may be changed at any time
   if ( !hasBitmap( id, size, initialBitState ) ) {
      freeIndexBmp_ = Corvo::makePtr<HBitmap>( id, size, initialBitState );
   }
   return freeIndexBmp_;
}

Corvo::Ptr<HBitmap> EmShadowTable::freeIndexBmpDel() {
   trustIsLost();
   return std::move( freeIndexBmp_ );
}

EmTableIndex EmShadowTable::alloc() {
   trustIsLost(); // the slot is in use, and the map does not name it
   return SlotWork<true, EmShadowTable>( *this ).takeSlot();
}

void EmShadowTable::free( EmTableIndex index ) {
   trustIsLost(); // the map may still name the slot
   SlotWork<true, EmShadowTable>( *this ).giveBackSlot( index );
}

void EmShadowTable::markIndexUsed( EmTableIndex index ) {
   trustIsLost(); // as alloc()
   SlotWork<true, EmShadowTable>( *this ).markSlotUsed( index );
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
   trustIsLost();
   SlotWork<true, EmShadowTable>( *this ).wipeImage( index );
}

EmTableEntry EmShadowTable::readFromVellumMemory( EmTableIndex index ) const {
   EmTableEntry entry;
   readEntry( index, entry );
   return entry;
}

void EmShadowTable::readEntry( EmTableIndex index, EmTableEntry& entry ) const {
   code().readEntry( *this, index, entry );
}

void EmShadowTable::cleanupIndex( EmTableIndex index ) {
   checkSlot( index );
   sassert( index.value() < bitmap().size(), "index.value() < freeIndexBmp()->size()" );
   invalidateVellumMemory( index );
   free( index );
}

} // namespace Tessel
