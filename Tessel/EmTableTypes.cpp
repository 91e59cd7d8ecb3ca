// SPDX-License-Identifier: Apache-2.0
#include "Tessel/EmTable.h"

#include "Brine/BrineTypes.h"
#include "WeftCorvo/Describe.h"

namespace Tessel {

Weft::TypeData EmTableFapIndices::typeData() const {
   return { &_EmTable_bcf6a80e77543269_weftModule, 1 };
}

Weft::TypeData EmShadowTableReader::typeData() const {
   return { &_EmTable_bcf6a80e77543269_weftModule, 4 };
}

Weft::TypeData EmShadowTable::typeData() const {
   return { &_EmTable_bcf6a80e77543269_weftModule, 5 };
}

EmTableIndex::EmTableIndex( Weft::CharRange stringForm )
      : value_( WeftCorvo::readAttribute<U32>( stringForm, "Tessel::EmTableIndex", "value" ) ) {}

EmTableEntry::EmTableEntry( Weft::CharRange stringForm ) {
   WeftCorvo::readAttributes( stringForm,
                              "Tessel::EmTableEntry",
                              "valid",
                              valid_,
                              "chipId",
                              chipId_,
                              "key",
                              key_,
                              "result",
                              result_ );
}

EmShadowTableIteratorConst::EmShadowTableIteratorConst( Weft::CharRange stringForm ) {
   WeftCorvo::AttributeReader reader( stringForm, "Tessel::EmShadowTableIteratorConst" );
   tableIs( reader.value<Corvo::Ptr<ManagedTableBase const>>( "table" ) );
   if ( reader.value<bool>( "done" ) ) {
      doneIs();
   }
   reader.read( "emTable", emTable_ )
      .read( "currentIndex", currentIndex_ )
      .read( "currentEntry", currentEntry_ );
   reader.end();
   if ( emTable_ && table() && !emTable_->sameLengths( *table() ) ) {
      stringForm.refuse( "the keys or results of table and emTable differ in length" );
   }
}

std::ostream& operator<<( std::ostream& stream, EmTableEntry const& entry ) {
   return stream << WeftCorvo::stringForm( entry );
}

std::ostream& operator<<( std::ostream& stream, EmShadowTableIteratorConst const& iterator ) {
   return stream << WeftCorvo::stringForm( iterator );
}

namespace {

/// A walk over a collection keyed by chip, in the order of the chips. It asks the collection anew at
/// every step, so members may come and go as it does.
template<class Owner, auto next, auto read>
class ChipCursor {
 public:
   ChipCursor( Owner const& owner, Brine::ChipId const* chip )
         : owner_( &owner ), chip_( chip ? chip->value() : std::invoke( next, owner, U32{ 0 } ) ) {}

   bool onMember() const { return chip_ < 256 && std::invoke( next, *owner_, chip_ ) == chip_; }
   Brine::ChipId key() const { return Brine::ChipId( static_cast<U8>( chip_ ) ); }
   auto value() const { return std::invoke( read, *owner_, key() ); }
   void advance() {
      if ( chip_ < 256 ) {
         chip_ = std::invoke( next, *owner_, chip_ + 1 );
      }
   }

