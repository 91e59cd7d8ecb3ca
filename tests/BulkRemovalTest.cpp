// SPDX-License-Identifier: Apache-2.0
#include "support/Tables.h"
#include "support/Traces.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace TestSupport;
using namespace Tessel;

TEST( BulkRemoval, ofAChipLeavesTheOtherChips ) {
   auto const table = newTable();
   add( table, chip3, "AAAA", "r1" );
   add( table, chip5, "AAAA", "r2" );
   add( table, chip5, "BBBB", "r3" );
   table->deleteAll( chip5 );
   EXPECT_EQ( lookUp( *table, chip3, "AAAA" ), "r1" );
   EXPECT_FALSE( table->entryHas( chip5, "AAAA" ) );
   EXPECT_EQ( table->keyToIndexListCount(), 1U );
   EXPECT_EQ( table->keyToIndexList( keyOf( "AAAA" ) )->indexCount(), 1U );
   EXPECT_EQ( table->numUsedEntries(), 1U );
   EXPECT_EQ( table->numUsedEntriesByChipId( chip5 ), 0U );
   EXPECT_EQ( imageAt( *table, 2 ), std::string( 8, '\0' ) );
}

TEST( BulkRemoval, ofAChipWithoutEntriesAndOfAnEmptyTableChangesNothing ) {
   auto const table = newTable();
   table->clearTable();
   EXPECT_EQ( table->numUsedEntriesByChipIdCount(), 0U );
   add( table, chip3, "AAAA", "r1" );
   std::string const before = stateOf( *table );
   table->deleteAll( chip5 );
   EXPECT_EQ( stateOf( *table ), before );
   EXPECT_FALSE( table->numUsedEntriesByChipIdHas( chip5 ) );
}

TEST( BulkRemoval, ofATableLeavesZerosAndTheChipsAtZero ) {
   auto const table = newTable();
   add( table, chip5, "AAAA", "r1" );
   add( table, chip5, "BBBB", "r2" );
   table->clearTable();
   EXPECT_EQ( allBytes( table->vellumChunk() ), std::string( 4096, '\0' ) );
   EXPECT_EQ( table->keyToIndexListCount(), 0U );
   EXPECT_EQ( table->numUsedEntries(), 0U );
   EXPECT_TRUE( table->numUsedEntriesByChipIdHas( chip5 ) );
   EXPECT_EQ( table->numUsedEntriesByChipId( chip5 ), 0U );
   add( table, chip7, "CCCC", "r3" );
   EXPECT_EQ( table->getTableIndex( chip7, keyOf( "CCCC" ) ).value(), 0U );
}

TEST( BulkRemoval, reachesEveryPairOnce ) {
   auto const table = newTable( { .entries = 500, .key = 2, .result = 1 } );
   for ( U32 i = 0; i < 480; ++i ) {
      U32 const key = i / 6;
      add( table,
           Brine::ChipId( static_cast<U8>( i % 6 ) ),
           std::string{ static_cast<char>( key ), 'k' },
           "r" );
   }
   TraceRecorder trace( "TesselEmTable", U64{ 1 } << 7 );
   auto const freed = [ & ] {
      auto const lines = trace.take();
      return std::count_if( lines.begin(), lines.end(), []( std::string const& line ) {
         return line.starts_with( "EmShadowTable::free " );
      } );
   };
   table->deleteAll( chip3 );
   EXPECT_EQ( freed(), 80 );
   table->clearTable();
   EXPECT_EQ( freed(), 400 );
   EXPECT_EQ( table->numUsedEntries(), 0U );
   EXPECT_EQ( table->keyToIndexListCount(), 0U );
}

// What a table that owns its range takes out at once has to be what it would take out one by one.
TEST( BulkRemoval, ofAPairInTwoSlotsTakesOutTheOneThatTheMapNames ) {
   for ( U32 const chips : { 0U, 1U, 2U } ) { // of all of them, or of one among so many
      auto const table = newTable();
      for ( U32 const slot : { 1U, 3U } ) {
         table->writeToVellumMemory(
            EmTableIndex( slot ), chip3, keyOf( "AAAA" ), resultOf( "rr" ) );
      }
      auto const restarted = tableOver( table->vellumChunk() );
      add( restarted, chip3, "BBBB", "r1" ); // from now on it knows what lies in its range
      if ( chips == 2 ) {
         add( restarted, chip5, "AAAA", "r5" );
      }
      std::string const kept = imageAt( *restarted, 1 );
      chips != 0 ? restarted->deleteAll( chip3 ) : restarted->clearTable();
      EXPECT_EQ( imageAt( *restarted, 1 ), kept );
      EXPECT_EQ( imageAt( *restarted, 0 ) + imageAt( *restarted, 3 ), std::string( 16, '\0' ) );
      U32 const left = chips == 2 ? 1 : 0;
      EXPECT_EQ( restarted->keyToIndexListCount(), left );
      EXPECT_EQ( restarted->numUsedEntries(), 1 + left );
      EXPECT_EQ( restarted->numUsedEntriesByChipId( chip3 ), 1U );
   }
}

