// SPDX-License-Identifier: Apache-2.0
#include "support/Contract.h"
#include "support/Tables.h"
#include "support/Traces.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace TestSupport;
using namespace Tessel;
using namespace std::string_literals;
using testing::ElementsAre;
using Iterator = EmShadowTableIteratorConst;

TEST( Reader, findsTheResultOfEachChip ) {
   auto const table = newTable();
   add( table, chip1, "AAAA", "r1" );
   add( table, chip3, "AAAA", "r3" );
   auto const reader = emShadowTableReaderFactory( table );
   EXPECT_EQ( lookUp( *reader, chip1, "AAAA" ), "r1" );
   EXPECT_EQ( lookUp( *reader, chip3, "AAAA" ), "r3" );
   EXPECT_EQ( lookUp( *reader, chip5, "AAAA" ), std::nullopt );
   EXPECT_TRUE( reader->entryHas( chip3, "AAAA" ) );
   EXPECT_EQ( textOf( reader->entry_py( chip3, bytesOf( "AAAA" ) ) ), "r3" );
   EXPECT_TRUE( reader->entryHas_py( chip3, bytesOf( "AAAA" ) ) );
   EXPECT_TRUE( reader->entry_py( chip5, bytesOf( "AAAA" ) ).empty() );
   table->entryDel( chip3, "AAAA" );
   EXPECT_FALSE( reader->entryHas( chip3, "AAAA" ) );
}

TEST( Reader, ofAnAbsentPairReadsADefaultEntryThatIsNeverValid ) {
   auto const reader = emShadowTableReaderFactory( newTable() );
   EmTableEntry const none = reader->readByIndex( chip3, "AAAA" );
   EXPECT_EQ( none, EmTableEntry() );
   EXPECT_FALSE( reader->entryValid( none, Brine::ChipId( 255 ), "AAAA" ) );
   EXPECT_FALSE(
      reader->entryValid( EmTableEntry( true, chip3, keyOf( "AA" ), {} ), chip3, "AAAA" ) )
      << "a shorter key is another key";
}

TEST( Reader, takesAnImageChangedBehindItsTableAsAbsent ) {
   auto const table = newTable();
   add( table, chip3, "AAAA", "r1" );
   auto const reader = emShadowTableReaderFactory( table );
   for ( auto const& image :
         { std::string( 8, '\0' ), "\1\3BAAAr2"s, "\1\3AAABr2"s, "\1\5AAAAr3"s, "\0\3AAAAr1"s } ) {
      table->vellumChunk()->write( 0, image.data(), 8 );
      EXPECT_FALSE( reader->entryHas( chip3, "AAAA" ) );
      EXPECT_EQ( lookUp( *reader, chip3, "AAAA" ), std::nullopt );
   }
   table->vellumChunk()->write( 0, "\3\3AAAAr4", 8 );
   EXPECT_EQ( lookUp( *reader, chip3, "AAAA" ), "r4" );
   auto const keyless = newTable( { .key = 0 } ); // a free image reads as chip 255 and no key
   add( keyless, Brine::ChipId( 255 ), "", "r1" );
   keyless->vellumChunk()->write( 0, std::string( 4, '\0' ).data(), 4 );
   EXPECT_FALSE( emShadowTableReaderFactory( keyless )->entryHas( Brine::ChipId( 255 ), "" ) );
}

TEST( Reader, writesTheResultAndNoByteMore ) {
   auto const table = newTable();
   add( table, chip3, "AAAA", "r1" );
   std::string buffer = "######";
   EXPECT_TRUE( emShadowTableReaderFactory( table )->entry( chip3, "AAAA", buffer.data() ) );
   EXPECT_EQ( buffer, "r1####" );
}

TEST( Reader, tracesItsTwoLookUps ) {
   auto const table = newTable();
   add( table, chip3, "AAAA", "r1" );
   auto const reader = emShadowTableReaderFactory( table );
   TraceRecorder trace( "TesselEmTable" );
   reader->entryHas( chip3, "AAAA" );
   EXPECT_EQ( trace.take(),
              thenReadingSlot0( { "EmShadowTableReader::entryHas chipId:3",
                                  "makeEmTableKey keySize:4",
                                  "EmShadowTable::getTableIndex chipId:3 index:0",
                                  "makeEmTableKey keySize:4",
                                  "EmShadowTable::getTableIndex chipId:3 index:0" } ) );
   lookUp( *reader, chip5, "AAAA" );
   EXPECT_THAT( trace.take(),
                ElementsAre( "EmShadowTableReader::entry chipId:5",
                             "makeEmTableKey keySize:4",
                             "EmShadowTable::getTableIndex non-existing key" ) );
}

