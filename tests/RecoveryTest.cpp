// SPDX-License-Identifier: Apache-2.0
#include "support/Contract.h"
#include "support/Tables.h"
#include "support/Traces.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace TestSupport;
using namespace Tessel;
using testing::ElementsAre;

void writeImage( Chunk const& chunk, U32 slot, std::string const& image ) {
   chunk->write( slot * 8, image.data(), 8 );
}

TEST( Recovery, overFreeImagesStartsEmpty ) {
   auto const table = newTable();
   EXPECT_EQ( table->numUsedEntries(), 0U );
   EXPECT_EQ( table->keyToIndexListCount(), 0U );
   EXPECT_EQ( table->numUsedEntriesByChipIdCount(), 0U );
   EXPECT_EQ( table->freeIndexBmp()->findClearBitInRange( 0, 7, {} ),
              Brine::HBitmap::invalidIndex );
}

TEST( Recovery, takesOverEveryValidImage ) {
   auto const chunk = Vellum::VellumChunk::inProcess( 64 );
   writeImage( chunk, 2, std::string( "\1\0AAAAr1", 8 ) );
   writeImage( chunk, 5, "\2\1BBBBr2" );
   writeImage( chunk, 7, "\1\1CCCCr3" );
   std::string const before = allBytes( chunk );
   auto const table = tableOver( chunk );
   EXPECT_EQ( allBytes( chunk ), before ) << "a rebuild writes nothing";
   EXPECT_EQ( lookUp( *table, chip0, "AAAA" ), "r1" );
   EXPECT_EQ( lookUp( *table, chip1, "BBBB" ), "r2" );
   EXPECT_EQ( lookUp( *table, chip1, "CCCC" ), "r3" );
   EXPECT_EQ( table->getTableIndex( chip1, keyOf( "BBBB" ) ).value(), 5U );
   EXPECT_EQ( table->numUsedEntries(), 3U );
   EXPECT_EQ( table->numUsedEntriesByChipId( chip0 ), 1U );
   EXPECT_EQ( table->numUsedEntriesByChipId( chip1 ), 2U );
   for ( U32 slot = 0; slot < 8; ++slot ) {
      EXPECT_EQ( table->freeIndexBmp()->bit( slot ), slot != 2 && slot != 5 && slot != 7 );
   }
}

TEST( Recovery, ofOnePairInTwoSlotsFindsTheHigherAndCountsBoth ) {
   auto const chunk = Vellum::VellumChunk::inProcess( 64 );
   writeImage( chunk, 1, "\1\3AAAAr1" );
   writeImage( chunk, 4, "\1\3AAAAr4" );
   writeImage( chunk, 6, "\1\7AAAAr6" );
   auto const table = tableOver( chunk );
   EXPECT_EQ( table->getTableIndex( chip3, keyOf( "AAAA" ) ).value(), 4U );
   EXPECT_EQ( table->getTableIndex( chip7, keyOf( "AAAA" ) ).value(), 6U );
   EXPECT_FALSE( table->freeIndexBmp()->bit( 1 ) );
   EXPECT_EQ( table->numUsedEntries(), 3U );
   EXPECT_EQ( table->numUsedEntriesByChipId( chip3 ), 2U );
}

TEST( Recovery, runningAgainChangesNothing ) {
   auto const chunk = Vellum::VellumChunk::inProcess( 64 );
   writeImage( chunk, 1, "\1\3AAAAr1" );
   writeImage( chunk, 4, "\1\3AAAAr4" );
   auto const table = tableOver( chunk );
   add( table, chip5, "BBBB", "r2" );
   std::string const before = stateOf( *table );
   auto const bitmap = table->freeIndexBmp();
   table->reconcile();
   table->handleInitialized();
   EXPECT_EQ( stateOf( *table ), before );
   EXPECT_EQ( table->freeIndexBmp(), bitmap );
}

TEST( Recovery, afterTheBitmapWasTakenOutCountsNothingTwice ) {
   auto const table = newTable();
   add( table, chip5, "BBBB", "r2" );
   std::string const before = stateOf( *table );
   table->freeIndexBmpDel();
   table->handleInitialized();
   EXPECT_EQ( stateOf( *table ), before );
}

TEST( Recovery, overMemoryThatCannotBeReadLeavesBitmapAndCountsAsTheyWere ) {
   auto const table = newTable();
   add( table, chip5, "BBBB", "r2" );
   std::string const before = stateOf( *table );
   table->freeIndexBmpDel();
   U8 memory = 0;
   table->bufIs( &memory );
   EXPECT_EQ( failedCondition( [ & ] { table->handleInitialized(); } ),
              "getenv( \"SIMULATION_VMID\" )" );
   EXPECT_FALSE( table->freeIndexBmp() );
   EXPECT_EQ( table->numUsedEntries(), 1U );
   EXPECT_EQ( table->numUsedEntriesByChipId( chip5 ), 1U );
   table->bufIs( nullptr );
   table->handleInitialized();
   EXPECT_EQ( stateOf( *table ), before );
}

