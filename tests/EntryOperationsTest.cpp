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

TEST( EntryOperations, theSameKeyOnTwoChipsTakesTwoSlots ) {
   auto const table = newTable();
   EXPECT_TRUE( add( table, chip0, "AAAA", "r0" ) );
   EXPECT_TRUE( add( table, chip1, "AAAA", "r1" ) );
   EXPECT_EQ( table->getTableIndex( chip0, keyOf( "AAAA" ) ).value(), 0U );
   EXPECT_EQ( table->getTableIndex( chip1, keyOf( "AAAA" ) ).value(), 1U );
   EXPECT_EQ( table->numUsedEntries(), 2U );
   EXPECT_EQ( table->numUsedEntriesByChipId( chip0 ), 1U );
   EXPECT_EQ( table->numUsedEntriesByChipId( chip1 ), 1U );
   EXPECT_EQ( table->keyToIndexListCount(), 1U );
   EXPECT_EQ( lookUp( *table, chip0, "AAAA" ), "r0" );
   EXPECT_EQ( lookUp( *table, chip1, "AAAA" ), "r1" );
   EXPECT_EQ( lookUp( *table, chip3, "AAAA" ), std::nullopt );
}

TEST( EntryOperations, aRewriteKeepsItsSlotAndTheCounts ) {
   auto const table = newTable();
   add( table, chip0, "AAAA", "r1" );
   EXPECT_TRUE( add( table, chip0, "AAAA", "r2" ) );
   EXPECT_EQ( imageAt( *table, 0 ), "\1\0AAAAr2"s );
   EXPECT_EQ( imageAt( *table, 1 ), std::string( 8, '\0' ) );
   EXPECT_EQ( table->numUsedEntries(), 1U );
   EXPECT_EQ( table->numUsedEntriesByChipId( chip0 ), 1U );
}

TEST( EntryOperations, aFullTableRefusesANewPairAndRewritesAnOldOne ) {
   auto const table = newTable( { .entries = 2 } );
   add( table, chip0, "AAAA", "r1" );
   add( table, chip0, "BBBB", "r2" );
   std::string const before = stateOf( *table );
   EXPECT_FALSE( add( table, chip0, "CCCC", "r3" ) );
   EXPECT_FALSE( add( table, chip1, "AAAA", "r3" ) );
   EXPECT_EQ( stateOf( *table ), before );
   EXPECT_FALSE( table->numUsedEntriesByChipIdHas( chip1 ) );
   EXPECT_TRUE( add( table, chip0, "BBBB", "r4" ) );
   EXPECT_EQ( lookUp( *table, chip0, "BBBB" ), "r4" );
}

TEST( EntryOperations, aDeletedSlotIsZeroAndTheNextToBeTaken ) {
   auto const table = newTable();
   add( table, chip0, "AAAA", "r1" );
   add( table, chip0, "BBBB", "r2" );
   table->entryDel( chip0, "AAAA" );
   EXPECT_EQ( imageAt( *table, 0 ), std::string( 8, '\0' ) );
   EXPECT_EQ( lookUp( *table, chip0, "AAAA" ), std::nullopt );
   EXPECT_FALSE( table->entryHas( chip0, "AAAA" ) );
   EXPECT_EQ( table->numUsedEntries(), 1U );
   add( table, chip7, "CCCC", "r3" );
   EXPECT_EQ( imageAt( *table, 0 ), "\1\7CCCCr3" );
   table->entryDel( chip7, "CCCC" );
   EXPECT_TRUE( table->numUsedEntriesByChipIdHas( chip7 ) ) << "a chip stays a member at zero";
}

TEST( EntryOperations, deletingAnAbsentPairChangesNothing ) {
   auto const table = newTable();
   add( table, chip0, "AAAA", "r1" );
   std::string const before = stateOf( *table );
   table->entryDel( chip1, "AAAA" );
   table->entryDel( chip0, "BBBB" );
   EXPECT_EQ( stateOf( *table ), before );
}

TEST( EntryOperations, aLookUpWritesTheResultAndNoByteMore ) {
   for ( U32 length = 0; length <= MAX_RESULT_LENGTH_IN_BYTE; ++length ) {
      auto const table = newTable( { .key = 4, .result = length } );
      std::string const result = std::string( "0123456789AB" ).substr( 0, length );
      add( table, chip0, "AAAA", result );
      std::string buffer( 16, '#' );
      ASSERT_TRUE( table->entry( chip0, "AAAA", buffer.data() ) );
      EXPECT_EQ( buffer, result + std::string( 16 - length, '#' ) );
      ASSERT_FALSE( table->entry( chip0, "BBBB", buffer.data() ) );
      EXPECT_EQ( buffer, result + std::string( 16 - length, '#' ) );
   }
}