TEST( BulkRemoval, ofAChipAmongSeveralFindsPairsAwayFromTheirPlacesAndNotThoseTakenOutOfTheMap ) {
   constexpr U32 entries = 3000;
   constexpr U32 others = 300; // in front, whole words of the bitmap
   auto const table =
      tableOver( Vellum::VellumChunk::inProcess( entries * 8 ), { .entries = entries } );
   auto const keyNumber = []( U32 number ) { return std::to_string( 1000 + number ); };
   auto const isRemoved = []( U32 number ) { return number >= others && number % 3 == 0; };
   for ( U32 number = 0; number < entries; ++number ) {
      add( table, number == 0 || isRemoved( number ) ? chip3 : chip5, keyNumber( number ), "rr" );
   }
   table->keyToIndexListDel( keyOf( keyNumber( 0 ) ) );
   table->deleteAll( chip3 );
   EXPECT_EQ( table->numUsedEntries(), 2100U );
   EXPECT_EQ( table->numUsedEntriesByChipId( chip3 ), 1U );
   EXPECT_EQ( table->keyToIndexListCount(), 2099U );
   EXPECT_NE( imageAt( *table, 0 ), std::string( 8, '\0' ) );
   for ( U32 number = 1; number < entries; ++number ) {
      ASSERT_EQ( table->entryHas( chip5, keyNumber( number ).data() ), !isRemoved( number ) );
      ASSERT_EQ( imageAt( *table, number ) == std::string( 8, '\0' ), isRemoved( number ) );
   }
   add( table, chip7, "AAAA", "rr" );
   EXPECT_EQ( table->getTableIndex( chip7, keyOf( "AAAA" ) ), EmTableIndex( others ) );
}

TEST( BulkRemoval, ofAChipReachesPairsThatACallerHasGivenASlot ) {
   for ( bool const asObject : { false, true } ) {
      auto const table = newTable();
      add( table, chip3, "AAAA", "r1" );
      if ( asObject ) {
         auto const object = emTableFapIndicesFactory();
         object->indexIs( chip3, EmTableIndex( 5 ) );
         table->keyToIndexListIs( keyOf( "BBBB" ), object );
      } else {
         table->updateTableIndex( chip3, keyOf( "BBBB" ), EmTableIndex( 5 ) );
      }
      table->deleteAll( chip3 );
      EXPECT_FALSE( table->entryHas( chip3, "AAAA" ) );
      EXPECT_FALSE( table->entryHas( chip3, "BBBB" ) );
   }
}

TEST( BulkRemoval, leavesSlotsInUseThatACallerHasTaken ) {
   for ( bool const marked : { false, true } ) {
      auto const table = newTable();
      add( table, chip3, "AAAA", "r1" );
      marked ? table->markIndexUsed( EmTableIndex( 1 ) ) : (void)table->alloc();
      table->clearTable();
      EXPECT_EQ( table->alloc(), EmTableIndex( 0 ) );
      EXPECT_EQ( table->alloc(), EmTableIndex( 2 ) );
   }
}

TEST( BulkRemoval, lowersCountsThatACallerHasSet ) {
   auto const cleared = []( auto const& set ) {
      auto const table = newTable();
      add( table, chip3, "AAAA", "r1" );
      add( table, chip5, "AAAA", "r2" );
      set( *table );
      table->clearTable();
      return table;
   };
   EXPECT_EQ( cleared( []( auto& table ) { table.numUsedEntriesIs( 5 ); } )->numUsedEntries(), 3U );
   EXPECT_EQ( cleared( []( auto& table ) {
                 table.numUsedEntriesByChipIdIs( chip3, 7 );
              } )->numUsedEntriesByChipId( chip3 ),
              6U );
   EXPECT_EQ( cleared( []( auto& table ) {
                 table.numUsedEntriesByChipIdDel( chip5 );
              } )->numUsedEntriesByChipId( chip5 ),
              ~U32{ 0 } );
   EXPECT_EQ( cleared( []( auto& table ) {
                 table.numUsedEntriesByChipIdDelAll();
              } )->numUsedEntriesByChipId( chip3 ),
              ~U32{ 0 } );
}

TEST( BulkRemoval, removesKeysThatHaveNoSlotToo ) {
   auto const table = newTable();
   add( table, chip3, "AAAA", "r1" );
   table->keyToIndexListIs( keyOf( "BBBB" ), emTableFapIndicesFactory() );
   table->updateTableIndex( chip3, keyOf( "of another length" ), EmTableIndex( 5 ) );
   table->updateTableIndex( chip3, keyOf( "CCCC" ), EmTableIndex( 8 ) ); // which is no slot
   table->clearTable();
   EXPECT_EQ( table->keyToIndexListCount(), 0U );
   EXPECT_EQ( table->numUsedEntries(), 0U );

   add( table, chip3, "AAAA", "r1" ); // pairs alone, which go all at once
   table->updateTableIndex( chip3, keyOf( "CCCC" ), EmTableIndex( 8 ) );
   table->vellumChunk()->write( 8 * 8, "another's", 9 );
   table->clearTable();
   EXPECT_EQ( bytesAt( table->vellumChunk(), 8 * 8, 9 ), "another's" );
   EXPECT_EQ( table->keyToIndexListCount(), 0U );
   EXPECT_EQ( table->numUsedEntries(), 0U );
}

} // namespace