TEST( Reader, ofATableOfAnotherKindOrOfNoneNamesIt ) {
   auto const direct =
      directShadowTableFactory( "vlan", tableHelperFactory( 1, 1, 1 ), nullptr, 0 );
   auto const other = contractFailure( [ & ] { emShadowTableReaderFactory( direct ); } );
   auto const none =
      contractFailure( [] { EmShadowTableReader::EmShadowTableReaderIs( nullptr ); } );
   ASSERT_TRUE( other && none );
   EXPECT_EQ( other->condition(), "emShadowTable()" );
   EXPECT_EQ( other->message(), "Table vlan is not an EmShadowTable" );
   EXPECT_EQ( other->module(), "EmTable" );
   EXPECT_EQ( none->message(), "Table (null) is not an EmShadowTable" );
   EXPECT_EQ( direct->useCount(), 1U );
}

TEST( Reader, holdsTwoReferencesOnItsTable ) {
   auto const table = newTable();
   {
      auto const reader = emShadowTableReaderFactory( table );
      EXPECT_EQ( table->useCount(), 3U );
      EXPECT_EQ( reader->table(), table );
      auto const other = newTable();
      reader->emShadowTableIs( other );
      EXPECT_EQ( table->useCount(), 2U );
      EXPECT_EQ( other->useCount(), 2U );
      reader->handleInitialized();
      EXPECT_EQ( reader->emShadowTable(), table );
   }
   EXPECT_EQ( table->useCount(), 1U );
}

/// A table with slots 3 and 7 of 10 used.
Table tableWithSlots3And7() {
   auto const chunk = Vellum::VellumChunk::inProcess( 80 );
   chunk->write( 24, "\1\3AAAAr3", 8 );
   chunk->write( 56, "\1\5BBBBr7", 8 );
   return tableOver( chunk, { .entries = 10 } );
}

TEST( Iterator, walksTheUsedSlotsUpwards ) {
   auto const table = tableWithSlots3And7();
   Iterator at( table );
   EXPECT_EQ( at.currentIndex(), 4U );
   EXPECT_EQ( at.currentEntry(), EmTableEntry( true, chip3, keyOf( "AAAA" ), resultOf( "r3" ) ) );
   at.doInc();
   EXPECT_TRUE( at );
   EXPECT_EQ( at.currentIndex(), 8U );
   EXPECT_EQ( at.chipId(), chip5 );
   std::string key = "######";
   std::string result = "####";
   EXPECT_TRUE( at.key( key.data() ) );
   EXPECT_TRUE( at.result( result.data() ) );
   EXPECT_EQ( key, "BBBB##" );
   EXPECT_EQ( result, "r7##" );
   for ( int i = 0; i < 2; ++i ) {
      at.doInc();
      EXPECT_TRUE( at.done() );
      EXPECT_EQ( at.currentIndex(), 8U );
      EXPECT_EQ( at.chipId(), chip5 ) << "the last entry's";
   }
   EXPECT_FALSE( at.key( key.data() ) );
   EXPECT_FALSE( at.result( result.data() ) );
   EXPECT_EQ( key, "BBBB##" );
   EXPECT_EQ( at.key_py(), Corvo::Bytes() );
   EXPECT_EQ( at.result_py(), Corvo::Bytes() );
}

TEST( Iterator, overNothingIsDoneAtOnce ) {
   for ( U32 entries : { 0U, 5U } ) {
      Iterator const at( newTable( { .entries = entries } ) );
      EXPECT_TRUE( at.done() );
      EXPECT_EQ( at.currentIndex(), 0U );
      EXPECT_EQ( at.chipId(), Brine::ChipId( 255 ) );
      EXPECT_FALSE( at.key( nullptr ) );
   }
}

TEST( Iterator, reachesTheLastSlotAndThenAsksNoBitmap ) {
   auto const table = newTable( { .entries = 1 } );
   add( table, chip3, "AAAA", "r1" );
   Iterator at( table );
   EXPECT_TRUE( at );
   EXPECT_EQ( at.currentIndex(), 1U );
   table->freeIndexBmpDel();
   at.doInc();
   EXPECT_TRUE( at.done() );
   EXPECT_EQ( failedCondition( [ & ] { Iterator{ table }; } ), "emTable()->freeIndexBmp()" );
}

TEST( Iterator, followsTheTableAsItIsAtEachStep ) {
   auto const table = tableWithSlots3And7();
   Iterator at( table );
   add( table, chip7, "CCCC", "r0" );              // slot 0, behind
   table->entryDel( chip5, "BBBB" );               // slot 7, ahead
   for ( auto key : { "D1..", "D2..", "D3.." } ) { // slots 1, 2 and 4
      add( table, chip7, key, "r." );
   }
   at.doInc();
   EXPECT_EQ( at.currentIndex(), 5U );
   at.doInc();
   EXPECT_TRUE( at.done() );
}

