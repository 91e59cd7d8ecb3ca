// SPDX-License-Identifier: Apache-2.0
#include "support/Contract.h"
#include "support/Tables.h"
#include "support/Traces.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace TestSupport;
using namespace Tessel;
using Brine::HBitmap;
using testing::ElementsAre;

constexpr U64 level7 = U64{ 1 } << 7;

TEST( SlotAllocator, handsOutTheLowestFreeSlot ) {
   auto const table = newTable( { .entries = 3 } );
   EXPECT_EQ( table->alloc().value(), 0U );
   EXPECT_EQ( table->alloc().value(), 1U );
   EXPECT_EQ( table->alloc().value(), 2U );
   table->free( EmTableIndex( 1 ) );
   EXPECT_EQ( table->alloc().value(), 1U );
   EXPECT_EQ( table->numUsedEntries(), 0U ) << "who takes a slot counts it";
}

TEST( SlotAllocator, withoutAFreeSlotAnswersInvalidAndChangesNothing ) {
   auto const table = newTable( { .entries = 1 } );
   table->alloc();
   TraceRecorder trace( "TesselEmTable" );
   EXPECT_FALSE( table->alloc().valid() );
   EXPECT_THAT( trace.messages(), ElementsAre() );
   EXPECT_FALSE( table->freeIndexBmp()->bit( 0 ) );
}

TEST( SlotAllocator, ofATableWithoutSlotsIsFullFromTheStart ) {
   auto const table = newTable( { .entries = 0 } );
   EXPECT_TRUE( table->isFull() );
   EXPECT_FALSE( table->alloc().valid() );
   EXPECT_FALSE( add( table, chip0, "key0", "r0" ) );
   EXPECT_EQ( table->tableShadowSize(), 0U );
}

TEST( SlotAllocator, isFullFollowsTheCountAlone ) {
   auto const table = newTable( { .entries = 2 } );
   table->numUsedEntriesInc( 1 );
   EXPECT_FALSE( table->isFull() );
   EXPECT_EQ( table->numUsedEntriesInc( 1 ), 2U );
   EXPECT_TRUE( table->isFull() );
   table->numUsedEntriesInc( 1 );
   EXPECT_TRUE( table->isFull() );
   EXPECT_EQ( table->numUsedEntriesDec( 4 ), 0xFFFFFFFFU ) << "modulo 2^32";
}

TEST( SlotAllocator, countsByChipKeepAMemberAtZeroUntilItIsRemoved ) {
   auto const table = newTable();
   EXPECT_EQ( table->numUsedEntriesByChipIdInc( chip5, 2 ), 2U );
   EXPECT_EQ( table->numUsedEntriesByChipIdDec( chip5, 2 ), 0U );
   EXPECT_TRUE( table->numUsedEntriesByChipIdHas( chip5 ) );
   EXPECT_EQ( table->numUsedEntriesByChipIdDel( chip5 ), 0U );
   EXPECT_FALSE( table->numUsedEntriesByChipIdHas( chip5 ) );
   EXPECT_EQ( table->numUsedEntriesByChipIdDec( chip3, 1 ), 0xFFFFFFFFU ) << "modulo 2^32";
   table->numUsedEntriesByChipIdIs( Brine::ChipId( 255 ), 0 );
   EXPECT_EQ( table->numUsedEntriesByChipIdCount(), 2U );
   EXPECT_EQ( table->numUsedEntriesByChipIdNext( 4 ), 255U );
   table->numUsedEntriesByChipIdDelAll();
   EXPECT_EQ( table->numUsedEntriesByChipIdCount(), 0U );
   EXPECT_EQ( table->numUsedEntriesByChipId( chip3 ), 0U );
}

TEST( SlotAllocator, tracesBeforeItChecks ) {
   auto const table = newTable( { .entries = 2 } );
   TraceRecorder trace( "TesselEmTable", level7 );
   table->alloc();
   table->markIndexUsed( EmTableIndex( 1 ) );
   table->free( EmTableIndex( 1 ) );
   EXPECT_EQ( failedCondition( [ & ] { table->free( EmTableIndex() ); } ), "index.valid()" );
   EXPECT_THAT( trace.messages(),
                ElementsAre( "ManagedEmTable::alloc index:0",
                             "EmShadowTable::markIndexUsed index:1",
                             "EmShadowTable::free index:1",
                             "EmShadowTable::free index:4294967295" ) );
}

