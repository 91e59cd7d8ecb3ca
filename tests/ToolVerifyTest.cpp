// SPDX-License-Identifier: Apache-2.0
#include "support/Tool.h"

#include "tools/tessel/Tables.h"
#include "tools/tessel/Verify.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <sys/wait.h>

namespace {

using namespace TesselTool;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

/// Two tables whose slots are 12 bytes, of which the last two are padding.
constexpr char const* tables =
   R"({ "name": "mac", "kind": "exact", "entries": 8, "key": 6, "result": 2 },
      { "name": "host", "kind": "exact", "entries": 4, "key": 6, "result": 2 } )";

class ToolVerify : public ::testing::Test {
 protected:
   ToolVerify() {
      bench.run( { "load", plan, "mac", "-" }, "0,000000000001,0001\n1,000000000001,0001\n" );
      chunk = Vellum::VellumChunk::open( bench.chunk() );
   }
   void put( U32 offset, std::string_view bytes ) const {
      chunk->write( offset, bytes.data(), static_cast<U32>( bytes.size() ) );
   }
   /// "OFFSET: PROBLEM" for each, as the tool tells it without its usual words.
   std::vector<std::string> problems( std::string const& planOrChunk ) const {
      auto const answer = bench.run( { "verify", planOrChunk } );
      std::vector<std::string> found;
      std::istringstream lines( answer.out );
      std::string const before = bench.chunk() + " offset ";
      for ( std::string line; std::getline( lines, line ); ) {
         if ( line.starts_with( before ) ) {
            found.push_back( line.substr( before.size() ) );
         }
      }
      EXPECT_EQ( answer.status, found.empty() ? 0 : 1 ) << answer.out << answer.err;
      return found;
   }

   TestSupport::ToolBench const bench;
   std::string const plan = bench.planFile( tables );
   Corvo::Ptr<Vellum::VellumChunk> chunk;
   static constexpr U32 mac = 44;
   static constexpr U32 host = mac + 8 * 12 + 8 + 44;
};

TEST_F( ToolVerify, findsNothingWhereNothingIsWrong ) {
   EXPECT_THAT( problems( plan ), IsEmpty() );
   EXPECT_THAT( problems( bench.chunk() ), IsEmpty() );
   EXPECT_EQ( bench.run( { "--json", "verify", plan } ).out,
              "{\"clean\":true,\"problems\":[],\"slotsChecked\":true}\n" );
   EXPECT_THAT( bench.run( { "--json", "verify", bench.chunk() } ).out,
                HasSubstr( "\"slotsChecked\":false" ) );
   EXPECT_EQ( bench.run( { "verify", bench.chunk(), "--key", "20", "--result", "12" } ).status, 1 );
   EXPECT_THAT( bench.run( { "--json", "verify", plan, "--table", "mac" } ).out,
                HasSubstr( "\"slotsChecked\":true" ) );
   EXPECT_THAT( bench.run( { "verify", plan, "--table", "mac" } ).out,
                HasSubstr( "2 tables, of 1 the frame alone" ) );
}

TEST_F( ToolVerify, saysWhenThereIsNoFrameToCheck ) {
   for ( char const byte : { '\0', '\x12' } ) {
      put( 0, std::string( chunk->size(), byte ) );
      std::string const what = byte == '\0' ? "it is all zero" : "its bytes hold no table's frame";
      EXPECT_THAT( bench.run( { "verify", bench.chunk() } ).out,
                   HasSubstr( "nothing to check, " + what ) );
      EXPECT_THAT( bench.run( { "show", bench.chunk() } ).out, HasSubstr( "0 tables: " ) );
      EXPECT_THAT( bench.run( { "map", bench.chunk(), "--key", "6", "--result", "2" } ).out,
                   HasSubstr( "nothing to draw" ) );
   }
}