TEST( EntryOperations, aKeyWithoutBytesIsOneEntryPerChip ) {
   auto const table = newTable( { .entries = 4, .key = 0, .result = 0 } );
   EXPECT_TRUE( table->entryIs( chip3, nullptr, nullptr ) );
   EXPECT_TRUE( table->entryIs( chip3, nullptr, nullptr ) );
   EXPECT_TRUE( table->entryIs( chip5, nullptr, nullptr ) );
   EXPECT_EQ( table->numUsedEntries(), 2U );
   EXPECT_EQ( imageAt( *table, 1 ), "\1\5\0\0"s );
   EXPECT_TRUE( table->entry( chip5, nullptr, nullptr ) );
   table->entryDel( chip3, nullptr );
   EXPECT_FALSE( table->entryHas( chip3, nullptr ) );
}

TEST( EntryOperations, traceTheirStepsInOrder ) {
   auto const table = newTable();
   TraceRecorder trace( "TesselEmTable" );
   add( table, chip3, "AAAA", "r1" );
   EXPECT_THAT( trace.take(),
                ElementsAre( "makeEmTableKey keySize:4",
                             "makeEmTableResult resultSize:2",
                             "EmShadowTable::getTableIndex non-existing key",
                             "ManagedEmTable::alloc index:0",
                             "EmShadowTable::writeToVellumMemory index:0 chipId:3",
                             "EmTableEntry::copyToBuf keyLength:4 resultLength:2",
                             "EmShadowTable::updateTableIndex chipId:3 valid:1 index:0" ) );
   add( table, chip3, "AAAA", "r2" );
   EXPECT_THAT( trace.take(),
                ElementsAre( "makeEmTableKey keySize:4",
                             "makeEmTableResult resultSize:2",
                             "EmShadowTable::getTableIndex chipId:3 index:0",
                             "EmShadowTable::writeToVellumMemory index:0 chipId:3",
                             "EmTableEntry::copyToBuf keyLength:4 resultLength:2" ) );
   lookUp( *table, chip3, "AAAA" );
   EXPECT_EQ( trace.take(),
              thenReadingSlot0( { "EmShadowTable::entry chipId:3",
                                  "makeEmTableKey keySize:4",
                                  "EmShadowTable::getTableIndex chipId:3 index:0" } ) );
   table->entryHas( chip3, "AAAA" );
   EXPECT_THAT(
      trace.take(),
      ElementsAre( "makeEmTableKey keySize:4", "EmShadowTable::getTableIndex chipId:3 index:0" ) );
   table->entryDel( chip3, "AAAA" );
   EXPECT_THAT( trace.take(),
                ElementsAre( "makeEmTableKey keySize:4",
                             "EmShadowTable::getTableIndex chipId:3 index:0",
                             "EmShadowTable::deleteTableIndex chipId:3",
                             "EmShadowTable::invalidateVellumMemory index:0",
                             "EmTableEntry::copyToBuf keyLength:4 resultLength:2",
                             "EmShadowTable::free index:0" ) );
   table->entryDel( chip3, "AAAA" );
   lookUp( *table, chip3, "AAAA" );
   EXPECT_THAT( trace.take(),
                ElementsAre( "makeEmTableKey keySize:4",
                             "EmShadowTable::getTableIndex non-existing key",
                             "EmShadowTable::entry chipId:3",
                             "makeEmTableKey keySize:4",
                             "EmShadowTable::getTableIndex non-existing key" ) );
}

TEST( EntryOperations, aSlotChangedBehindTheTablesBackFailsTheLookUp ) {
   auto const table = newTable();
   add( table, chip3, "AAAA", "r1" );
   auto const lookUpOver = [ & ]( std::string const& image ) {
      table->vellumChunk()->write( 0, image.data(), 8 );
      std::string buffer( 2, '#' );
      auto const failure =
         contractFailure( [ & ] { table->entry( chip3, "AAAA", buffer.data() ); } );
      EXPECT_EQ( buffer, "##" );
      return failure ? failure->module() + ": " + failure->condition() : "(none)";
   };
   EXPECT_EQ( lookUpOver( std::string( 8, '\0' ) ), "EmTable: entry.valid() == true" );
   EXPECT_EQ( lookUpOver( "\1\5AAAAr1" ), "EmTable: entry.chipId() == chipId" );
   EXPECT_EQ( lookUpOver( "\1\3AAABr1" ),
              "EmTable: memcmp( key, entry.key().bytes().bytesPtr(), "
              "tableHelper()->keyLengthBytes() ) == 0" );
   EXPECT_TRUE( table->entryHas( chip3, "AAAA" ) ) << "answered without a look at the slot";
}