TEST( Iterator, comparesByTableAndPlaceAndEntry ) {
   auto const table = tableWithSlots3And7();
   Iterator at( table );
   Iterator const same( table );
   Iterator const copy = at;
   EXPECT_EQ( at, same );
   EXPECT_EQ( at, copy );
   at.doInc();
   EXPECT_NE( at, copy );
   EXPECT_EQ( copy.currentIndex(), 4U ) << "a copy stays where it was";
   Iterator other = copy;
   other.currentEntryIs( at.currentEntry() );
   EXPECT_NE( other, copy );
   other = copy;
   other.currentIndexIs( 5 );
   EXPECT_NE( other, copy );
   EXPECT_NE( Iterator( tableWithSlots3And7() ), copy ) << "another table object";
   other = copy;
   other.emTableIs( tableWithSlots3And7() );
   EXPECT_NE( other, copy ) << "one that was set by hand";
   EXPECT_TRUE( Iterator::isEq( &same, &copy ) );
}

TEST( Iterator, holdsTwoReferencesOnItsTable ) {
   auto const table = tableWithSlots3And7();
   {
      Iterator const at( table );
      EXPECT_EQ( table->useCount(), 3U );
      Iterator const copy = at;
      EXPECT_EQ( table->useCount(), 5U );
   }
   EXPECT_EQ( table->useCount(), 1U );
}

TEST( Iterator, onASlotInvalidatedBehindItsTableGivesNoKeyAndNoResult ) {
   auto const table = tableWithSlots3And7();
   table->vellumChunk()->write( 56, std::string( 8, '\0' ).data(), 8 );
   Iterator at( table );
   at.doInc();
   EXPECT_TRUE( at );
   EXPECT_EQ( at.chipId(), Brine::ChipId( 255 ) );
   std::string buffer = "######";
   EXPECT_FALSE( at.key( buffer.data() ) );
   EXPECT_FALSE( at.result( buffer.data() ) );
   EXPECT_EQ( buffer, "######" );
   EXPECT_TRUE( at.key_py().empty() );
}

TEST( Iterator, setOutsideItsTableIsDoneAndWithoutATableIsRefused ) {
   auto const table = tableWithSlots3And7();
   Iterator at( table );
   at.currentIndexIs( 0xFFFFFFFF );
   at.doInc();
   EXPECT_TRUE( at.done() );
   EXPECT_EQ( failedCondition( [] { Iterator{ nullptr }; } ), "emTable()" );
   auto const direct =
      directShadowTableFactory( "vlan", tableHelperFactory( 1, 1, 1 ), nullptr, 0 );
   EXPECT_EQ( failedCondition( [ & ] { Iterator{ direct }; } ), "emTable()" );
   Iterator without( table );
   without.emTableIs( nullptr );
   EXPECT_EQ( failedCondition( [ & ] { without.doInc(); } ), "emTable()" );
   EXPECT_EQ( failedCondition( [ & ] { without.key( nullptr ); } ), "emTable()" );
}

TEST( Iterator, neverWritesPastWhatItsTableAsksFor ) {
   auto const table = tableWithSlots3And7();
   Iterator at( table );
   at.currentEntryIs(
      EmTableEntry( true, chip3, keyOf( std::string( 20, 'k' ) ), resultOf( "r" ) ) );
   EXPECT_EQ( textOf( at.key_py() ), "kkkk" );
   EXPECT_TRUE( at.result_py().empty() ) << "an entry that holds too few bytes has none";
}

std::string emTablePart( std::string const& form ) {
   std::size_t const begin = form.find( "emTable: " );
   return form.substr( begin, form.find( ',', begin ) - begin );
}

TEST( ReadersAndIterators, takeNoTableWhoseKeysOrResultsHaveOtherLengths ) {
   auto const table = tableWithSlots3And7();
   auto const reader = emShadowTableReaderFactory( table );
   Iterator at( table );
   std::string const condition = "table->sameLengths( *this->table() )";
   for ( Geometry const other : { Geometry{ .key = 20 }, Geometry{ .result = 12 } } ) {
      auto const wide = newTable( other );
      EXPECT_EQ( failedCondition( [ & ] { reader->emShadowTableIs( wide ); } ), condition );
      EXPECT_EQ( failedCondition( [ & ] { at.emTableIs( wide ); } ), condition );
      EXPECT_EQ( at.emTable(), table );
      std::string form = printed( at );
      std::string const own = emTablePart( form );
      form.replace( form.find( own ), own.size(), emTablePart( printed( Iterator( wide ) ) ) );
      EXPECT_THROW( parsed<Iterator>( form ), Weft::ParseError );
   }
   auto const alike = newTable( { .entries = 1 } );
   reader->emShadowTableIs( nullptr );
   EXPECT_EQ( failedCondition( [ & ] { reader->entryHas( chip3, "AAAA" ); } ), "emShadowTable()" );
   reader->emShadowTableIs( alike );
   at.emTableIs( alike );
   EXPECT_EQ( at.emTable(), alike );
}

