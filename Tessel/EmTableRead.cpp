// SPDX-License-Identifier: Apache-2.0
#include "Tessel/EmTableInternal.h"

namespace Tessel {

Weft::AllocTrackTypeInfo EmShadowTableReader::memAllocationTracker_;

bool EmShadowTable::sameLengths( ManagedTableBase const& other ) const {
   auto const geometry = other.tableHelper();
   return geometry && geometry->keyLengthBytes() == keyLengthBytes_ &&
          geometry->resultLengthBytes() == resultLengthBytes_;
}

namespace {

/// A table set by hand beside the one that callers take their lengths from.
void checkSameLengths( EmShadowTable const* table,
                       Corvo::Ptr<ManagedTableBase const> const& lengthsOf,
                       char const* operation = __builtin_FUNCTION() ) {
   sassert( !table || !lengthsOf || table->sameLengths( *lengthsOf ),
            { "table->sameLengths( *this->table() )", operation } );
}

} // namespace

// ------------------------------------------------------------------------- EmShadowTableReader

EmShadowTableReader::EmShadowTableReader( Corvo::Ptr<ManagedTableBase const> const& table )
      : ManagedTableReader( table ) {
   handleInitialized();
}

Corvo::Ptr<EmShadowTableReader>
EmShadowTableReader::EmShadowTableReaderIs( Corvo::Ptr<ManagedTableBase const> const& table ) {
   return Corvo::makePtr<EmShadowTableReader>( table );
}

Corvo::Ptr<EmShadowTableReader>
emShadowTableReaderFactory( Corvo::Ptr<ManagedTableBase const> const& table ) {
   return EmShadowTableReader::EmShadowTableReaderIs( table );
}

void EmShadowTableReader::handleInitialized() {
   auto exactMatch = Corvo::dynamicPtr<EmShadowTable const>( table() );
   if ( !exactMatch ) {
      sassert.refuse( "emShadowTable()",
                      "Table ",
                      table() ? table()->tableName() : Corvo::String( "(null)" ),
                      " is not an EmShadowTable" );
   }
   emShadowTable_ = std::move( exactMatch );
}

void EmShadowTableReader::emShadowTableIs( Corvo::Ptr<EmShadowTable const> const& table ) {
   checkSameLengths( table.get(), this->table() );
   emShadowTable_ = table;
}

EmShadowTable const& EmShadowTableReader::emTable( Weft::ContractSite site ) const {
   sassert( bool( emShadowTable_ ), site );
   return *emShadowTable_;
}

EmTableEntry EmShadowTableReader::readByIndex( Brine::ChipId chipId,
                                               Weft::CharPtrConst key ) const {
   EmShadowTable const& table = emTable();
   if ( !table.entryHas( chipId, key ) ) {
      return {};
   }
   EmTableIndex const index =
      table.getTableIndex( chipId, makeEmTableKey( key, table.tableHelper()->keyLengthBytes() ) );
   sassert( index.valid(), "index.valid()" );
   return table.readFromVellumMemory( index );
}

bool EmShadowTableReader::entryValid( EmTableEntry const& entry,
                                      Brine::ChipId chipId,
                                      Weft::CharPtrConst key ) const {
   U32 const keyLength = emTable().tableHelper()->keyLengthBytes();
   Corvo::Bytes const& entryKey = entry.key().bytes();
   return entry.valid() && entry.chipId() == chipId && entryKey.size() >= keyLength &&
          Vellum::equalShort( key, entryKey.bytesPtr(), keyLength );
}

bool EmShadowTableReader::entryHas( Brine::ChipId chipId, Weft::CharPtrConst key ) const {
   emTableTrace( 0, "EmShadowTableReader::", "entryHas", " chipId:", chipId );
   return entryValid( readByIndex( chipId, key ), chipId, key );
}

bool EmShadowTableReader::entry( Brine::ChipId chipId,
                                 Weft::CharPtrConst key,
                                 Weft::CharPtr result ) const {
   emTableTrace( 0, "EmShadowTableReader::", "entry", " chipId:", chipId );
   EmTableEntry const found = readByIndex( chipId, key );
   if ( !entryValid( found, chipId, key ) ) {
      return false;
   }
   Corvo::Bytes const& bytes = found.result().bytes();
   Vellum::copyShort( result, bytes.bytesPtr(), bytes.size() );
   return true;
}

// ------------------------------------------------------------------ EmShadowTableIteratorConst

EmShadowTableIteratorConst::EmShadowTableIteratorConst(
   Corvo::Ptr<ManagedTableBase const> const& table )
      : ManagedTableIteratorConst( table ) {
   handleInitialized();
}

void EmShadowTableIteratorConst::handleInitialized() {
   auto exactMatch = Corvo::dynamicPtr<EmShadowTable const>( table() );
   sassert( bool( exactMatch ), "emTable()" );
   emTable_ = std::move( exactMatch );
   doInc();
}

void EmShadowTableIteratorConst::emTableIs( Corvo::Ptr<EmShadowTable const> const& table ) {
   checkSameLengths( table.get(), this->table() );
   emTable_ = table;
}

void EmShadowTableIteratorConst::doInc() {
   if ( done() ) {
      return;
   }
   sassert( bool( emTable_ ), "emTable()" );
   U32 const numEntries = emTable_->numEntries_;
   if ( currentIndex_ >= numEntries ) {
      doneIs();
      return;
   }
   sassert( bool( emTable_->freeIndexBmp_ ), "emTable()->freeIndexBmp()" );
   U32 const slot = emTable_->freeIndexBmp_->findClearBitInRange(
      currentIndex_, numEntries - 1, Brine::HBitmap::IndexPreference::lowest );
   if ( slot == Brine::HBitmap::invalidIndex ) {
      doneIs();
      return;
   }
   emTable_->readEntry( EmTableIndex( slot ), currentEntry_ );
   currentIndex_ = slot + 1;
}

bool EmShadowTableIteratorConst::key( Weft::CharPtr keyBuf ) const {
   return give( currentEntry_.key().bytes(), &EmShadowTable::keyLengthBytes_, keyBuf );
}

bool EmShadowTableIteratorConst::result( Weft::CharPtr resultBuf ) const {
   return give( currentEntry_.result().bytes(), &EmShadowTable::resultLengthBytes_, resultBuf );
}

bool EmShadowTableIteratorConst::give( Corvo::Bytes const& bytes,
                                       U32 EmShadowTable::*lengthInTable,
                                       Weft::CharPtr target,
                                       char const* operation ) const {
   if ( done() ) {
      return false;
   }
   sassert( bool( emTable_ ), { "emTable()", operation } );
   U32 const length = *emTable_.*lengthInTable;
   if ( !currentEntry_.valid() || bytes.size() < length ) {
      return false;
   }
   Vellum::copyShort( target, bytes.bytesPtr(), length );
   return true;
}

bool EmShadowTableIteratorConst::isEq( void const* a, void const* b ) {
   return *static_cast<EmShadowTableIteratorConst const*>( a ) ==
          *static_cast<EmShadowTableIteratorConst const*>( b );
}

bool EmShadowTableIteratorConst::sameAs( ManagedTableIteratorConst const& other ) const {
   auto const* const same = dynamic_cast<EmShadowTableIteratorConst const*>( &other );
   return same && emTable_ == same->emTable_ && currentIndex_ == same->currentIndex_ &&
          currentEntry_ == same->currentEntry_;
}

std::unique_ptr<ManagedTableIteratorConst> EmShadowTableIteratorConst::clone() const {
   return std::make_unique<EmShadowTableIteratorConst>( *this );
}

ManagedTableIteratorConst EmShadowTable::managedTableIteratorConst() const {
   return ManagedTableIteratorConst::of(
      std::make_unique<EmShadowTableIteratorConst>( Corvo::Ptr<ManagedTableBase const>( this ) ) );
}

} // namespace Tessel