TEST( EntryOperations, aSlotChangedBehindTheTablesBackCanBeRewrittenAndDeleted ) {
   for ( std::string const image : { "\1\3AAABr1", "\1\5AAAAr1", "\2\3AAAAr1" } ) {
      auto const table = newTable();
      add( table, chip3, "AAAA", "r1" );
      table->vellumChunk()->write( 0, image.data(), 8 );
      add( table, chip3, "AAAA", "r2" );
      EXPECT_EQ( imageAt( *table, 0 ), "\1\3AAAAr2" );
      table->vellumChunk()->write( 0, image.data(), 8 );
      table->entryDel( chip3, "AAAA" );
      EXPECT_FALSE( table->entryHas( chip3, "AAAA" ) );
      EXPECT_EQ( table->numUsedEntries(), 0U );
      EXPECT_EQ( imageAt( *table, 0 ), std::string( 8, '\0' ) );
   }
}

TEST( EntryOperations, aKeyThatTheMapDoesNotHoldIsAbsentWhateverLiesInTheSlots ) {
   auto const writer = newTable( { .entries = 4 } );
   add( writer, chip3, "AAAA", "r1" );
   auto const late = tableOver( writer->vellumChunk(), { .entries = 4 } );
   writer->entryDel( chip3, "AAAA" );
   // In a small map some of these differ from AAAA in nothing but the bytes of the key.
   for ( U32 number = 0; number < 1000; ++number ) {
      std::string key( 4, 'B' );
      std::memcpy( key.data(), &number, sizeof number );
      add( writer, chip3, key, "r2" );
      ASSERT_EQ( lookUp( *late, chip3, key ), std::nullopt ) << number;
      writer->entryDel( chip3, key.data() );
   }
}

TEST( EntryOperations, anImageCoversAllThatLayInItsSlot ) {
   for ( U32 lengths = 0; lengths < 21 * 13; ++lengths ) {
      Geometry const geometry{ .entries = 1, .key = lengths % 21, .result = lengths / 21 };
      std::string const key( geometry.key, '\xff' );
      std::string const result( geometry.result, 'r' );
      std::string image = "\1\xff" + key + result;
      image.resize( ( image.size() + 3 ) / 4 * 4 );
      for ( char const before : { '\0', '\1' } ) { // nothing shows itself, or this pair does
         auto const chunk = Vellum::VellumChunk::inProcess( 36 );
         std::string const junk = before + std::string( 35, '\xff' );
         chunk->write( 0, junk.data(), 36 );
         auto const table = tableOver( chunk, geometry );
         ASSERT_TRUE( add( table, Brine::ChipId( 0xff ), key, result ) );
         EXPECT_EQ( allBytes( chunk ), image + junk.substr( image.size() ) );
         U32 const padding = 2 + geometry.key + geometry.result;
         chunk->write( padding, junk.data() + padding, table->entryLengthBytes() - padding );
         ASSERT_TRUE( add( table, Brine::ChipId( 0xff ), key, result ) );
         EXPECT_EQ( allBytes( chunk ), image + junk.substr( image.size() ) );
      }
   }
}

TEST( EntryOperations, theSlotStepsChangeTheImageAlone ) {
   auto const table = newTable();
   TraceRecorder trace( "TesselEmTable", U64{ 1 } << 7 );
   table->writeToShadowMemory( EmTableIndex( 2 ), chip5, keyOf( "AAAA" ), resultOf( "r1" ) );
   EXPECT_EQ( imageAt( *table, 2 ), "\1\5AAAAr1" );
   EXPECT_EQ( table->readFromVellumMemory( EmTableIndex( 2 ) ),
              EmTableEntry( true, chip5, keyOf( "AAAA" ), resultOf( "r1" ) ) );
   EXPECT_EQ( table->readFromVellumMemory( EmTableIndex( 1 ) ), EmTableEntry() );
   table->writeToVellumMemory( EmTableIndex( 2 ), chip7, keyOf( "B" ), resultOf( "xyz" ) );
   EXPECT_EQ( imageAt( *table, 2 ), "\1\7B\0\0\0xy"s );
   EXPECT_TRUE( table->freeIndexBmp()->bit( 2 ) );
   EXPECT_EQ( trace.take().front(), "EmShadowTable::writeToShadowMemory index:2 chipId:5" );
   table->markIndexUsed( EmTableIndex( 2 ) );
   table->numUsedEntriesInc( 1 );
   trace.take();
   table->cleanupIndex( EmTableIndex( 2 ) );
   EXPECT_THAT( trace.messages(),
                ElementsAre( "EmShadowTable::invalidateVellumMemory index:2",
                             "EmTableEntry::copyToBuf keyLength:4 resultLength:2",
                             "EmShadowTable::free index:2" ) );
   EXPECT_EQ( imageAt( *table, 2 ), std::string( 8, '\0' ) );
   EXPECT_TRUE( table->freeIndexBmp()->bit( 2 ) );
   EXPECT_EQ( table->numUsedEntries(), 1U );
}