TEST( AbstractIterator, reachesTheOperationsOfItsKind ) {
   auto const table = tableWithSlots3And7();
   auto at = table->managedTableIteratorConst();
   auto const copy = at;
   EXPECT_EQ( textOf( at.key_py() ), "AAAA" );
   EXPECT_EQ( at.chipId(), chip3 );
   at.doInc();
   EXPECT_EQ( textOf( at.key_py() ), "BBBB" );
   EXPECT_EQ( textOf( at.result_py() ), "r7" );
   EXPECT_NE( at, copy );
   EXPECT_EQ( copy, table->managedTableIteratorConst() );
   EXPECT_EQ( copy, Iterator( table ) ) << "the kind's rule, in either form";
   EXPECT_EQ( Iterator( table ), copy );
   EXPECT_NE( Iterator( table ), at );
   EXPECT_EQ( textOf( copy.key_py() ), "AAAA" ) << "copies move independently";
   at.doInc();
   EXPECT_FALSE( at );
   EXPECT_TRUE( at.key_py().empty() );
   EXPECT_EQ( at.table(), table );
   EXPECT_FALSE( newTable()->managedTableIteratorConst() );
   auto assigned = copy;
   assigned = at;
   EXPECT_EQ( assigned, at );
   at = copy;
   EXPECT_EQ( textOf( at.key_py() ), "AAAA" );
}

TEST( AbstractIterator, builtOnATableImplementsNothing ) {
   auto const table = tableWithSlots3And7();
   ManagedTableIteratorConst at( table );
   EXPECT_TRUE( at );
   EXPECT_EQ( table->useCount(), 2U );
   auto const expectUnimplemented = []( auto const& call ) {
      auto const failure = contractFailure( call );
      ASSERT_TRUE( failure );
      EXPECT_EQ( failure->condition(), "false" );
      EXPECT_EQ( failure->message(), "Must be implemented in the derived class" );
      EXPECT_EQ( failure->module(), "ManagedTableBase" );
   };
   expectUnimplemented( [ & ] { at.chipId(); } );
   expectUnimplemented( [ & ] { at.key( nullptr ); } );
   expectUnimplemented( [ & ] { at.result( nullptr ); } );
   expectUnimplemented( [ & ] { at.doInc(); } );
   expectUnimplemented( [ & ] { at.key_py(); } );
   EXPECT_EQ( at, ManagedTableIteratorConst( table ) );
   EXPECT_NE( at, ManagedTableIteratorConst( newTable() ) );
   EXPECT_EQ( failedCondition( [] { ManagedTableIteratorConst().key_py(); } ), "table()" );
   EXPECT_EQ( failedCondition( [] { Iterator(); } ), "emTable()" );
}

/// A kind of table that a caller adds: always one entry, with more bytes than the exact-match kind
/// takes.
class OneLongEntry : public ManagedTableBase {
 public:
   using ManagedTableBase::ManagedTableBase;

   bool isFull() const override { return true; }
   U32 tableShadowSize() const override { return 0; }
   bool entryIs( Brine::ChipId, Weft::CharPtrConst, Weft::CharPtrConst ) override { return false; }
   void entryDel( Brine::ChipId, Weft::CharPtrConst ) override {}
   bool entryHas( Brine::ChipId chip, Weft::CharPtrConst ) const override { return chip == chip7; }
   bool entry( Brine::ChipId chip, Weft::CharPtrConst key, Weft::CharPtr result ) const override {
      return entryHas( chip, key ) && Walk( nullptr ).result( result );
   }
   ManagedTableIteratorConst managedTableIteratorConst() const override {
      return ManagedTableIteratorConst::of(
         std::make_unique<Walk>( Corvo::Ptr<ManagedTableBase const>( this ) ) );
   }
   void deleteAll( Brine::ChipId ) override {}
   void clearTable() override {}

 private:
   struct Walk final : ManagedTableIteratorConst {
      using ManagedTableIteratorConst::ManagedTableIteratorConst;

