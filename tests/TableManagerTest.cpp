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

class Manager : public testing::Test {
 protected:
   Chunk chunk = Vellum::VellumChunk::inProcess( 8000 );
   Corvo::Ptr<TableManager> manager = tableManagerFactory( "l2", chunk, 1000, 6000 );
   Corvo::Ptr<DirectTableHelper> direct = directTableHelperFactory( 10, 2, 2 );
};

TEST_F( Manager, startsWithItsArgumentsAndActiveNotification ) {
   EXPECT_EQ( manager->agentName(), "l2" );
   EXPECT_EQ( manager->vellumChunk(), chunk );
   EXPECT_EQ( manager->startOffset(), 1000U );
   EXPECT_EQ( manager->currentOffset(), 1000U );
   EXPECT_EQ( manager->allowedSize(), 6000U );
   EXPECT_EQ( manager->endOffset(), 7000U );
   EXPECT_TRUE( manager->nodeFlag( Corvo::Node::notificationActiveFlag ) );
   EXPECT_FALSE( manager->nodeFlag( Corvo::Node::zombieReactorsFlag ) );
   EXPECT_EQ( manager->useCount(), 1U );
   EXPECT_FALSE( Corvo::makePtr<TableManager>( "l2", nullptr, 0U, 0U )
                    ->nodeFlag( Corvo::Node::notificationActiveFlag ) );
   manager->hasNotificationActiveIs( false );
   manager->weftDoZombieReactors( true );
   EXPECT_TRUE( manager->nodeFlag( Corvo::Node::zombieReactorsFlag ) );
   EXPECT_EQ( manager->useCount(), 1U );
}

TEST_F( Manager, takesItsChunkLaterOnce ) {
   manager = tableManagerFactory( "l2", nullptr, 0, 0 );
   EXPECT_EQ( failedCondition( [ & ] { manager->manageDirectShadow( "vlan", direct ); } ),
              "vellumChunk()" );
   TraceRecorder trace( "TesselTableManager" );
   manager->setVellum( nullptr, 5, 6 );
   EXPECT_EQ( manager->currentOffset(), 5U );
   EXPECT_EQ( manager->endOffset(), 11U );
   manager->setVellum( chunk, 16, 6000 );
   EXPECT_EQ( manager->startOffset(), 16U );
   EXPECT_EQ( manager->currentOffset(), 16U );
   auto const again = contractFailure( [ & ] { manager->setVellum( chunk, 0, 1 ); } );
   ASSERT_TRUE( again );
   EXPECT_EQ( again->condition(), "!vellumChunk()" );
   EXPECT_EQ( again->message(), "vellumChunk has already been set!" );
   EXPECT_EQ( again->module(), "TableManager" );
   EXPECT_EQ( manager->startOffset(), 16U );
   EXPECT_THAT( trace.messages(),
                ElementsAre( "setVellum startOffset: 5 allowedSize: 6",
                             "setVellum startOffset: 16 allowedSize: 6000",
                             "setVellum startOffset: 0 allowedSize: 1" ) );
}

TEST_F( Manager, givesTheTableOfANameThatItManages ) {
   auto const vlan = manager->manageDirectShadow( "vlan", direct );
   auto const mac = manager->manageEmShadow( "mac", helperOf( {} ) );
   U32 const offset = manager->currentOffset();
   std::string const before = allBytes( chunk );
   EXPECT_EQ( manager->manageDirectShadow( "vlan", direct ), vlan );
   EXPECT_EQ( manager->manageEmShadow( "vlan", helperOf( {} ) ), vlan );
   EXPECT_EQ( manager->manageDirectShadow( "mac", direct ), mac );
   EXPECT_EQ( manager->manageEmShadow( "mac", helperOf( { .entries = 100000, .key = 21 } ) ), mac );
   EXPECT_EQ( manager->currentOffset(), offset );
   EXPECT_EQ( allBytes( chunk ), before );
}

TEST_F( Manager, tracesEachManageCallBeforeItChecks ) {
   TraceRecorder trace( "TesselTableManager", 1 );
   manager->manageDirectShadow( "vlan", direct );
   manager->manageEmShadow( "mac", helperOf( {} ) );
   auto const without = tableManagerFactory( "l2", nullptr, 0, 0 );
   auto const failure =
      contractFailure( [ & ] { without->manageEmShadow( "x", helperOf( {} ) ); } );
   ASSERT_TRUE( failure );
   EXPECT_EQ( failure->message(), "vellumChunk must be set before managing any tables" );
   EXPECT_THAT(
      trace.messages(),
      ElementsAre( "Tessel::ManagedTableBase::Ptr Tessel::TableManager::manageDirectShadow("
                   "const String&, const Ptr&)tableName: vlan",
                   "Tessel::ManagedTableBase::Ptr Tessel::TableManager::manageEmShadow("
                   "const String&, const Ptr&)tableName: mac",
                   "Tessel::ManagedTableBase::Ptr Tessel::TableManager::manageEmShadow("
                   "const String&, const Ptr&)tableName: x" ) );
}