TEST( EntryOperations, onAReadOnlyChunkFailAndLeaveEverythingAsItWas ) {
   UniqueName const name;
   add( tableOver( Vellum::VellumChunk::create( *name, 64 ) ), chip3, "AAAA", "r1" );
   auto const table =
      tableOver( Vellum::VellumChunk::open( *name, Vellum::VellumChunk::Access::readOnly ) );
   EXPECT_EQ( lookUp( *table, chip3, "AAAA" ), "r1" );
   std::string const before = stateOf( *table );
   std::string const readOnly = "access() == Access::readWrite";
   EXPECT_EQ( failedCondition( [ & ] { add( table, chip3, "BBBB", "r2" ); } ), readOnly );
   EXPECT_EQ( failedCondition( [ & ] { add( table, chip5, "AAAA", "r2" ); } ), readOnly );
   EXPECT_EQ( failedCondition( [ & ] { add( table, chip3, "AAAA", "r2" ); } ), readOnly );
   EXPECT_EQ( failedCondition( [ & ] { table->entryDel( chip3, "AAAA" ); } ), readOnly );
   EXPECT_EQ( failedCondition( [ & ] { table->clearTable(); } ), readOnly );
   EXPECT_EQ( failedCondition( [ & ] { table->cleanupIndex( EmTableIndex( 0 ) ); } ), readOnly );
   EXPECT_EQ( failedCondition( [ & ] { table->deleteAll( chip3 ); } ), readOnly );
   EmPairAndResult const wanted[] = { { chip3, "AAAA", "r2" } };
   EmPair const unwanted[] = { { chip3, "AAAA" } };
   EXPECT_EQ( failedCondition( [ & ] { table->entryIsBulk( wanted ); } ), readOnly );
   EXPECT_EQ( failedCondition( [ & ] { table->entryDelBulk( unwanted ); } ), readOnly );
   EXPECT_EQ( failedCondition( [ & ] { table->doWriteVellum64( 0, 7 ); } ), readOnly );
   EXPECT_EQ( failedCondition( [ & ] {
                 table->writeToShadowMemory(
                    EmTableIndex( 0 ), chip3, keyOf( "AAAA" ), resultOf( "r2" ) );
              } ),
              readOnly );
   EXPECT_EQ( stateOf( *table ), before );
   EXPECT_TRUE( table->entryHas( chip3, "AAAA" ) );
   EXPECT_EQ( table->getTableIndex( chip3, keyOf( "AAAA" ) ).value(), 0U );
}

// Of an image, everything that a caller may point at is read before anything is written.
TEST( EntryOperations, aKeyMayLieInTheSlotThatIsWritten ) {
   for ( Geometry const geometry : { Geometry{ 8, 4, 4 },
                                     Geometry{ 8, 2, 2 },
                                     Geometry{ 8, 6, 8 },
                                     Geometry{ 8, 8, 8 },
                                     Geometry{ 8, 12, 4 },
                                     Geometry{ 8, 20, 8 },
                                     Geometry{ 8, 7, 12 } } ) {
      SCOPED_TRACE( testing::Message() << geometry.key << '+' << geometry.result );
      std::string const key( geometry.key, 'A' );
      auto const table = newTable( geometry );
      for ( U32 at = 2; at + geometry.key <= table->entryLengthBytes(); ++at ) {
         table->clearTable();
         add( table, chip3, key, std::string( geometry.result, 'A' ) );
         U8 const* const image = table->vellumChunk()->readableAt( 0, table->entryLengthBytes() );
         std::string const pointedAt( reinterpret_cast<char const*>( image + at ), geometry.key );
         std::string const result( geometry.result, 'B' );
         table->entryIs( chip3, reinterpret_cast<char const*>( image + at ), result.data() );
         EXPECT_EQ( lookUp( *table, chip3, pointedAt ), result ) << "at " << at;
         EXPECT_EQ( table->numUsedEntries(), pointedAt == key ? 1U : 2U );
      }
   }
}

} // namespace
