// SPDX-License-Identifier: Apache-2.0
#include "support/Tool.h"

#include "tools/tessel/DemoScript.h"

#include <nlohmann/json.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <thread>

namespace {

using namespace TesselTool;
using namespace std::chrono_literals;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

/// A registry of made-up blocks, two thirds of them small.
std::string registry( U32 blocks ) {
   std::string text = "Registry,Assignment,Organization Name,Organization Address\n";
   for ( U32 i = 0; i < blocks; ++i ) {
      std::array<char, 16> digits{};
      std::snprintf( digits.data(),
                     digits.size(),
                     "%06X%s",
                     i / 3,
                     i % 3 == 0   ? ""
                     : i % 3 == 1 ? "5"
                                  : "7AB" );
      text += std::string( "X," ) + digits.data() + ",Maker " + std::to_string( i % 700 ) + ",\n";
   }
   return text;
}

std::string chunkOf( pid_t demo ) {
   return "/dev/shm/tessel-demo-" + std::to_string( demo );
}

TEST( Demo, provesThatNothingIsLostAndLeavesNothingBehind ) {
   TestSupport::ToolBench const bench;
   pid_t const demo =
      bench.start( { "demo", "--data", bench.file( "blocks.csv", registry( 9000 ) ) } );
   auto const answer = bench.finish( demo );
   EXPECT_EQ( answer.status, 0 ) << answer.out;
   EXPECT_EQ( answer.err, "" );
   EXPECT_THAT( answer.out,
                AllOf( HasSubstr( "killed with SIGKILL in the middle" ),
                       HasSubstr( "entries are back after" ),
                       HasSubstr( "nothing of chip 2 remains" ),
                       HasSubstr( "Nothing that was acknowledged was lost" ),
                       Not( HasSubstr( "NOT" ) ) ) );
   EXPECT_FALSE( std::filesystem::exists( chunkOf( demo ) ) );
}

TEST( Demo, isADocumentForPrograms ) {
   TestSupport::ToolBench const bench;
   std::string const data = bench.file( "blocks.csv", registry( 9000 ) );
   auto const told = nlohmann::json::parse( bench.run( { "--json", "demo", "--data", data } ).out );
   EXPECT_TRUE( told.at( "held" ).get<bool>() );
   EXPECT_EQ( told.at( "items" ).front().at( "step" ), 1 );
   EXPECT_EQ( std::count_if( told.at( "items" ).begin(),
                             told.at( "items" ).end(),
                             []( auto const& item ) { return item.contains( "step" ); } ),
              7 );
   auto const failed = bench.run( { "--json", "demo", "--data", bench.file( "none.csv", "" ) } );
   EXPECT_FALSE( nlohmann::json::parse( failed.out ).at( "held" ).get<bool>() );
}

TEST( Demo, leavesNothingBehindWhenItIsInterrupted ) {
   TestSupport::ToolBench const bench;
   std::string const data = bench.file( "blocks.csv", registry( 9000 ) );
   for ( int const signal : { SIGINT, SIGTERM, SIGHUP } ) {
      pid_t const demo = bench.start( { "demo", "--data", data } );
      for ( int i = 0; i < 10000 && !std::filesystem::exists( chunkOf( demo ) ); ++i ) {
         std::this_thread::sleep_for( 1ms );
      }
      ::kill( demo, signal );
      auto const answer = bench.finish( demo );
      EXPECT_TRUE( answer.status == 128 + signal || answer.status == 0 ) << answer.err;
      EXPECT_FALSE( std::filesystem::exists( chunkOf( demo ) ) );
   }
}

TEST( Demo, refusesDataThatAKillWouldMiss ) {
   TestSupport::ToolBench const bench;
   auto const few = bench.run( { "demo", "--data", bench.file( "few.csv", registry( 30 ) ) } );
   EXPECT_EQ( few.status, 1 );
   EXPECT_THAT( few.err, HasSubstr( "give more files with --data" ) );
   auto const none = bench.run( { "demo", "--data", bench.file( "none.csv", "what\nis,this\n" ) } );
   EXPECT_EQ( none.status, 1 );
   EXPECT_THAT( none.err, HasSubstr( "holds no new MAC address block" ) );
}

TEST( DemoScript, putsSmallBlocksOnTwoChipsAndCountsPerVendor ) {
   MacRegistry blocks;
   addMacBlocks( blocks, registry( 3 ) );
   blocks.blocks[ 2 ].organisation = 0;
   auto const operations = operationsFor( blocks );
   ASSERT_EQ( operations.size(), 8U ); // 1 + 2 + 2 for the blocks, 3 for their vendors
   auto const entries = entriesAfter( operations );
   EXPECT_EQ( entries.size(), 7U );
   EntryName const vendor{ .table = DemoTable::vendor,
                           .chip = 0,
                           .key = Corvo::Bytes( "\0\0\0\0", 4 ) };
   EXPECT_EQ( entries.at( vendor ), Corvo::Bytes( "\0\0\0\2", 4 ) );
   EXPECT_EQ( operations[ 2 ].entry.key, operations[ 3 ].entry.key );
   EXPECT_NE( operations[ 2 ].entry.chip, operations[ 3 ].entry.chip );
}

TEST( DemoScript, plansRoomForEveryEntry ) {
   MacRegistry blocks;
   addMacBlocks( blocks, registry( 9000 ) );
   auto const operations = operationsFor( blocks );
   Plan const plan = planFor( blocks, operations, "/tessel-unused" );
   EXPECT_GE( plan.tables[ 1 ].entries, 15000U );
   EXPECT_GE( plan.tables[ 2 ].entries, 700U );
   EXPECT_EQ( plan.size, plan.tables[ 2 ].offset + plan.tables[ 2 ].shadowSize + 8 );
}

} // namespace
