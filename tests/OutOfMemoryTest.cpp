// SPDX-License-Identifier: Apache-2.0
#include "support/Heap.h"
#include "support/Tables.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <vector>

namespace {

using namespace TestSupport;
using namespace Tessel;

constexpr std::size_t ofKeys[] = { sizeof( EmTableFapIndices ) };
constexpr std::size_t ofTables[] = { sizeof( EmTableHelper ),       sizeof( Vellum::VellumChunk ),
                                     sizeof( Brine::HBitmap ),      sizeof( DirectShadowTable ),
                                     sizeof( EmShadowTableReader ), sizeof( EmShadowTable ),
                                     sizeof( TableManager ) };

/// failEachAllocation where every new object of these sizes needs a slab, which is an allocation that
/// can fail.
template<class Attempt, class AfterFailure>
U64 failEachWithoutSlabs( std::span<std::size_t const> sizes,
                          Attempt const& attempt,
                          AfterFailure const& afterFailure ) {
   return failEachAllocation(
      [ & ] {
         ExhaustedSlabs const exhausted( sizes );
         attempt();
      },
      afterFailure );
}

/// Fails every allocation of `operation` in turn; `state` is the same after each failure as before.
/// Returns how many failed.
U64 failInTurn( std::function<void()> const& operation,
                std::function<std::string()> const& state ) {
   std::string const before = state();
   U64 const failures =
      failEachWithoutSlabs( ofTables, operation, [ & ] { EXPECT_EQ( state(), before ); } );
   EXPECT_GT( failures, 0U ) << "an operation that allocates nothing proves nothing";
   return failures;
}

std::string keyNumber( U32 number ) {
   return std::to_string( 1000 + number );
}

TEST( OutOfMemory, addingANewKeyLeavesTableAndChunkAsTheyWere ) {
   auto const table = newTable( { .entries = 100 } );
   auto const state = [ & ] { return stateOf( *table ); };
   U64 failures = 0;
   for ( U32 i = 0; i < 100; ++i ) {
      std::string const before = state();
      failures += failEachAllocation( [ & ] { add( table, chip3, keyNumber( i ), "r1" ); },
                                      [ & ] { ASSERT_EQ( state(), before ); } );
      ASSERT_EQ( table->numUsedEntries(), i + 1 );
   }
   EXPECT_GT( failures, 0U );
}

TEST( OutOfMemory, aLargeTableWhoseMapGrowsKeepsItsEntries ) {
   auto const table =
      tableOver( Vellum::VellumChunk::inProcess( 16 << 20 ), { .entries = 400'000 } );
   U64 failures = 0;
   for ( U32 i = 0; i < 200; ++i ) {
      failures += failEachAllocation( [ & ] { add( table, chip3, keyNumber( i ), "r1" ); },
                                      [ & ] {
                                         ASSERT_EQ( table->numUsedEntries(), i );
                                         ASSERT_EQ( table->keyToIndexListCount(), i );
                                      } );
   }
   EXPECT_GT( failures, 2U );
}

TEST( OutOfMemory, addingAKnownKeyOnFurtherChipsDoesSoToo ) {
   auto const table = newTable( { .entries = 300 } );
   add( table, chip0, "AAAA", "r1" );
   auto const object = table->keyToIndexList( keyOf( "AAAA" ) );
   U64 failures = 0;
   for ( U32 chip = 1; chip < 256; ++chip ) { // the object grows now and then
      std::string const before = stateOf( *table );
      failures += failEachWithoutSlabs(
         ofKeys,
         [ & ] { add( table, Brine::ChipId( static_cast<U8>( chip ) ), "AAAA", "r2" ); },
         [ & ] { ASSERT_EQ( stateOf( *table ), before ); } );
   }
   EXPECT_GT( failures, 2U );
   EXPECT_EQ( table->numUsedEntries(), 256U );
}

TEST( OutOfMemory, askingForAKeysObjectAllocatesItAtOnce ) {
   auto table = newTable( { .entries = 300 } );
   for ( U32 chips = 1; chips < 256; ++chips ) {
      add( table, Brine::ChipId( static_cast<U8>( chips ) ), "AAAA", "r1" );
      std::string const before = stateOf( *table );
      U64 const failures = failEachAllocation( [ & ] { table->keyToIndexList( keyOf( "AAAA" ) ); },
                                               [ & ] { ASSERT_EQ( stateOf( *table ), before ); } );
      EXPECT_LE( failures, 1U );
      EXPECT_EQ( stateOf( *table ), before );
      table = tableOver( table->vellumChunk(), { .entries = 300 } );
   }
}

TEST( OutOfMemory, removingAndRewritingAndLookingUpNeedNone ) {
   auto const table = newTable();
   auto const reader = emShadowTableReaderFactory( table );
   add( table, chip3, "AAAA", "r1" );
   add( table, chip3, "BBBB", "r1" );
   add( table, chip5, "BBBB", "r1" );
   auto const neverFails = []( auto const& operation ) {
      EXPECT_EQ( failEachAllocation( operation, [] {} ), 0U );
   };
   std::string buffer( 20, '#' );
   neverFails( [ & ] { add( table, chip3, "AAAA", "r2" ); } );
   neverFails( [ & ] { table->entry( chip3, "AAAA", buffer.data() ); } );
   neverFails( [ & ] { reader->entry( chip3, "AAAA", buffer.data() ); } );
   neverFails( [ & ] { table->entry_py( chip3, bytesOf( "AAAA" ) ); } );
   neverFails( [ & ] { reader->entry_py( chip3, bytesOf( "AAAA" ) ); } );
   auto const at = table->managedTableIteratorConst();
   neverFails( [ & ] { textOf( at.key_py() ) + textOf( at.result_py() ); } );
   EmPair const wanted[] = { { chip3, "AAAA" }, { chip5, "none" } };
   EmPairAndBuffer const room[] = { { chip3, "AAAA", buffer.data() } };
   neverFails( [ & ] { table->entryHasBulk( wanted ); } );
   neverFails( [ & ] { table->entryBulk( room ); } );
   neverFails( [ & ] { table->entryDelBulk( wanted ); } );
   EXPECT_FALSE( table->entryHas( chip3, "AAAA" ) );
   add( table, chip3, "AAAA", "r1" );
   neverFails( [ & ] { table->entryDel( chip3, "AAAA" ); } );
   neverFails( [ & ] { table->deleteAll( chip5 ); } );
   neverFails( [ & ] { table->clearTable(); } );
   EXPECT_EQ( table->numUsedEntries(), 0U );
}

/// What a bulk operation that stopped on its way leaves: slots that are used or free in the bitmap, the
/// map, the images and the counts alike. Returns how many are used.
U32 usedAlike( EmShadowTable const& table ) {
   U32 used = 0;
   for ( U32 slot = 0; slot < table.tableHelper()->numEntries(); ++slot ) {
      if ( !table.freeIndexBmp()->bit( slot ) ) {
         auto const entry = table.readFromVellumMemory( EmTableIndex( slot ) );
         EXPECT_EQ( table.getTableIndex( entry.chipId(), entry.key() ).value(), slot );
         ++used;
      }
   }
   EXPECT_EQ( table.numUsedEntries(), used );
   return used;
}

TEST( OutOfMemory, addingInBulkStopsBetweenTwoEntriesAndGoesOnWhereItStopped ) {
   constexpr U32 pairs = 90;
   auto const table = newTable( { .entries = pairs, .result = 4 } );
   std::vector<std::string> keys;
   for ( U32 i = 0; i < pairs; ++i ) { // each key on six chips, more than an object holds at first
      keys.push_back( keyNumber( i / 6 ) );
   }
   std::vector<EmPairAndResult> wanted;
   for ( U32 i = 0; i < pairs; ++i ) {
      wanted.push_back( { Brine::ChipId( static_cast<U8>( i % 6 ) ), keys[ i ].data(), "res1" } );
   }
   for ( U32 i = 0; i < 30; i += 6 ) {
      table->keyToIndexListIs( keyOf( keys[ i ] ), emTableFapIndicesFactory() );
   }
   bool answers[ pairs ] = {};
   U64 const failures = failEachWithoutSlabs(
      ofKeys,
      [ & ] { table->entryIsBulk( wanted, answers ); },
      [ & ] {
         auto const answered = std::count( answers, answers + pairs, true );
         ASSERT_EQ( usedAlike( *table ), answered );
      } );
   EXPECT_GT( failures, 1U ); // each continues where the one before has stopped
   EXPECT_EQ( usedAlike( *table ), pairs );
   EXPECT_EQ( stateOf( *table ), stateOf( *tableOver( table->vellumChunk(), { pairs, 4, 4 } ) ) );
}

TEST( OutOfMemory, takingOverWhatAnotherWriterAddedStopsBetweenTwoEntries ) {
   auto const table = newTable( { .entries = 60 } );
   auto const writer = tableOver( table->vellumChunk(), { .entries = 60 } );
   for ( U32 i = 0; i < 50; ++i ) {
      add( writer, chip3, keyNumber( i / 2 ), "r1" );
      add( writer, chip5, keyNumber( i / 2 ), "r2" );
   }
   U64 const failures = failEachWithoutSlabs(
      ofKeys, [ & ] { table->reconcile(); }, [ & ] { usedAlike( *table ); } );
   EXPECT_GT( failures, 0U );
   EXPECT_EQ( table->numUsedEntries(), 50U );
   EXPECT_EQ( stateOf( *table ), stateOf( *writer ) );
}

TEST( OutOfMemory, theKeyCollectionIsAsItWasAfterEachFailure ) {
   auto const table = newTable();
   add( table, chip3, "AAAA", "r1" );
   auto const state = [ & ] { return stateOf( *table ); };
   std::vector<Corvo::Ptr<EmTableFapIndices>> held; // so that a block taken is not there again
   U64 failures = 0;
   auto const failEach = [ & ]( auto const& operation ) {
      std::string const before = state();
      failures +=
         failEachWithoutSlabs( ofKeys, operation, [ & ] { ASSERT_EQ( state(), before ); } );
   };
   for ( U32 i = 0; i < 16; ++i ) {
      std::string const stray = "stray key " + keyNumber( i );
      failEach( [ & ] { table->updateTableIndex( chip3, keyOf( stray ), EmTableIndex( 1 ) ); } );
      table->updateTableIndex( chip3, keyOf( "BBBB" ), EmTableIndex( 1 ) );
      held.reserve( held.size() + 1 );
      failEach( [ & ] { held.push_back( table->keyToIndexListDel( keyOf( "BBBB" ) ) ); } );
      failEach( [ & ] { table->keyToIndexListIs( keyOf( stray + "+" ), held.back() ); } );
   }
   EXPECT_EQ( table->keyToIndexListCount(), 33U );
   EXPECT_GT( failures, 2U );
}

TEST( OutOfMemory, whatCannotBeMadeLeavesNothingBehind ) {
   auto const chunk = Vellum::VellumChunk::inProcess( 4096 );
   auto const helper = helperOf( {} );
   add( tableOver( chunk, {} ), chip3, "AAAA", "r1" );
   auto const table = tableOver( chunk, {} );
   auto const references = [ & ] {
      return std::to_string( chunk->useCount() ) + ' ' + std::to_string( helper->useCount() ) +
             ' ' + std::to_string( table->useCount() ) + ' ' +
             std::to_string( EmShadowTable::memAllocationTracker_.live() ) + ' ' +
             std::to_string( Brine::HBitmap::memAllocationTracker_.live() );
   };
   std::string const longName( 100, 'n' );
   failInTurn( [ & ] { emShadowTableFactory( longName, helper, chunk, 0 ); }, references );
   failInTurn( [ & ] { directShadowTableFactory( longName, helper, chunk, 0 ); }, references );
   failInTurn( [ & ] { emShadowTableReaderFactory( table ); }, references );
   failInTurn( [ & ] { emTableHelperFactory( 8, 4, 2 ); }, references );
   failInTurn( [ & ] { tableManagerFactory( longName, chunk, 0, 4096 ); }, references );
   failInTurn( [ & ] { table->managedTableIteratorConst(); }, references );
   auto const at = table->managedTableIteratorConst();
   failInTurn( [ & ] { ManagedTableIteratorConst const copy( at ); }, references );
   UniqueName const name;
   failInTurn(
      [ & ] {
         Vellum::VellumChunk::create( *name, 100 );
         Vellum::VellumChunk::remove( *name );
      },
      [ & ] { return std::string( ::shm_unlink( ( *name ).c_str() ) == 0 ? "left" : "none" ); } );
}

TEST( OutOfMemory, managingATableLeavesManagerAndChunkAsTheyWere ) {
   auto const chunk = Vellum::VellumChunk::inProcess( 4096 );
   auto const manager = tableManagerFactory( "l2", chunk, 0, 4096 );
   auto const state = [ & ] {
      return allBytes( chunk ) + std::to_string( manager->currentOffset() ) + ' ' +
             std::to_string( manager->managedTables().count() );
   };
   for ( U32 i = 0; i < 8; ++i ) { // the collection grows now and then
      std::string const name = "a name that takes memory of its own " + keyNumber( i );
      failInTurn( [ & ] { manager->manageEmShadow( name, helperOf( {} ) ); }, state );
      EXPECT_EQ( manager->managedTables().count(), 2 * i + 1 );
      failInTurn(
         [ & ] { manager->manageDirectShadow( name + "d", directTableHelperFactory( 1, 1, 1 ) ); },
         state );
   }
   EXPECT_EQ( manager->currentOffset(), 8U * ( 44 + 64 + 8 ) );
}

} // namespace