 private:
   Owner const* owner_;
   U32 chip_;
};

using SlotWalk =
   ChipCursor<EmTableFapIndices, &EmTableFapIndices::nextChip, &EmTableFapIndices::index>;
using CountWalk = ChipCursor<EmShadowTable,
                             &EmShadowTable::numUsedEntriesByChipIdNext,
                             &EmShadowTable::numUsedEntriesByChipId>;

void describeValues( Weft::TypeList& types ) {
   WeftCorvo::valueType<EmTableIndex>( types, "Tessel::EmTableIndex" )
      .constructor<U32>( "value" )
      .constant( "value", &EmTableIndex::value )
      .fixedValue( "invalid", U32{ EmTableIndex::invalid } )
      .opConst( "valid", &EmTableIndex::valid );
   WeftCorvo::entityType<EmTableFapIndices>( types, "Tessel::EmTableFapIndices" )
      .creator( &EmTableFapIndices::EmTableFapIndicesIs )
      .collection( "index",
                   &EmTableFapIndices::index,
                   &EmTableFapIndices::indexIs,
                   &EmTableFapIndices::indexDel,
                   &EmTableFapIndices::indexCount,
                   &EmTableFapIndices::indexCapacity,
                   &EmTableFapIndices::indexHas,
                   []( EmTableFapIndices const& indices, Brine::ChipId const* chip ) {
                      return SlotWalk( indices, chip );
                   } );
   WeftCorvo::valueType<EmTableEntry>( types, "Tessel::EmTableEntry" )
      .constructor<bool, Brine::ChipId, EntryKey, EntryResult>( "valid", "chipId", "key", "result" )
      .state( "valid", &EmTableEntry::valid, &EmTableEntry::validIs )
      .state( "chipId", &EmTableEntry::chipId, &EmTableEntry::chipIdIs )
      .state( "key", &EmTableEntry::key, &EmTableEntry::keyIs )
      .state( "result", &EmTableEntry::result, &EmTableEntry::resultIs )
      .unhashable();
}

void describeReadSide( Weft::TypeList& types ) {
   using Iterator = EmShadowTableIteratorConst;
   WeftCorvo::valueType<Iterator, ManagedTableIteratorConst>( types,
                                                              "Tessel::EmShadowTableIteratorConst" )
      .constructor<Corvo::Ptr<ManagedTableBase const>>( "table" )
      .state( "emTable", &Iterator::emTable, &Iterator::emTableIs )
      .state( "currentIndex", &Iterator::currentIndex, &Iterator::currentIndexIs )
      .state( "currentEntry", &Iterator::currentEntry, &Iterator::currentEntryIs )
      .op( "handleInitialized", &Iterator::handleInitialized )
      .unhashable();
   using Reader = EmShadowTableReader;
   WeftCorvo::entityType<Reader, ManagedTableReader>( types, "Tessel::EmShadowTableReader" )
      .creator( &Reader::EmShadowTableReaderIs, "table" )
      .hidden<Corvo::Ptr<EmShadowTable const>>( "emShadowTable" )
      .hiddenOp( "readByIndex", &Reader::readByIndex, "chipId", "key" )
      .hiddenOp( "entryValid", &Reader::entryValid, "entry", "chipId", "key" )
      .op( "handleInitialized", &Reader::handleInitialized );
}

void describeTable( Weft::TypeList& types ) {
   using Table = EmShadowTable;
   WeftCorvo::entityType<Table, ManagedTableBase>( types, "Tessel::EmShadowTable" )
      .creator( &Table::EmShadowTableIs, "tableName", "tableHelper", "vellumChunk", "vellumOffset" )
      .hiddenOp(
         "writeToShadowMemory", &Table::writeToShadowMemory, "index", "chipId", "key", "result" )
      .op( "cleanupIndex", &Table::cleanupIndex, "index" )
      .hiddenOp( "entryLengthBytes", &Table::entryLengthBytes )
      .collection( "keyToIndexList",
                   &Table::keyToIndexList,
                   &Table::keyToIndexListIs,
                   &Table::keyToIndexListDel,
                   &Table::keyToIndexListCount,
                   &Table::keyToIndexListCapacity,
                   &Table::keyToIndexListHas,
                   []( Table const& table, EntryKey const* key ) {
                      return key ? table.keyToIndexListCursor( *key )
                                 : table.keyToIndexListCursor();
                   } )
      .stateWithArguments( "freeIndexBmp",
                           &Table::freeIndexBmp,
                           &Table::freeIndexBmpIs,
                           &Table::freeIndexBmpDel,
                           "id",
                           "size",
                           "initialBitState" )
      .state( "numUsedEntries", &Table::numUsedEntries, &Table::numUsedEntriesIs )
      .collection(
         "numUsedEntriesByChipId",
         &Table::numUsedEntriesByChipId,
         &Table::numUsedEntriesByChipIdIs,
         &Table::numUsedEntriesByChipIdDel,
         &Table::numUsedEntriesByChipIdCount,
         []( Table const& ) { return ChipCounts::capacity; },
         &Table::numUsedEntriesByChipIdHas,
         []( Table const& table, Brine::ChipId const* chip ) { return CountWalk( table, chip ); } )
      .hiddenOp( "markIndexUsed", &Table::markIndexUsed, "index" )
      .hiddenOp( "alloc", &Table::alloc )
      .hiddenOp( "free", &Table::free, "index" )
      .hiddenOp( "getTableIndex", &Table::getTableIndex, "chipId", "key" )
      .hiddenOp( "updateTableIndex", &Table::updateTableIndex, "chipId", "key", "index" )
      .hiddenOp( "deleteTableIndex", &Table::deleteTableIndex, "chipId", "key" )
      .op( "reconcile", &Table::reconcile )
      .hiddenOp(
         "writeToVellumMemory", &Table::writeToVellumMemory, "index", "chipId", "key", "result" )
      .hiddenOp( "invalidateVellumMemory", &Table::invalidateVellumMemory, "index" )
      .hiddenOp( "readFromVellumMemory", &Table::readFromVellumMemory, "index" )
      .op( "handleInitialized", &Table::handleInitialized );
}

void describe( Weft::TypeList& types ) {
   describeValues( types );
   describeReadSide( types );
   describeTable( types );
}

} // namespace

} // namespace Tessel

constinit Weft::Module const _EmTable_bcf6a80e77543269_weftModule( "EmTable", Tessel::describe );

namespace {

[[gnu::init_priority( 2005 )]] Weft::ModuleRegistration const
   registration( _EmTable_bcf6a80e77543269_weftModule );

} // namespace
