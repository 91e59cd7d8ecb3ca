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
      .doc( "The number of a slot, or none." )
      .constructor<U32>( "value" )
      .constant( "value", &EmTableIndex::value )
      .doc( "The slot; 0xffffffff for none." )
      .fixedValue( "invalid", U32{ EmTableIndex::invalid } )
      .doc( "The value that means no slot." )
      .opConst( "valid", &EmTableIndex::valid )
      .doc( "Whether it names a slot." );
   WeftCorvo::entityType<EmTableFapIndices>( types, "Tessel::EmTableFapIndices" )
      .doc( "The slots of one key, by chip." )
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
                   } )
      .doc( "The slot on each chip." );
   WeftCorvo::valueType<EmTableEntry>( types, "Tessel::EmTableEntry" )
      .doc( "One entry, in the memory of the process." )
      .constructor<bool, Brine::ChipId, EntryKey, EntryResult>( "valid", "chipId", "key", "result" )
      .state( "valid", &EmTableEntry::valid, &EmTableEntry::validIs )
      .doc( "Whether it holds an entry." )
      .state( "chipId", &EmTableEntry::chipId, &EmTableEntry::chipIdIs )
      .doc( "Its chip." )
      .state( "key", &EmTableEntry::key, &EmTableEntry::keyIs )
      .doc( "Its key." )
      .state( "result", &EmTableEntry::result, &EmTableEntry::resultIs )
      .doc( "Its result." )
      .unhashable();
}

void describeReadSide( Weft::TypeList& types ) {
   using Iterator = EmShadowTableIteratorConst;
   WeftCorvo::valueType<Iterator, ManagedTableIteratorConst>( types,
                                                              "Tessel::EmShadowTableIteratorConst" )
      .doc( "A cursor over the entries of one exact-match table, in slot order." )
      .constructor<Corvo::Ptr<ManagedTableBase const>>( "table" )
      .state( "emTable", &Iterator::emTable, &Iterator::emTableIs )
      .doc( "The table that it walks, as an exact-match table." )
      .state( "currentIndex", &Iterator::currentIndex, &Iterator::currentIndexIs )
      .doc( "The slot on which it stands." )
      .state( "currentEntry", &Iterator::currentEntry, &Iterator::currentEntryIs )
      .doc( "The entry on which it stands." )
      .op( "handleInitialized", &Iterator::handleInitialized )
      .doc( "The last step of construction: goes to the next entry." )
      .unhashable();
   using Reader = EmShadowTableReader;
   WeftCorvo::entityType<Reader, ManagedTableReader>( types, "Tessel::EmShadowTableReader" )
      .doc( "Looks entries up in an exact-match table and checks every image before it trusts it." )
      .creator( &Reader::EmShadowTableReaderIs, "table" )
      .hidden<Corvo::Ptr<EmShadowTable const>>( "emShadowTable" )
      .hiddenOp( "readByIndex", &Reader::readByIndex, "chipId", "key" )
      .hiddenOp( "entryValid", &Reader::entryValid, "entry", "chipId", "key" )
      .op( "handleInitialized", &Reader::handleInitialized )
      .doc( "The last step of construction." );
}

void describeTable( Weft::TypeList& types ) {
   using Table = EmShadowTable;
   WeftCorvo::entityType<Table, ManagedTableBase>( types, "Tessel::EmShadowTable" )
      .doc( "An exact-match table: (chip, key) to result, in images that outlive the process." )
      .creator( &Table::EmShadowTableIs, "tableName", "tableHelper", "vellumChunk", "vellumOffset" )
      .lengthy()
      .hiddenOp(
         "writeToShadowMemory", &Table::writeToShadowMemory, "index", "chipId", "key", "result" )
      .op( "cleanupIndex", &Table::cleanupIndex, "index" )
      .doc( "Wipes the image in a slot and frees the slot." )
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
      .doc( "The slots of each key, by chip." )
      .stateWithArguments( "freeIndexBmp",
                           &Table::freeIndexBmp,
                           &Table::freeIndexBmpIs,
                           &Table::freeIndexBmpDel,
                           "id",
                           "size",
                           "initialBitState" )
      .doc( "The free slots: a set bit each." )
      .state( "numUsedEntries", &Table::numUsedEntries, &Table::numUsedEntriesIs )
      .doc( "Slots in use." )
      .collection(
         "numUsedEntriesByChipId",
         &Table::numUsedEntriesByChipId,
         &Table::numUsedEntriesByChipIdIs,
         &Table::numUsedEntriesByChipIdDel,
         &Table::numUsedEntriesByChipIdCount,
         []( Table const& ) { return ChipCounts::capacity; },
         &Table::numUsedEntriesByChipIdHas,
         []( Table const& table, Brine::ChipId const* chip ) { return CountWalk( table, chip ); } )
      .doc( "Slots in use, by chip." )
      .hiddenOp( "markIndexUsed", &Table::markIndexUsed, "index" )
      .hiddenOp( "alloc", &Table::alloc )
      .hiddenOp( "free", &Table::free, "index" )
      .hiddenOp( "getTableIndex", &Table::getTableIndex, "chipId", "key" )
      .hiddenOp( "updateTableIndex", &Table::updateTableIndex, "chipId", "key", "index" )
      .hiddenOp( "deleteTableIndex", &Table::deleteTableIndex, "chipId", "key" )
      .op( "reconcile", &Table::reconcile )
      .doc( "Takes over the entries that the images hold and the bookkeeping does not." )
      .lengthy()
      .hiddenOp(
         "writeToVellumMemory", &Table::writeToVellumMemory, "index", "chipId", "key", "result" )
      .hiddenOp( "invalidateVellumMemory", &Table::invalidateVellumMemory, "index" )
      .hiddenOp( "readFromVellumMemory", &Table::readFromVellumMemory, "index" )
      .op( "handleInitialized", &Table::handleInitialized )
      .doc( "The last step of construction: free slots, and the entries found in the range." )
      .lengthy();
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