TEST( SlotAllocator, refusesWhatIsNoSlotAndAMissingBitmap ) {
   auto const table = newTable( { .entries = 2 } );
   std::string const outside = "index.value() < tableHelper()->numEntries()";
   EXPECT_EQ( failedCondition( [ & ] { table->free( EmTableIndex( 2 ) ); } ), outside );
   EXPECT_EQ( failedCondition( [ & ] { table->markIndexUsed( EmTableIndex( 2 ) ); } ), outside );
   EXPECT_EQ( failedCondition( [ & ] { table->cleanupIndex( EmTableIndex( 2 ) ); } ), outside );
   EXPECT_EQ( failedCondition( [ & ] { table->invalidateVellumMemory( EmTableIndex( 2 ) ); } ),
              outside );
   EXPECT_EQ( failedCondition( [ & ] { table->readFromVellumMemory( EmTableIndex() ); } ),
              outside );
   EXPECT_EQ( failedCondition( [ & ] {
                 table->writeToVellumMemory(
                    EmTableIndex( 2 ), chip0, keyOf( "" ), resultOf( "" ) );
              } ),
              outside );
   auto const bitmap = table->freeIndexBmpDel();
   EXPECT_TRUE( bitmap );
   EXPECT_FALSE( table->freeIndexBmp() );
   std::string const absent = "freeIndexBmp()";
   EXPECT_EQ( failedCondition( [ & ] { table->alloc(); } ), absent );
   EXPECT_EQ( failedCondition( [ & ] { table->free( EmTableIndex( 0 ) ); } ), absent );
   EXPECT_EQ( failedCondition( [ & ] { add( table, chip0, "key0", "r0" ); } ), absent );
   EXPECT_EQ( failedCondition( [ & ] { table->reconcile(); } ), absent );
}

TEST( SlotAllocator, keepsABitmapAskedForAgainAndReplacesItForAnythingElse ) {
   auto const table = newTable( { .entries = 4 } );
   table->alloc();
   auto const bitmap = table->freeIndexBmp();
   EXPECT_EQ( table->freeIndexBmpIs( 0, 4, HBitmap::BitState::allSet ), bitmap );
   EXPECT_FALSE( bitmap->bit( 0 ) );
   auto const ofOtherSize = table->freeIndexBmpIs( 0, 5, HBitmap::BitState::allSet );
   EXPECT_NE( ofOtherSize, bitmap );
   EXPECT_TRUE( ofOtherSize->bit( 0 ) );
   EXPECT_NE( table->freeIndexBmpIs( 1, 5, HBitmap::BitState::allSet ), ofOtherSize );
   EXPECT_FALSE( table->freeIndexBmpIs( 1, 5, HBitmap::BitState::allClear )->bit( 0 ) );
   EXPECT_EQ( bitmap->useCount(), 1U ) << "the table has let go of it";
}

TEST( SlotAllocator, anEntryBehindTheEndOfACallersBitmapIsKeptByEveryRemoval ) {
   auto const table = newTable();
   for ( auto const key : { "key0", "key1", "key2", "key3" } ) {
      add( table, key[ 3 ] < '3' ? chip0 : chip5, key, "r0" );
   }
   table->freeIndexBmpIs( 0, 2, HBitmap::BitState::allClear );
   std::string const outside = "index.value() < freeIndexBmp()->size()";
   auto const kept = [ & ]( Brine::ChipId chip, std::string const& key ) {
      return table->entryHas( chip, key.data() ) && lookUp( *table, chip, key ) == "r0";
   };
   EXPECT_EQ( failedCondition( [ & ] { table->entryDel( chip0, "key2" ); } ), outside );
   EXPECT_EQ( failedCondition( [ & ] { table->deleteAll( chip5 ); } ), outside );
   EXPECT_EQ( table->numUsedEntries(), 4U );
   EXPECT_EQ( failedCondition( [ & ] { table->clearTable(); } ), outside );
   EXPECT_TRUE( kept( chip0, "key2" ) && kept( chip5, "key3" ) );
   U32 const left = 2U + kept( chip0, "key0" ) + kept( chip0, "key1" );
   EXPECT_EQ( table->numUsedEntries(), left ) << "it stopped between two entries";
   EXPECT_EQ( tableOver( table->vellumChunk() )->numUsedEntries(), left );
}

TEST( SlotAllocator, aSlotThatOnlyALargerBitmapHasIsNeverTaken ) {
   auto const table = newTable( { .entries = 1 } );
   table->freeIndexBmpIs( 0, 2, HBitmap::BitState::allSet );
   ASSERT_TRUE( add( table, chip0, "key0", "r0" ) );
   std::string const before = stateOf( *table );
   EXPECT_FALSE( add( table, chip0, "key1", "r1" ) );
   EXPECT_EQ( stateOf( *table ), before );
   EXPECT_TRUE( table->freeIndexBmp()->bit( 1 ) );
}

} // namespace