TEST( Recovery, runningAgainTakesOverWhatAnotherWriterAdded ) {
   auto const table = newTable();
   writeImage( table->vellumChunk(), 3, "\1\3AAAAr1" );
   EXPECT_FALSE( table->entryHas( chip3, "AAAA" ) );
   table->reconcile();
   EXPECT_EQ( lookUp( *table, chip3, "AAAA" ), "r1" );
   EXPECT_EQ( table->numUsedEntries(), 1U );
}

TEST( Recovery, runningAgainGivesASlotToTheKeyThatItFindsThereNow ) {
   auto const table = newTable();
   add( table, chip3, "AAAA", "r1" );
   writeImage( table->vellumChunk(), 0, "\1\3BBBBr2" );
   table->reconcile();
   EXPECT_EQ( lookUp( *table, chip3, "BBBB" ), "r2" );
   EXPECT_EQ( table->getTableIndex( chip3, keyOf( "AAAA" ) ), EmTableIndex( 0 ) );
   table->entryDel( chip3, "BBBB" );
   EXPECT_TRUE( table->entryHas( chip3, "AAAA" ) );
   EXPECT_EQ( table->keyToIndexListCount(), 1U );
}

// Its map takes no room for all at once, and guesses from the first keys, which are on two chips here,
// how much the others need.
TEST( Recovery, ofALargeTableFindsEveryEntryWhileItsMapGrows ) {
   Geometry const geometry{ .entries = 400'000 };
   constexpr U32 keys = 60'000;
   constexpr U32 shared = 5'000;
   auto const chunk = Vellum::VellumChunk::inProcess( 4 << 20 );
   auto const chips = [ & ]( U32 number, auto const& visit ) {
      std::string const key( reinterpret_cast<char const*>( &number ), sizeof number );
      visit( chip3, key );
      if ( number < shared ) {
         visit( chip5, key );
      }
   };
   auto const before = tableOver( chunk, geometry );
   for ( U32 number = 0; number < keys; ++number ) {
      chips( number, [ & ]( auto chip, auto const& key ) {
         add( before, chip, key, key.substr( 0, 2 ) );
      } );
   }
   auto const table = tableOver( chunk, geometry );
   EXPECT_EQ( table->numUsedEntries(), keys + shared );
   EXPECT_EQ( table->keyToIndexListCount(), keys );
   for ( U32 number = 0; number < keys; ++number ) {
      chips( number, [ & ]( auto chip, auto const& key ) {
         std::string result( 2, '#' );
         ASSERT_TRUE( table->entry( chip, key.data(), result.data() ) );
         ASSERT_EQ( result, key.substr( 0, 2 ) );
      } );
   }
}

TEST( LargeRecovery, ofAMapThatNoCacheHoldsFindsEveryEntry ) {
   constexpr U32 count = 310'000; // of 29 bytes in the map, beyond 8 MB
   Geometry const geometry{ .entries = count, .key = 20, .result = 2 };
   std::vector<std::array<U32, 5>> keys( count );
   std::vector<EmPairAndResult> pairs;
   std::vector<EmPair> asked;
   for ( U32 number = 0; number < count; ++number ) {
      keys[ number ].fill( number );
      auto const* const key = reinterpret_cast<char const*>( keys[ number ].data() );
      pairs.push_back( { chip3, key, key } );
      asked.push_back( { chip3, key } );
   }
   auto const chunk = Vellum::VellumChunk::inProcess( count * 24 );
   ASSERT_EQ( tableOver( chunk, geometry )->entryIsBulk( pairs ), count );
   auto const table = tableOver( chunk, geometry );
   EXPECT_EQ( table->numUsedEntries(), count );
   EXPECT_EQ( table->entryHasBulk( asked ), count );
}

// Pages that nobody has touched are passed over; the one that has been begins amid a word of the bitmap.
TEST( Recovery, findsTheOnlyImageOfASparseChunk ) {
   UniqueName const name;
   auto const chunk = Vellum::VellumChunk::create( *name, 800'008 );
   constexpr U32 slot = ( 4096 * 100 - 8 ) / 8;
   chunk->write( 8 + slot * 8, "\1\3AAAAr1", 8 );
   auto const table = tableOver( chunk, { .entries = 100'000, .key = 4, .result = 2 }, 8 );
   EXPECT_EQ( table->numUsedEntries(), 1U );
   EXPECT_EQ( table->getTableIndex( chip3, keyOf( "AAAA" ) ).value(), slot );
}

TEST( Recovery, ofAPairThatTheMapHoldsElsewhereAddsNoOther ) {
   Geometry const geometry{ .entries = 3000, .key = 4, .result = 2 };
   auto const table = tableOver( Vellum::VellumChunk::inProcess( 3000 * 8 ), geometry );
   auto const keyOfSlot = []( U32 slot ) { return std::to_string( 1000 + slot ); };
   for ( U32 slot = 0; slot < geometry.entries; ++slot ) {
      add( table, chip3, keyOfSlot( slot ), "r1" );
   }
   // Where others made room, a pair that lies behind its place could lie there, too.
   for ( U32 slot = 0; slot < geometry.entries; slot += 2 ) {
      table->entryDel( chip3, keyOfSlot( slot ).data() );
      table->writeToVellumMemory(
         EmTableIndex( slot ), chip3, keyOf( keyOfSlot( slot + 1 ) ), resultOf( "r2" ) );
   }
   table->reconcile();
   EXPECT_EQ( table->keyToIndexListCount(), geometry.entries / 2 );
   EXPECT_EQ( table->numUsedEntries(), geometry.entries );
}

TEST( Recovery, addsToTheObjectOfAKey ) {
   auto const table = newTable();
   add( table, chip3, "AAAA", "r1" );
   auto const object = table->keyToIndexList( keyOf( "AAAA" ) );
   table->writeToVellumMemory( EmTableIndex( 5 ), chip7, keyOf( "AAAA" ), resultOf( "r2" ) );
   table->reconcile();
   EXPECT_EQ( object->index( chip7 ), EmTableIndex( 5 ) );
   EXPECT_EQ( table->keyToIndexListCount(), 1U );
}

TEST( Recovery, tracesEverySlotInOrder ) {
   auto const chunk = Vellum::VellumChunk::inProcess( 64 );
   writeImage( chunk, 1, "\1\3AAAAr1" );
   TraceRecorder trace( "TesselEmTable" );
   tableOver( chunk, { .entries = 2 } );
   EXPECT_THAT( trace.messages(),
                ElementsAre( "EmShadowTable::handleInitialized",
                             "EmShadowTable::reconcile",
                             "EmShadowTable::readFromVellumMemory index:0",
                             "EmTableEntry::copyFromBuf keyLength:4 resultLength:2",
                             "EmShadowTable::readFromVellumMemory index:1",
                             "EmTableEntry::copyFromBuf keyLength:4 resultLength:2",
                             "makeEmTableKey keySize:4",
                             "makeEmTableResult resultSize:2",
                             "EmShadowTable::markIndexUsed index:1",
                             "EmShadowTable::updateTableIndex chipId:3 valid:1 index:1" ) );
}

TEST( Recovery, refusesGeometriesThatNoTableCanHave ) {
   auto const refusal = []( Geometry geometry, U32 offset = 0 ) {
      auto const chunk = Vellum::VellumChunk::inProcess( 64 );
      auto const failure = contractFailure( [ & ] { tableOver( chunk, geometry, offset ); } );
      EXPECT_EQ( chunk->useCount(), 1U );
      return failure ? failure->module() + ": " + failure->condition() : "(none)";
   };
   EXPECT_EQ( refusal( { .entries = 1, .key = 20, .result = 12 } ), "(none)" );
   EXPECT_EQ( refusal( { .key = 21 } ),
              "EmTable: tableHelper()->keyLengthBytes() <= MAX_KEY_LENGTH_IN_BYTE" );
   EXPECT_EQ( refusal( { .key = 0xFFFFFFFF, .result = 0xFFFFFFFF } ),
              "EmTable: tableHelper()->keyLengthBytes() <= MAX_KEY_LENGTH_IN_BYTE" );
   EXPECT_EQ( refusal( { .result = 13 } ),
              "EmTable: tableHelper()->resultLengthBytes() <= MAX_RESULT_LENGTH_IN_BYTE" );
   std::string const tooLarge = "EmTable: vellumOffset() + tableShadowSize() <= 4294967296";
   EXPECT_EQ( refusal( { .entries = 0x40000000, .key = 2, .result = 0 }, 4 ), tooLarge );
   EXPECT_EQ( refusal( { .entries = 0xFFFFFFFF, .key = 20, .result = 12 } ), tooLarge );
   EXPECT_EQ( refusal( { .entries = 8 }, 1 ), "VellumChunk: offset + length <= size()" );
   EXPECT_EQ( failedCondition( [] {
                 emShadowTableFactory( "none", nullptr, Vellum::VellumChunk::inProcess( 8 ), 0 );
              } ),
              "tableHelper()" );
   EXPECT_EQ( failedCondition( [] { tableOver( nullptr ); } ), "vellumChunk()" );
   EXPECT_EQ( failedCondition( [] { tableOver( nullptr, { .entries = 0 } ); } ), "(none)" );
}

} // namespace