      Brine::ChipId chipId() const override { return chip7; }
      bool key( Weft::CharPtr keyBuf ) const override {
         std::fill_n( keyBuf, 30, 'k' );
         return true;
      }
      bool result( Weft::CharPtr resultBuf ) const override {
         std::fill_n( resultBuf, 1000, 'r' );
         return true;
      }
      void doInc() override { doneIs(); }
      std::unique_ptr<ManagedTableIteratorConst> clone() const override {
         return std::make_unique<Walk>( *this );
      }
   };
};

TEST( AbstractIterator, reachesAKindThatACallerAdds ) {
   auto const table = Corvo::makePtr<OneLongEntry>(
      "own", tableHelperFactory( 1, 30, 1000 ), Corvo::Ptr<Vellum::VellumChunk>(), 0U );
   EXPECT_EQ( textOf( table->entry_py( chip7, Corvo::Bytes::ofLength( 30 ) ) ),
              std::string( 1000, 'r' ) );
   EXPECT_TRUE( table->entry_py( chip3, Corvo::Bytes::ofLength( 30 ) ).empty() );
   auto at = table->managedTableIteratorConst();
   auto const copy = at;
   EXPECT_EQ( textOf( at.key_py() ), std::string( 30, 'k' ) );
   at.doInc();
   EXPECT_NE( at, copy );
   EXPECT_TRUE( at.result_py().empty() );
   EXPECT_EQ( textOf( copy.result_py() ), std::string( 1000, 'r' ) );
   EXPECT_EQ( copy, table->managedTableIteratorConst() );
   EXPECT_EQ( failedCondition( [] { ManagedTableIteratorConst::of( nullptr ); } ),
              "kind != nullptr" );
}

TEST( Iterator, itsStringFormReadsBackWhileItsTableLives ) {
   auto table = tableWithSlots3And7();
   std::string form;
   {
      Iterator at( table );
      at.doInc();
      form = printed( at );
      EXPECT_EQ( parsed<Iterator>( form ), at );
   }
   {
      ManagedTableIteratorConst const plain( table );
      EXPECT_EQ( parsed<ManagedTableIteratorConst>( printed( plain ) ), plain );
   }
   EXPECT_THROW( parsed<ManagedTableIteratorConst>( form ), Weft::ParseError );
   auto const none = printed( ManagedTableIteratorConst() );
   EXPECT_EQ( parsed<ManagedTableIteratorConst>( none ).table(), nullptr );
   table = nullptr;
   EXPECT_THROW( parsed<Iterator>( form ), Weft::ParseError ) << "the table is gone";
}

static_assert( std::ranges::input_range<EmEntryRange> );

TEST( EntryRange, givesTheEntriesInSlotOrderWhateverTheKindOfTable ) {
   std::vector<std::string> keys;
   for ( EmTableEntry const& entry : tableWithSlots3And7()->entries() ) {
      keys.push_back( textOf( entry.key().bytes() ) );
   }
   EXPECT_THAT( keys, ElementsAre( "AAAA", "BBBB" ) );
   auto const direct =
      directShadowTableFactory( "vlan", tableHelperFactory( 1, 1, 1 ), nullptr, 0 );
   std::vector<std::string> results;
   for ( ManagedTableBase::Ptr const& table :
         { ManagedTableBase::Ptr( tableWithSlots3And7() ), ManagedTableBase::Ptr( direct ) } ) {
      for ( auto const& at : table->entries() ) {
         results.push_back( textOf( at.result_py() ) );
      }
   }
   EXPECT_THAT( results, ElementsAre( "r3", "r7" ) );
}

TEST( EntryRange, showsADefaultEntryWhereASlotWasInvalidatedBehindItsTable ) {
   auto const table = newTable();
   add( table, chip3, "AAAA", "r1" );
   add( table, chip3, "BBBB", "r2" );
   add( table, chip5, "CCCC", "r3" );
   add( table, chip7, "DDDD", "r4" );
   table->vellumChunk()->write( 8, std::string( 8, '\0' ).data(), 8 );
   std::vector<EmTableEntry> seen;
   for ( EmTableEntry const& entry : table->entries() ) {
      seen.push_back( entry );
   }
   EXPECT_THAT( seen,
                ElementsAre( EmTableEntry( true, chip3, keyOf( "AAAA" ), resultOf( "r1" ) ),
                             EmTableEntry(),
                             EmTableEntry( true, chip5, keyOf( "CCCC" ), resultOf( "r3" ) ),
                             EmTableEntry( true, chip7, keyOf( "DDDD" ), resultOf( "r4" ) ) ) );
}

} // namespace