TEST_F( ToolVerify, namesEachWrongByteOfASlotByItsOffset ) {
   put( mac, "\x02" );
   put( mac + 12 + 11, "\x01" );
   put( mac + 72 + 5, "\x01" );
   put( mac + 36, std::string_view( "\x01\x07\x01\x02\x03\x04\x05\x06\x00\x00\x00\x00", 12 ) );
   put( mac + 60, std::string_view( "\x01\x07\x01\x02\x03\x04\x05\x06\x00\x01\x00\x00", 12 ) );
   EXPECT_THAT(
      problems( plan ),
      ElementsAre( "44, table \"mac\": slot 0 has the valid byte 0x02, neither 0 nor 1",
                   "67, table \"mac\": slot 1 has padding that is not zero",
                   "104, table \"mac\": slot 5 holds chip 7, key 010203040506, which slot 3 holds, "
                   "too",
                   "121, table \"mac\": slot 6 is free, but not all zero" ) );
   EXPECT_THAT( bench.run( { "verify", bench.chunk(), "--key", "6", "--result", "2" } ).out,
                HasSubstr( "4 problems in chunk" ) );
   EXPECT_THAT( bench.run( { "--json", "verify", plan } ).out,
                HasSubstr( R"({"clean":false,"problems":[
{"offset":44,"table":"mac","problem":"slot 0 has)" ) );
}

TEST_F( ToolVerify, findsFramesThatAreDamagedMovedOrMissing ) {
   put( host - 48, "\x01" ); // the trailer of mac ends there
   EXPECT_THAT( problems( bench.chunk() ),
                ElementsAre( "140, table \"mac\": the trailer is missing or damaged" ) );
   put( host - 4, "\x01" ); // in the header of host, its offset
   EXPECT_THAT( problems( bench.chunk() ),
                ElementsAre( HasSubstr( "140, table \"mac\"" ),
                             HasSubstr( "148, table \"host\": the header says that its table lies "
                                        "at offset 1, not behind it" ),
                             HasSubstr( "240: a trailer without a header" ) ) );
   put( host - 44, std::string( 44, '\0' ) );
   EXPECT_THAT( problems( plan ),
                ElementsAre( HasSubstr( "140" ),
                             HasSubstr( "148, table \"host\": where its header with 48 bytes "
                                        "belongs, stands something that is no header" ),
                             HasSubstr( "240: a trailer" ) ) );
   put( mac - 8, "\xff\xff\xff\xff" );
   EXPECT_THAT( problems( bench.chunk() ),
                ElementsAre( HasSubstr( "0, table \"mac\": the header says 4294967295 bytes, which "
                                        "do not fit" ),
                             testing::_ ) );
}

TEST_F( ToolVerify, findsFramesWithinEachOtherAndBesideThePlan ) {
   // The first table's header reaches to the second one's trailer.
   U32 const reach = host + 4 * 12 - mac;
   put( mac - 8, std::string_view( reinterpret_cast<char const*>( &reach ), 4 ) );
   EXPECT_THAT( problems( bench.chunk() ),
                ElementsAre( "148, table \"host\": the frame lies within that of table \"mac\"" ) );
   std::string const other = bench.file(
      "other.json",
      bench.plan( R"({ "name": "arp", "kind": "exact", "entries": 16, "key": 6, "result": 2 })" ) );
   EXPECT_THAT( problems( other ),
                testing::Contains( HasSubstr( "stands the header of a table \"mac\"" ) ) );
}

TEST_F( ToolVerify, waitsForAWriteThatIsUnderWay ) {
   std::vector<std::string> found;
   int pauses = 0;
   auto const verifyMac = [ & ]( std::function<void()> const& pause ) {
      verifySlots(
         *chunk,
         parsePlan( bench.plan( tables ), "plan" ).tables[ 0 ],
         [ & ]( FrameProblem const& problem ) { found.push_back( problem.problem ); },
         [ & ] {
            ++pauses;
            pause();
         } );
   };
   put( mac + 24 + 5, "\x01" );
   verifyMac( [] {} );
   EXPECT_THAT( found, ElementsAre( HasSubstr( "slot 2 is free, but not all zero" ) ) );
   EXPECT_GT( pauses, 5 );
   found.clear();
   verifyMac( [ & ] { put( mac + 24 + 5, std::string_view( "\0", 1 ) ); } );
   EXPECT_THAT( found, IsEmpty() );
}

TEST_F( ToolVerify, takesARunningAgentForNoProblem ) {
   pid_t const agent = ::fork();
   if ( agent == 0 ) { // adds, rewrites and removes until it is killed
      auto const manager =
         openForWriting( parsePlan( bench.plan( tables ), "plan" ), IfMissing::refuse );
      auto const table = manager->managedTable( "mac" );
      for ( char n = 0;; ++n ) {
         std::string const key( 6, static_cast<char>( n % 5 ) );
         table->entryIs( Brine::ChipId( 0 ), key.data(), key.data() );
         table->entryIs( Brine::ChipId( 0 ), key.data(), key.data() + 1 );
         table->entryDel( Brine::ChipId( 0 ), key.data() );
      }
   }
   for ( int i = 0; i < 4; ++i ) {
      EXPECT_THAT( problems( plan ), IsEmpty() );
   }
   ::kill( agent, SIGKILL );
   ::waitpid( agent, nullptr, 0 );
}

TEST_F( ToolVerify, removeTakesAChunkOfTablesAndNothingElse ) {
   auto const bytes = bench.bytes();
   put( 0, std::string( 44, '\0' ) );
   put( host - 44, std::string( 44, '\0' ) );
   EXPECT_THAT( bench.run( { "remove", plan } ).err, HasSubstr( "holds no tables; --force" ) );
   put( 0, bytes.substr( 0, 44 ) );
   EXPECT_EQ( bench.run( { "--json", "remove", bench.chunk() } ).out,
              R"({"chunk":")" + bench.chunk() + R"(","size":65536,"tables":["mac"]})" + "\n" );
   EXPECT_EQ( bench.bytes(), "(missing)" );
   EXPECT_THAT( bench.run( { "remove", plan } ).err, HasSubstr( "does not exist" ) );
   EXPECT_EQ( bench.run( { "remove", plan, "--force" } ).status, 1 );
}

} // namespace
