// SPDX-License-Identifier: Apache-2.0
#include "support/Terminal.h"
#include "support/Tool.h"

#include "Vellum/VellumChunk.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using TestSupport::Terminal;

constexpr char const* otherPage = "\x1b[?1049h";
constexpr char const* back = "\x1b[?7h\x1b[?25h\x1b[?1049l";

class ToolTerminal : public ::testing::Test {
 protected:
   ToolTerminal() { bench.run( { "update", plan, "mac", "0", "000000000001", "0001" } ); }

   std::vector<std::string> watch( std::string const& interval = "100" ) const {
      return { "watch", plan, "--interval", interval };
   }

   TestSupport::ToolBench const bench;
   std::string const plan = bench.planFile(
      R"({ "name": "mac", "kind": "exact", "entries": 8, "key": 6, "result": 2 })" );
};

TEST_F( ToolTerminal, watchFollowsTheAgentUntilQ ) {
   Terminal terminal( watch( "0.05" ) );
   ASSERT_TRUE( terminal.shows( otherPage ) );
   ASSERT_TRUE( terminal.shows( "12.5 %" ) );
   bench.run( { "update", plan, "mac", "7", "000000000001", "0001" } );
   ASSERT_TRUE( terminal.shows( "25.0 %" ) );
   bench.run( { "remove", plan } );
   ASSERT_TRUE( terminal.shows( "does not exist" ) );
   EXPECT_EQ( bench.run( { "update", plan, "mac", "9", "000000000001", "0001" } ).status, 0 );
   ASSERT_TRUE( terminal.shows( "12.5 %" ) );
   terminal.type( "xq" );
   EXPECT_EQ( terminal.finish(), 0 );
   EXPECT_THAT( terminal.output(), EndsWith( back ) );
}

TEST_F( ToolTerminal, watchLeavesTheTerminalAsItWasWhateverEndsIt ) {
   for ( int const signal : { SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGABRT, SIGSEGV } ) {
      Terminal terminal( watch() );
      ASSERT_TRUE( terminal.shows( "q ends" ) );
      EXPECT_FALSE( terminal.isAsAShellLeftIt() );
      terminal.signal( signal );
      EXPECT_EQ( terminal.finish(), 128 + signal );
      EXPECT_TRUE( terminal.isAsAShellLeftIt() ) << signal;
      EXPECT_THAT( terminal.output(), HasSubstr( back ) ) << signal;
   }
   Terminal terminal( watch() );
   ASSERT_TRUE( terminal.shows( "q ends" ) );
   terminal.type( "\x03" ); // Ctrl-C
   EXPECT_EQ( terminal.finish(), 128 + SIGINT );
}

TEST_F( ToolTerminal, watchComesBackAfterAStopAndFitsTheWindow ) {
   Terminal terminal( watch() );
   ASSERT_TRUE( terminal.shows( "q ends" ) );
   terminal.signal( SIGSTOP );
   terminal.signal( SIGCONT );
   ASSERT_TRUE( terminal.shows( otherPage ) );
   ASSERT_TRUE( terminal.shows( "q ends" ) );
   terminal.signal( SIGTSTP );
   ASSERT_TRUE( terminal.shows( back ) );
   terminal.signal( SIGCONT );
   ASSERT_TRUE( terminal.shows( "q ends" ) );
   terminal.resize( 3 );
   ASSERT_TRUE( terminal.shows( "more lines, in a higher window\x1b[K\r\r\nq ends" ) );
   terminal.type( "q" );
   EXPECT_EQ( terminal.finish(), 0 );
   auto const last = terminal.output().rfind( "\x1b[H" );
   EXPECT_THAT( terminal.output().substr( last ), testing::Not( HasSubstr( "mac" ) ) );
}

TEST_F( ToolTerminal, aChunkThatIsCutShortIsOneLine ) {
   Terminal terminal( watch( "0.05" ) );
   ASSERT_TRUE( terminal.shows( "q ends" ) );
   std::filesystem::resize_file( "/dev/shm" + bench.chunk(), 100 );
   ASSERT_TRUE( terminal.shows( "has 100 bytes, the plan says 65536" ) );
   terminal.signal( SIGBUS ); // as an access to what is gone raises it
   EXPECT_EQ( terminal.finish(), 1 );
   EXPECT_THAT( terminal.output(), HasSubstr( "the chunk's memory is gone" ) );
   EXPECT_TRUE( terminal.isAsAShellLeftIt() );
}

TEST_F( ToolTerminal, aWatchWithoutATerminalIsPlainLines ) {
   auto const answer = bench.run( { "watch", plan, "--count", "2", "--interval", "0.05" } );
   EXPECT_EQ( answer.status, 0 );
   EXPECT_THAT( answer.out, testing::Not( HasSubstr( "\x1b" ) ) );
   EXPECT_EQ( bench.run( { "watch", plan, "--interval", "0" } ).status, 2 );
   EXPECT_EQ( bench.run( { "watch", plan, "--count", "x" } ).status, 2 );
   EXPECT_THAT( bench.run( { "--json", "watch", plan, "--count", "1" } ).out,
                testing::StartsWith( R"({"seconds":0.0,"tables":[{"name":"mac","entries":8,)" ) );
}

} // namespace