TEST_F( Manager, holdsOneReferenceOnEachTable ) {
   auto const vlan = manager->manageDirectShadow( "vlan", direct );
   auto const mac = manager->manageEmShadow( "mac", helperOf( {} ) );
   EXPECT_EQ( vlan->useCount(), 2U );
   EXPECT_EQ( mac->useCount(), 2U );
   EXPECT_EQ( manager->managedTable( "mac" ), mac );
   EXPECT_EQ( manager->managedTableDel( "mac" ), mac );
   EXPECT_EQ( manager->managedTableDel( "mac" ), nullptr );
   EXPECT_EQ( mac->useCount(), 1U );
   manager->managedTableIs( "other", vlan );
   EXPECT_EQ( vlan->useCount(), 3U );
   manager->managedTableIs( "other", mac );
   EXPECT_EQ( vlan->useCount(), 2U );
   manager->managedTableIs( "other", nullptr );
   manager->managedTableIs( "other", nullptr );
   EXPECT_EQ( manager->managedTables().count(), 1U );
   manager->managedTableDelAll();
   EXPECT_EQ( vlan->useCount(), 1U );
   EXPECT_EQ( manager->managedTable( "vlan" ), nullptr );
}

TEST_F( Manager, placesARemovedNameBehindAllEarlierRanges ) {
   manager->manageEmShadow( "mac", helperOf( {} ) );
   U32 const offset = manager->currentOffset();
   manager->managedTableDel( "mac" );
   EXPECT_EQ( manager->currentOffset(), offset );
   EXPECT_EQ( manager->manageEmShadow( "mac", helperOf( {} ) )->vellumOffset(), offset + 44 );
}

TEST_F( Manager, removesAChipFromEveryTableAndATableByName ) {
   std::vector<Table> tables;
   for ( auto name : { "a", "b", "c" } ) {
      tables.push_back(
         Corvo::dynamicPtr<EmShadowTable>( manager->manageEmShadow( name, helperOf( {} ) ) ) );
      add( tables.back(), chip3, "AAAA", "r1" );
      add( tables.back(), chip5, "AAAA", "r2" );
   }
   manager->manageDirectShadow( "vlan", direct );
   manager->deleteAll( chip3 );
   for ( auto const& table : tables ) {
      EXPECT_FALSE( table->entryHas( chip3, "AAAA" ) );
      EXPECT_TRUE( table->entryHas( chip5, "AAAA" ) );
   }
   manager->clearTable( "b" );
   manager->clearTable( "unknown" );
   EXPECT_EQ( tables[ 0 ]->numUsedEntries(), 1U );
   EXPECT_EQ( tables[ 1 ]->numUsedEntries(), 0U );
   tableManagerFactory( "empty", chunk, 0, 0 )->deleteAll( chip3 );
}

TEST_F( Manager, dropsItsTablesAndItsChunkAndWritesNothingWhenItGoes ) {
   auto const mac =
      Corvo::dynamicPtr<EmShadowTable>( manager->manageEmShadow( "mac", helperOf( {} ) ) );
   add( mac, chip3, "AAAA", "r1" );
   std::string const before = allBytes( chunk );
   U64 const live = TableManager::memAllocationTracker_.live();
   manager = nullptr;
   EXPECT_EQ( TableManager::memAllocationTracker_.live(), live - 1 );
   EXPECT_EQ( mac->useCount(), 1U );
   EXPECT_EQ( chunk->useCount(), 2U ) << "the table's";
   EXPECT_EQ( allBytes( chunk ), before );
   EXPECT_EQ( lookUp( *mac, chip3, "AAAA" ), "r1" );
}

TEST_F( Manager, whoseRangePasses32BitsManagesNothing ) {
   manager = tableManagerFactory( "l2", chunk, 0xFFFFFFFF, 2 );
   EXPECT_EQ( manager->endOffset(), 1U );
   std::string const fit = "currentOffset() <= endOffset()";
   EXPECT_EQ( failedCondition( [ & ] { manager->manageDirectShadow( "vlan", direct ); } ), fit );
   EXPECT_EQ( failedCondition( [ & ] { manager->manageEmShadow( "mac", helperOf( {} ) ); } ), fit );
   EXPECT_EQ( manager->managedTables().count(), 0U );
}

TEST_F( Manager, whoseRangeEndsWhere32BitsDoManagesWhatFits ) {
   manager = tableManagerFactory( "l2", chunk, 0xFFFFFF00, 0x100 );
   EXPECT_EQ( failedCondition( [ & ] { manager->manageDirectShadow( "vlan", direct ); } ),
              "(none)" );
   EXPECT_EQ( failedCondition( [ & ] { manager->manageEmShadow( "mac", helperOf( {} ) ); } ),
              "offset + length <= size()" )
      << "only the chunk has no room";
}

TEST_F( Manager, withoutRoomManagesDirectTablesOnly ) {
   manager = tableManagerFactory( "l2", chunk, 100, 0 );
   EXPECT_EQ( manager->manageDirectShadow( "vlan", direct )->vellumOffset(), 100U );
   EXPECT_TRUE(
      contractFailure( [ & ] { manager->manageEmShadow( "m", helperOf( { .entries = 0 } ) ); } ) );
}

} // namespace
