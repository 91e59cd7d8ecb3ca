// SPDX-License-Identifier: Apache-2.0
#include "support/Contract.h"
#include "support/Tables.h"
#include "support/Traces.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

namespace {

using namespace TestSupport;
using namespace Tessel;
using testing::ElementsAre;

TEST( KeyToSlotMap, oneKeyOnTwoChipsIsOneMemberWithTwoSlots ) {
   auto const table = newTable();
   table->updateTableIndex( chip0, keyOf( "key0" ), EmTableIndex( 4 ) );
   table->updateTableIndex( chip1, keyOf( "key0" ), EmTableIndex( 6 ) );
   EXPECT_EQ( table->keyToIndexListCount(), 1U );
   auto const indices = table->keyToIndexList( keyOf( "key0" ) );
   EXPECT_EQ( indices->indexCount(), 2U );
   EXPECT_EQ( indices->index( chip0 ).value(), 4U );
   EXPECT_EQ( indices->index( chip1 ).value(), 6U );

   table->deleteTableIndex( chip1, keyOf( "key0" ) );
   EXPECT_EQ( table->getTableIndex( chip0, keyOf( "key0" ) ).value(), 4U );
   EXPECT_FALSE( table->getTableIndex( chip1, keyOf( "key0" ) ).valid() );
   EXPECT_EQ( table->keyToIndexList( keyOf( "key0" ) ), indices );
   table->deleteTableIndex( chip0, keyOf( "key0" ) );
   EXPECT_FALSE( table->keyToIndexListHas( keyOf( "key0" ) ) );
   EXPECT_EQ( table->keyToIndexListCount(), 0U );
}

TEST( KeyToSlotMap, anUpdateReplacesTheSlot ) {
   auto const table = newTable();
   table->updateTableIndex( chip0, keyOf( "key0" ), EmTableIndex( 4 ) );
   table->updateTableIndex( chip0, keyOf( "key0" ), EmTableIndex( 5 ) );
   EXPECT_EQ( table->getTableIndex( chip0, keyOf( "key0" ) ).value(), 5U );
   EXPECT_EQ( table->keyToIndexList( keyOf( "key0" ) )->indexCount(), 1U );
}

TEST( KeyToSlotMap, deletingAPairThatIsAbsentChangesNothing ) {
   auto const table = newTable();
   table->updateTableIndex( chip0, keyOf( "key0" ), EmTableIndex( 4 ) );
   table->deleteTableIndex( chip1, keyOf( "key0" ) );
   table->deleteTableIndex( chip0, keyOf( "key1" ) );
   EXPECT_EQ( table->getTableIndex( chip0, keyOf( "key0" ) ).value(), 4U );
}

TEST( KeyToSlotMap, tracesEveryStepAndTheUpdateBeforeItsCheck ) {
   auto const table = newTable();
   TraceRecorder trace( "TesselEmTable" );
   table->updateTableIndex( chip3, keyOf( "key0" ), EmTableIndex( 4 ) );
   auto const failure = contractFailure(
      [ & ] { table->updateTableIndex( chip3, keyOf( "key0" ), EmTableIndex() ); } );
   table->getTableIndex( chip3, keyOf( "key0" ) );
   table->getTableIndex( chip1, keyOf( "key0" ) );
   table->getTableIndex( chip3, keyOf( "key1" ) );
   table->deleteTableIndex( chip7, keyOf( "key1" ) );
   EXPECT_THAT( trace.messages(),
                ElementsAre( "EmShadowTable::updateTableIndex chipId:3 valid:1 index:4",
                             "EmShadowTable::updateTableIndex chipId:3 valid:0 index:4294967295",
                             "EmShadowTable::getTableIndex chipId:3 index:4",
                             "EmShadowTable::getTableIndex non-existing key",
                             "EmShadowTable::getTableIndex non-existing key",
                             "EmShadowTable::deleteTableIndex chipId:7" ) );
   ASSERT_TRUE( failure );
   EXPECT_EQ( failure->condition(), "index.valid()" );
   EXPECT_EQ( failure->module(), "EmTable" );
}

TEST( KeyToSlotMap, aKeysObjectCanBeReplacedRemovedAndAdded ) {
   auto const table = newTable();
   auto const first = emTableFapIndicesFactory();
   first->indexIs( chip0, EmTableIndex( 1 ) );
   table->keyToIndexListIs( keyOf( "key0" ), nullptr );
   EXPECT_EQ( table->keyToIndexListCount(), 0U );
   table->keyToIndexListIs( keyOf( "key0" ), first );
   EXPECT_EQ( first->useCount(), 2U );
   EXPECT_EQ( table->getTableIndex( chip0, keyOf( "key0" ) ).value(), 1U );

   table->updateTableIndex( chip0, keyOf( "key1" ), EmTableIndex( 2 ) );
   table->keyToIndexListIs( keyOf( "key1" ), first );
   EXPECT_EQ( table->getTableIndex( chip0, keyOf( "key1" ) ).value(), 1U );
   table->keyToIndexListDel( keyOf( "key1" ) );

   auto const second = emTableFapIndicesFactory();
   table->keyToIndexListIs( keyOf( "key0" ), second );
   EXPECT_EQ( first->useCount(), 1U );
   EXPECT_EQ( table->keyToIndexList( keyOf( "key0" ) ), second );
   EXPECT_FALSE( table->getTableIndex( chip0, keyOf( "key0" ) ).valid() );

   table->keyToIndexListIs( keyOf( "key0" ), nullptr );
   EXPECT_FALSE( table->keyToIndexList( keyOf( "key0" ) ) );
   EXPECT_EQ( second->useCount(), 1U );
   table->keyToIndexListIs( keyOf( "key0" ), second );
   EXPECT_EQ( table->keyToIndexListDel( keyOf( "key0" ) ), second );
   EXPECT_FALSE( table->keyToIndexListDel( keyOf( "key0" ) ) );
}

TEST( KeyToSlotMap, theObjectOfAKeyOnOneChipIsTheTablesOwn ) {
   auto const table = newTable();
   ASSERT_TRUE( add( table, chip3, "key0", "r0" ) );
   auto const indices = table->keyToIndexList( keyOf( "key0" ) );
   EXPECT_EQ( table->keyToIndexList( keyOf( "key0" ) ), indices );
   ASSERT_TRUE( add( table, chip5, "key0", "r5" ) );
   EXPECT_EQ( indices->index( chip5 ).value(), 1U );
   indices->indexDel( chip3 );
   EXPECT_FALSE( table->entryHas( chip3, "key0" ) ) << "the object is what the table looks into";
   table->entryDel( chip5, "key0" );
   EXPECT_EQ( indices->indexCount(), 0U );
   EXPECT_EQ( indices->useCount(), 1U );
}

std::set<std::string> keysMet( EmShadowTable const& table ) {
   std::set<std::string> keys;
   for ( auto at = table.keyToIndexListCursor(); at.onMember(); at.advance() ) {
      EXPECT_TRUE( keys.insert( textOf( at.key().bytes() ) ).second ) << "each key once";
   }
   EXPECT_EQ( table.keyToIndexListCount(), keys.size() );
   return keys;
}

TEST( KeyToSlotMap, aKeyOnManyChipsIsOneMemberWithAndWithoutItsObject ) {
   auto const table = tableOver( Vellum::VellumChunk::inProcess( 1 << 16 ), { .entries = 600 } );
   for ( U32 chip = 0; chip < 256; ++chip ) {
      add( table, Brine::ChipId( static_cast<U8>( chip ) ), "key0", "r0" );
      add( table, Brine::ChipId( static_cast<U8>( chip ) ), "key1", "r1" );
   }
   EXPECT_THAT( keysMet( *table ), ElementsAre( "key0", "key1" ) );
   auto const indices = table->keyToIndexList( keyOf( "key0" ) );
   EXPECT_THAT( keysMet( *table ), ElementsAre( "key0", "key1" ) );
   ASSERT_EQ( indices->indexCount(), 256U );
   for ( U32 chip = 0; chip < 256; ++chip ) {
      Brine::ChipId const chipId( static_cast<U8>( chip ) );
      EXPECT_EQ( indices->index( chipId ).value(), 2 * chip );
      EXPECT_EQ( table->getTableIndex( chipId, keyOf( "key0" ) ).value(), 2 * chip );
      table->entryDel( chipId, "key0" );
      table->entryDel( chipId, "key1" );
      EXPECT_EQ( keysMet( *table ).size(), chip < 255 ? 2U : 0U );
   }
   EXPECT_EQ( table->numUsedEntries(), 0U );
}

TEST( KeyToSlotMap, anObjectTakesThePlaceOfItsKeysPairsAndLeavesOthersAlone ) {
   auto const table = tableOver( Vellum::VellumChunk::inProcess( 1 << 16 ), { .entries = 3000 } );
   auto const keyNumber = []( U32 number ) { return std::to_string( 1000 + number ); };
   for ( U32 i = 0; i < 100; ++i ) {
      add( table, chip5, keyNumber( i ), "r0" );
      add( table, chip3, keyNumber( i ), "r0" );
   }
   auto const asked = table->keyToIndexList( keyOf( keyNumber( 7 ) ) );
   auto const given = emTableFapIndicesFactory();
   given->indexIs( chip1, EmTableIndex( 9 ) );
   table->keyToIndexListIs( keyOf( keyNumber( 8 ) ), given );
   EXPECT_FALSE( table->getTableIndex( chip3, keyOf( keyNumber( 8 ) ) ).valid() );
   EXPECT_FALSE( table->entryHas( chip5, keyNumber( 8 ).data() ) );
   EXPECT_TRUE( table->entryHas( chip1, keyNumber( 8 ).data() ) );
   for ( U32 i = 100; i < 1000; ++i ) { // so that the map grows
      add( table, chip7, keyNumber( i ), "r0" );
   }
   table->entryDel( chip3, keyNumber( 7 ).data() ); // whose place the object has
   EXPECT_EQ( table->keyToIndexList( keyOf( keyNumber( 7 ) ) ), asked );
   EXPECT_TRUE( table->entryHas( chip5, keyNumber( 7 ).data() ) );
   add( table, chip0, keyNumber( 7 ), "r0" );
   EXPECT_TRUE( asked->indexHas( chip0 ) );
   EXPECT_EQ( asked->indexCount(), 2U );
   EXPECT_EQ( keysMet( *table ).size(), 1000U );
   EXPECT_EQ( table->keyToIndexListDel( keyOf( keyNumber( 9 ) ) )->indexCount(), 2U );
   EXPECT_FALSE( table->entryHas( chip5, keyNumber( 9 ).data() ) );
}

TEST( KeyToSlotMap, aSlotGivenToTwoPairsIsThatOfBoth ) {
   auto const table = newTable();
   auto const slotOf = [ & ]( std::string_view key ) {
      return table->getTableIndex( chip3, keyOf( key ) ).value();
   };
   auto const slotIs = [ & ]( std::string_view key, U32 slot ) {
      table->updateTableIndex( chip3, keyOf( key ), EmTableIndex( slot ) );
   };
   add( table, chip3, "AAAA", "r1" );
   table->free( EmTableIndex( 0 ) );
   add( table, chip3, "BBBB", "r2" );
   slotIs( "CCCC", 0 );
   slotIs( "DDDD", 5'000'000 );
   EXPECT_EQ( slotOf( "AAAA" ), 0U );
   EXPECT_EQ( slotOf( "BBBB" ), 0U );
   EXPECT_EQ( slotOf( "CCCC" ), 0U );
   EXPECT_EQ( slotOf( "DDDD" ), 5'000'000U );
   EXPECT_EQ( keysMet( *table ).size(), 4U );

   slotIs( "AAAA", 1 ); // which leaves slot 0 to the others
   EXPECT_EQ( slotOf( "AAAA" ), 1U );
   slotIs( "EEEE", 2 );
   slotIs( "EEEE", 1 );
   EXPECT_EQ( slotOf( "EEEE" ), 1U );
   table->deleteTableIndex( chip3, keyOf( "EEEE" ) );
   slotIs( "CCCC", 1 );
   slotIs( "DDDD", 0 );
   table->deleteTableIndex( chip3, keyOf( "BBBB" ) );
   EXPECT_EQ( slotOf( "AAAA" ), 1U );
   EXPECT_EQ( slotOf( "CCCC" ), 1U );
   EXPECT_EQ( slotOf( "DDDD" ), 0U );
   EXPECT_EQ( table->keyToIndexList( keyOf( "CCCC" ) )->index( chip3 ).value(), 1U );
   EXPECT_THAT( keysMet( *table ), ElementsAre( "AAAA", "CCCC", "DDDD" ) );

   auto const keyNumber = []( U32 number ) { return std::to_string( 1000 + number ); };
   for ( U32 i = 0; i < 1000; ++i ) {
      slotIs( keyNumber( i ), i % 9 );
   }
   for ( U32 i = 0; i < 1000; ++i ) {
      ASSERT_EQ( slotOf( keyNumber( i ) ), i % 9 );
      table->deleteTableIndex( chip3, keyOf( keyNumber( i ) ) );
   }
   EXPECT_THAT( keysMet( *table ), ElementsAre( "AAAA", "CCCC", "DDDD" ) );
}

TEST( KeyToSlotMap, thatWasEmptiedKnowsWhichSlotsARestartGives ) {
   auto const table = newTable();
   table->updateTableIndex( chip3, keyOf( "AAAA" ), EmTableIndex( 2 ) );
   table->deleteTableIndex( chip3, keyOf( "AAAA" ) );
   table->writeToVellumMemory( EmTableIndex( 2 ), chip3, keyOf( "BBBB" ), resultOf( "r2" ) );
   table->reconcile();
   table->updateTableIndex( chip3, keyOf( "CCCC" ), EmTableIndex( 2 ) );
   EXPECT_EQ( table->getTableIndex( chip3, keyOf( "BBBB" ) ).value(), 2U );
   EXPECT_EQ( table->getTableIndex( chip3, keyOf( "CCCC" ) ).value(), 2U );
}

TEST( KeyToSlotMap, releasesEveryObjectWithTheTable ) {
   U64 const before = EmTableFapIndices::memAllocationTracker_.live();
   {
      auto const table = newTable();
      for ( auto chip : { chip0, chip1 } ) {
         add( table, chip, "key0", "r0" );
         add( table, chip, "key1", "r1" );
      }
      table->keyToIndexListIs( keyOf( "of another length" ), emTableFapIndicesFactory() );
      EXPECT_EQ( EmTableFapIndices::memAllocationTracker_.live(), before + 1 ) << "nobody asked";
      for ( auto const* key : { "key0", "key1" } ) {
         EXPECT_EQ( table->keyToIndexList( keyOf( key ) )->indexCount(), 2U );
      }
      EXPECT_EQ( EmTableFapIndices::memAllocationTracker_.live(), before + 3 );
      table->keyToIndexListDelAll();
      EXPECT_EQ( EmTableFapIndices::memAllocationTracker_.live(), before );
      EXPECT_EQ( table->keyToIndexListCount(), 0U );
      for ( U32 chip = 0; chip < 256; chip += 9 ) {
         add( table, Brine::ChipId( static_cast<U8>( chip ) ), "key0", "r0" );
      }
      EXPECT_TRUE( table->keyToIndexList( keyOf( "key0" ) ) );
   }
   EXPECT_EQ( EmTableFapIndices::memAllocationTracker_.live(), before );
}

TEST( KeyToSlotMap, keysOfAnotherLengthThanTheTablesAreKeptApart ) {
   auto const table = newTable();
   table->updateTableIndex( chip0, keyOf( "key" ), EmTableIndex( 1 ) );
   table->updateTableIndex( chip0, keyOf( "key0" ), EmTableIndex( 2 ) );
   table->updateTableIndex( chip1, keyOf( "key" ), EmTableIndex( 3 ) );
   EXPECT_EQ( table->keyToIndexListCount(), 2U );
   EXPECT_EQ( table->getTableIndex( chip1, keyOf( "key" ) ).value(), 3U );
   std::set<std::string> keys;
   for ( auto at = table->keyToIndexListCursor(); at.onMember(); at.advance() ) {
      keys.insert( textOf( at.key().bytes() ) );
   }
   EXPECT_THAT( keys, ElementsAre( "key", "key0" ) );
   EXPECT_FALSE( table->getTableIndex( chip1, keyOf( "yek" ) ).valid() );
   table->deleteTableIndex( chip1, keyOf( "yek" ) );
   table->deleteTableIndex( chip3, keyOf( "key" ) );
   EXPECT_EQ( table->keyToIndexListCount(), 2U ) << "neither was there";
   table->deleteTableIndex( chip0, keyOf( "key" ) );
   table->deleteAll( chip1 );
   EXPECT_EQ( table->keyToIndexListCount(), 1U );
}

TEST( KeyToSlotMap, keysThatDifferInOneByteAreDifferentAtEveryLength ) {
   for ( U32 length = 1; length <= MAX_KEY_LENGTH_IN_BYTE; ++length ) {
      auto const table = newTable( { .entries = 64, .key = length, .result = 0 } );
      std::string key( length, '\0' );
      for ( U32 at = 0; at < length; ++at ) {
         key[ at ] = '\x80';
         ASSERT_TRUE( add( table, chip0, key, "" ) );
         key[ at ] = '\0';
      }
      ASSERT_FALSE( table->entryHas( chip0, key.data() ) );
      ASSERT_EQ( table->numUsedEntries(), length );
      for ( U32 at = 0; at < length; ++at ) {
         key[ at ] = '\x80';
         ASSERT_EQ( table->getTableIndex( chip0, keyOf( key ) ).value(), at ) << length;
         key[ at ] = '\0';
      }
   }
}

TEST( KeyToSlotMap, aWalkGoesOnWhenTheKeyUnderItIsRemoved ) {
   auto const table = newTable( { .entries = 64 } );
   for ( int i = 10; i < 70; ++i ) {
      table->updateTableIndex( chip0, keyOf( "k" + std::to_string( i ) + "." ), EmTableIndex( 1 ) );
   }
   U32 met = 0;
   for ( auto at = table->keyToIndexListCursor(); at.onMember(); at.advance() ) {
      ++met;
      table->keyToIndexListDel( at.key() );
      EXPECT_FALSE( at.onMember() );
   }
   EXPECT_EQ( met, 60U );
   EXPECT_EQ( table->keyToIndexListCount(), 0U );
   auto nowhere = table->keyToIndexListCursor( keyOf( "k10." ) );
   nowhere.advance();
   EXPECT_FALSE( nowhere.onMember() );
}

TEST( SlotsOfAKey, holdEveryChipThereIs ) {
   auto const indices = EmTableFapIndices::EmTableFapIndicesIs();
   EXPECT_FALSE( indices->indexDel( chip0 ).valid() );
   for ( U32 chip = 256; chip-- > 0; ) {
      indices->indexIs( Brine::ChipId( static_cast<U8>( chip ) ), EmTableIndex( 1000 + chip ) );
   }
   EXPECT_EQ( indices->indexCount(), 256U );
   U32 expected = 0;
   for ( U32 chip = indices->nextChip( 0 ); chip < 256; chip = indices->nextChip( chip + 1 ) ) {
      Brine::ChipId const id( static_cast<U8>( chip ) );
      ASSERT_EQ( chip, expected++ );
      ASSERT_EQ( indices->indexDel( id ).value(), 1000 + chip );
      ASSERT_FALSE( indices->indexHas( id ) );
   }
   EXPECT_EQ( expected, 256U );
   indices->indexIs( chip3, EmTableIndex( 1 ) );
   indices->indexDelAll();
   EXPECT_FALSE( indices->index( chip3 ).valid() );
}

} // namespace
