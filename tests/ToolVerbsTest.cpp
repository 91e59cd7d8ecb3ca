// SPDX-License-Identifier: Apache-2.0
#include "support/Tool.h"

#include "Tessel/TableManager.h"
#include "tools/tessel/HexText.h"

#include <nlohmann/json.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using Json = nlohmann::json;
using TestSupport::Answer;
using Words = std::vector<std::string>;

constexpr char const* tables =
   R"({ "name": "vlan", "kind": "direct", "entries": 64, "key": 2, "result": 2 },
      { "name": "mac", "kind": "exact", "entries": 4, "key": 6, "result": 2 },
      { "name": "set", "kind": "exact", "entries": 100, "key": 2, "result": 0 } )";

class Tool : public ::testing::Test {
 protected:
   Answer run( Words const& words, std::string const& input = {} ) const {
      return bench.run( words, input );
   }
   Answer load( std::string const& lines, Words const& options = {} ) const {
      Words words{ "load", plan, "mac", "-" };
      words.insert( words.end(), options.begin(), options.end() );
      return run( words, lines );
   }
   std::string dump( std::string const& table = "mac" ) const {
      return run( { "dump", plan, table } ).out;
   }

   TestSupport::ToolBench const bench;
   std::string const plan = bench.planFile( tables );
};

/// Whether an answer is one printable line on standard error that says `what`.
void expectError( Answer const& answer, int status, std::string const& what ) {
   EXPECT_EQ( answer.status, status ) << answer.err;
   EXPECT_EQ( answer.out, "" );
   EXPECT_THAT( answer.err, AllOf( StartsWith( "tessel: " ), HasSubstr( what ) ) );
   EXPECT_EQ( std::count( answer.err.begin(), answer.err.end(), '\n' ), 1 ) << answer.err;
   EXPECT_TRUE( std::none_of( answer.err.begin(),
                              answer.err.end() - 1,
                              []( unsigned char c ) { return c < 0x20 || c == 0x7f; } ) )
      << answer.err;
}

// ------------------------------------------------------------------------- entries

TEST_F( Tool, saysThatNothingWasLoadedWhenItIsInterruptedWhileItReads ) {
   std::string const pipe = bench.path( "pipe" );
   ASSERT_EQ( ::mkfifo( pipe.c_str(), 0600 ), 0 );
   int const writer = ::open( pipe.c_str(), O_RDWR );
   ASSERT_EQ( ::write( writer, "1,001122334455,0000\n", 20 ), 20 );
   pid_t const tool = bench.start( { "load", plan, "mac", pipe } );
   for ( int unread = 1; unread > 0; ) {
      ASSERT_EQ( ::ioctl( writer, FIONREAD, &unread ), 0 );
   }
   ASSERT_EQ( ::kill( tool, SIGINT ), 0 ); // once, also when it comes just before the next read
   expectError( bench.finish( tool ), 128 + SIGINT, "nothing was loaded" );
   EXPECT_EQ( bench.bytes(), "(missing)" );
   ::close( writer );
}

TEST_F( Tool, writesAloneOrNotAtAll ) {
   ASSERT_EQ( run( { "update", plan, "mac", "3", "001122334455", "00aa" } ).status, 0 );
   std::string const before = bench.bytes();
   int const held = ::open( ( "/dev/shm" + bench.chunk() ).c_str(), O_RDONLY );
   ASSERT_EQ( ::flock( held, LOCK_EX ), 0 );
   for ( Words const& words :
         { Words{ "update", plan, "mac", "3", "001122334455", "00bb" },
           Words{ "delete", plan, "mac", "3", "001122334455" },
           Words{ "load", plan, "mac", bench.file( "one", "1,001122334455,0000" ) },
           Words{ "clear", plan, "mac" },
           Words{ "remove", plan, "--force" } } ) {
      expectError( run( words ), 1, "another tessel; nothing was changed" );
   }
   EXPECT_EQ( bench.bytes(), before );
   ::close( held );
   EXPECT_EQ( run( { "clear", plan, "mac" } ).out, "removed 1 entry\n" );
}

TEST_F( Tool, anUpdatedEntryIsFoundUntilItIsDeleted ) {
   EXPECT_EQ( run( { "update", plan, "mac", "3", "00:11:22:33:44:55", "00AA" } ).status, 0 );
   EXPECT_EQ( run( { "lookup", plan, "mac", "3", "0011.2233.4455" } ).out, "00aa\n" );
   EXPECT_EQ( run( { "update", plan, "mac", "3", "001122334455", "00ab" } ).status, 0 );
   EXPECT_EQ( dump(), "3,001122334455,00ab\n" );
   expectError( run( { "lookup", plan, "mac", "4", "001122334455" } ),
                1,
                "table \"mac\" has no entry for chip 4, key 001122334455" );
   EXPECT_EQ( run( { "delete", plan, "mac", "3", "001122334455" } ).status, 0 );
   expectError( run( { "delete", plan, "mac", "3", "001122334455" } ), 1, "has no entry" );
   EXPECT_EQ( dump(), "" );
}

TEST_F( Tool, anAgentFindsWhatTheToolWroteAndTheToolWhatTheAgentWrote ) {
   run( { "update", plan, "mac", "1", "001122334455", "0007" } );
   auto const chunk = Vellum::VellumChunk::open( bench.chunk() );
   auto const agent = Tessel::tableManagerFactory( "l2", chunk, 0, 65536 );
   agent->manageDirectShadow( "vlan", Tessel::directTableHelperFactory( 64, 2, 2 ) );
   auto const mac = agent->manageEmShadow( "mac", Tessel::emTableHelperFactory( 4, 6, 2 ) );
   Corvo::Bytes const key( "\x00\x11\x22\x33\x44\x55", 6 );
   EXPECT_EQ( mac->entry_py( Brine::ChipId( 1 ), key ), Corvo::Bytes( "\x00\x07", 2 ) );
   mac->entryIs_py( Brine::ChipId( 2 ), key, Corvo::Bytes( "\x00\x08", 2 ) );
   EXPECT_EQ( dump(), "1,001122334455,0007\n2,001122334455,0008\n" );
}

TEST_F( Tool, resultsAndKeysOfNoLengthTravel ) {
   EXPECT_EQ( run( { "update", plan, "set", "0", "0102", "" } ).status, 0 );
   EXPECT_EQ( dump( "set" ), "0,0102,\n" );
   EXPECT_EQ( run( { "lookup", plan, "set", "0", "0102" } ).out, "\n" );
   EXPECT_EQ( run( { "load", plan, "set", "-" }, dump( "set" ) ).status, 0 );
}

TEST_F( Tool, aFullTableRefusesAnUpdateAndTakesARewrite ) {
   load( "0,000000000001,0001\n0,000000000002,0001\n0,000000000003,0001\n0,000000000004,0001\n" );
   expectError( run( { "update", plan, "mac", "0", "000000000005", "0001" } ),
                1,
                "table \"mac\" is full with 4 entries" );
   EXPECT_EQ( run( { "update", plan, "mac", "0", "000000000004", "0002" } ).status, 0 );
}

TEST_F( Tool, aDirectTableKeepsNothingAndSaysSo ) {
   expectError( run( { "update", plan, "vlan", "0", "0001", "0001" } ), 1, "is a direct table" );
   expectError( run( { "load", plan, "vlan", "-" } ), 1, "is a direct table" );
   EXPECT_EQ( bench.bytes(), "(missing)" );
   run( { "update", plan, "set", "0", "0102", "" } );
   expectError( run( { "lookup", plan, "vlan", "0", "0001" } ), 1, "it is a direct table" );
   EXPECT_EQ( dump( "vlan" ), "" );
   EXPECT_EQ( run( { "clear", plan, "vlan" } ).out, "removed 0 entries\n" );
}

TEST_F( Tool, clearRemovesATableOrAChip ) {
   load( "0,000000000001,0001\n1,000000000001,0001\n1,000000000002,0001\n" );
   run( { "load", plan, "set", "-" }, "1,0001,\n2,0001,\n" );
   EXPECT_EQ( run( { "clear", plan, "--chip", "1" } ).out, "removed 3 entries\n" );
   EXPECT_EQ( dump() + dump( "set" ), "0,000000000001,0001\n2,0001,\n" );
   EXPECT_EQ( run( { "clear", plan, "mac" } ).out, "removed 1 entry\n" );
   EXPECT_EQ( dump() + dump( "set" ), "2,0001,\n" );
}

// ------------------------------------------------------------------------- load and dump

TEST_F( Tool, whatWasDumpedLoadsIntoTheSameBytes ) {
   load( "9,000000000003,0001\n200,000000000001,ffff\n0,000000000002,0003\n" );
   std::string const dumped = dump();
   std::string const bytes = bench.bytes();
   EXPECT_EQ( load( dumped ).out, "0 added, 3 replaced, 0 refused (table full), 0 bad lines\n" );
   EXPECT_EQ( bench.bytes(), bytes );
   run( { "clear", plan, "mac" } );
   EXPECT_EQ( load( dumped ).out, "3 added, 0 replaced, 0 refused (table full), 0 bad lines\n" );
   EXPECT_EQ( bench.bytes(), bytes );
}

TEST_F( Tool, aLoadOfManyLinesIsAsOneLineAfterAnother ) {
   std::string const large = bench.file(
      "large.json",
      bench.plan(
         R"({ "name": "mac", "kind": "exact", "entries": 1500, "key": 6, "result": 2 })" ) );
   std::string lines;
   std::map<std::string, std::string> last; // by chip and key
   for ( unsigned i = 0; i < 4000; ++i ) {  // pairs come back within a block and behind it
      std::array<char, 32> pair{};
      std::array<char, 8> result{};
      std::snprintf( pair.data(), pair.size(), "%u,%012x", i % 3, i * 7919 % 450 );
      std::snprintf( result.data(), result.size(), "%04x", i % 5 == 0 ? 0 : i );
      lines += std::string( pair.data() ) + ',' + result.data() + '\n';
      last[ pair.data() ] = result.data();
   }
   EXPECT_EQ( run( { "load", large, "mac", "-" }, lines ).out,
              std::to_string( last.size() ) + " added, " +
                 "3,550 replaced, 0 refused (table full), "
                 "0 bad lines\n" );
   std::map<std::string, std::string> found;
   std::istringstream dumped( run( { "dump", large, "mac" } ).out );
   for ( std::string line; std::getline( dumped, line ); ) {
      found[ line.substr( 0, line.rfind( ',' ) ) ] = line.substr( line.rfind( ',' ) + 1 );
   }
   EXPECT_EQ( found, last );
}

TEST_F( Tool, linesAreAppliedInTheirOrder ) {
   EXPECT_EQ( load( "0,000000000001,0001\n0,000000000002,0002\n0,000000000001,0003\n" ).out,
              "2 added, 1 replaced, 0 refused (table full), 0 bad lines\n" );
   EXPECT_EQ( dump(), "0,000000000001,0003\n0,000000000002,0002\n" );
}

TEST_F( Tool, oneBadLineAndNothingIsWritten ) {
   std::string const lines = "0,000000000001,0001\n0,0001,0001\n\n0,000000000002,0002\n";
   Answer const missing = load( lines );
   EXPECT_EQ( missing.status, 1 );
   EXPECT_THAT( missing.err,
                HasSubstr( "standard input:2: key \"0001\" has 2 bytes, 6 are needed" ) );
   EXPECT_THAT( missing.out, HasSubstr( "0 added, 0 replaced" ) );
   EXPECT_EQ( bench.bytes(), "(missing)" );
   load( "7,000000000007,0007\n" );
   std::string const bytes = bench.bytes();
   EXPECT_EQ( load( lines ).status, 1 );
   EXPECT_EQ( bench.bytes(), bytes );
   Answer const kept = load( lines, { "--keep-going" } );
   EXPECT_EQ( kept.status, 1 );
   EXPECT_EQ( kept.out, "2 added, 0 replaced, 0 refused (table full), 1 bad line\n" );
   EXPECT_EQ( dump(), "7,000000000007,0007\n0,000000000001,0001\n0,000000000002,0002\n" );
}

TEST_F( Tool, aFullTableRefusesTheRestAndCountsIt ) {
   std::string lines;
   for ( char digit = '1'; digit <= '7'; ++digit ) {
      lines += std::string( "0,00000000000" ) + digit + ",0001\n";
   }
   Answer const answer = run( { "--json", "load", plan, "mac", bench.file( "l.csv", lines ) } );
   EXPECT_EQ( answer.status, 1 );
   EXPECT_EQ( answer.out,
              R"({"loaded":4,"added":4,"replaced":0,"refused":3,"bad":0})"
              "\n" );
   EXPECT_THAT( answer.err, HasSubstr( "is full with 4 entries: 3 entries were refused" ) );
   // What is there already is rewritten also behind a refused line.
   EXPECT_EQ( load( "0,000000000009,0001\n0,000000000001,0002\n" ).out,
              "0 added, 1 replaced, 1 refused (table full), 0 bad lines\n" );
}

// ------------------------------------------------------------------------- chunks and plans

TEST_F( Tool, onlyLoadAndUpdateCreateAChunk ) {
   for ( Words const& words : { Words{ "show", plan },
                                Words{ "show", bench.chunk() },
                                Words{ "dump", plan, "mac" },
                                Words{ "lookup", plan, "mac", "0", "000000000001" },
                                Words{ "delete", plan, "mac", "0", "000000000001" },
                                Words{ "clear", plan, "mac" },
                                Words{ "verify", plan },
                                Words{ "verify", bench.chunk() },
                                Words{ "map", plan },
                                Words{ "watch", plan },
                                Words{ "remove", plan } } ) {
      expectError( run( words ), 1, "chunk \"" + bench.chunk() + "\" does not exist" );
      EXPECT_EQ( bench.bytes(), "(missing)" ) << words[ 0 ];
   }
   EXPECT_EQ( load( "0,000000000001,0001\n" ).status, 0 );
   EXPECT_EQ( bench.bytes().size(), 65536U );
}

TEST_F( Tool, aChunkOfAnotherPlanIsRefusedWithItsBytesUnchanged ) {
   load( "0,000000000001,0001\n" );
   std::string const bytes = bench.bytes();
   std::string other = tables;
   other.replace( other.find( "\"entries\": 4," ), 13, "\"entries\": 5," );
   for ( std::string const& wrong : { bench.file( "other.json", bench.plan( other ) ),
                                      bench.file( "small.json", bench.plan( tables, 65535 ) ) } ) {
      for ( Words const& words : { Words{ "update", wrong, "mac", "0", "000000000002", "0001" },
                                   Words{ "delete", wrong, "mac", "0", "000000000001" },
                                   Words{ "load", wrong, "mac", "-" },
                                   Words{ "clear", wrong, "--chip", "0" } } ) {
         expectError( run( words ), 1, "nothing was changed" );
         EXPECT_EQ( bench.bytes(), bytes ) << words[ 0 ];
      }
   }
   expectError(
      run( { "dump", bench.path( "other.json" ), "mac" } ), 1, "does not match the plan" );
}

TEST_F( Tool, ofAChunkThatShrankIsReadWhatIsLeft ) {
   load( "0,000000000001,0001\n" );
   std::filesystem::resize_file( "/dev/shm" + bench.chunk(), 100 ); // table mac ends there
   expectError( run( { "dump", plan, "set" } ), 1, "has 100 bytes, the plan says 65536" );
   expectError(
      run( { "lookup", plan, "set", "0", "0001" } ), 1, "or remove a chunk that was cut" );
   expectError( run( { "clear", plan, "mac" } ), 1, "has 100 bytes" );
   EXPECT_EQ( dump(), "0,000000000001,0001\n" );
   EXPECT_EQ( run( { "lookup", plan, "mac", "0", "000000000001" } ).out, "0001\n" );
   Answer const shown = run( { "show", plan } );
   EXPECT_EQ( shown.status, 1 );
   EXPECT_THAT( shown.out, AllOf( HasSubstr( "(planned: 65,536)" ), HasSubstr( "25.0 %" ) ) );
   EXPECT_THAT( shown.err, HasSubstr( "table \"set\" with 400 bytes at offset 144" ) );
   EXPECT_EQ( run( { "show", bench.chunk() } ).status, 0 );
   std::filesystem::resize_file( "/dev/shm" + bench.chunk(), 90 );
   expectError( run( { "dump", plan, "mac" } ), 1, "has 90 bytes" );
}

TEST_F( Tool, tablesOfOneNameInAChunkAreToldApartByTheirPlans ) {
   load( "0,000000000001,0001\n" );
   auto const chunk = Vellum::VellumChunk::open( bench.chunk() );
   auto const other = Tessel::tableManagerFactory( "other", chunk, 30000, 30000 );
   other->manageEmShadow( "mac", Tessel::emTableHelperFactory( 4, 6, 2 ) );
   auto const withLengths = [ & ]( Words words ) {
      words.insert( words.end(), { bench.chunk(), "mac", "--key", "6", "--result", "2" } );
      return run( words );
   };
   expectError( withLengths( { "dump" } ), 1, "has 2 tables \"mac\": give the plan" );
   std::string const watched =
      withLengths( { "--json", "watch", "--count", "2", "--interval", "0.05" } ).out;
   EXPECT_THAT( watched,
                AllOf( HasSubstr( R"("used":1,"added":0)" ), HasSubstr( R"("used":0)" ) ) );
   EXPECT_THAT( watched, testing::Not( HasSubstr( R"("added":1)" ) ) );
}

// A dump that waits for who reads it has most of its table still before it.
TEST_F( Tool, aChunkThatShrinksUnderAVerbIsReportedByIt ) {
   std::string const wide = bench.planFile(
      R"({ "name": "mac", "kind": "exact", "entries": 9000, "key": 20, "result": 12 })", 400000 );
   std::string lines;
   for ( int i = 0; i < 9000; ++i ) {
      lines += "0," + std::to_string( 1000000 + i ) + std::string( 33, '0' ) +
               ",000000000000000000000000\n";
   }
   ASSERT_EQ( run( { "load", wide, "mac", "-" }, lines ).status, 0 );
   std::filesystem::remove( bench.path( "out" ) );
   ASSERT_EQ( ::mkfifo( bench.path( "out" ).c_str(), 0600 ), 0 );
   pid_t const dump = bench.start( { "dump", wide, "mac" } );
   std::ifstream reader( bench.path( "out" ) );
   reader.get();
   std::filesystem::resize_file( "/dev/shm" + bench.chunk(), 100 );
   std::ostringstream rest;
   rest << reader.rdbuf();
   std::filesystem::remove( bench.path( "out" ) );
   expectError( bench.finish( dump ), 1, "somebody has made the chunk smaller" );
}

TEST_F( Tool, readingVerbsChangeNoByte ) {
   load( "0,000000000001,0001\n5,000000000001,0002\n" );
   std::string const bytes = bench.bytes();
   for ( Words const& words : { Words{ "show", plan },
                                Words{ "show", bench.chunk() },
                                Words{ "dump", plan, "mac" },
                                Words{ "verify", plan },
                                Words{ "map", plan },
                                Words{ "watch", plan, "--count", "1" },
                                Words{ "lookup", plan, "mac", "5", "000000000001" } } ) {
      EXPECT_EQ( run( words ).status, 0 ) << words[ 0 ];
      EXPECT_EQ( bench.bytes(), bytes ) << words[ 0 ];
   }
}

TEST_F( Tool, aChunkThatLetsOthersInIsRefused ) {
   load( "" );
   EXPECT_EQ( bench.bytes(), "(missing)" ) << "nothing to load makes no chunk";
   load( "0,000000000001,0001\n" );
   std::filesystem::permissions( "/dev/shm" + bench.chunk(), std::filesystem::perms( 0644 ) );
   expectError( run( { "show", plan } ), 1, "; it has to be yours alone: chmod 600 /dev/shm" );
   std::filesystem::permissions( "/dev/shm" + bench.chunk(), std::filesystem::perms( 0600 ) );
   std::string const second = "/dev/shm" + bench.chunk() + " $(b)";
   std::filesystem::create_hard_link( "/dev/shm" + bench.chunk(), second );
   expectError( run( { "show", plan } ), 1, "; have its other name removed" );
   std::filesystem::remove( second );
   ASSERT_EQ( ::mkfifo( second.c_str(), 0600 ), 0 );
   expectError( run( { "show", bench.chunk() + " $(b)" } ), 1, "; name another chunk" );
   std::filesystem::remove( second );
   std::ofstream( second ) << 'x';
   std::filesystem::permissions( second, std::filesystem::perms( 0644 ) );
   expectError( run( { "show", bench.chunk() + " $(b)" } ), 1, "chmod 600 '" + second + "' if" );
   std::filesystem::remove( second );
}

// ------------------------------------------------------------------------- answers

TEST_F( Tool, jsonHasTheDocumentedFields ) {
   load( "0,000000000001,0001\n5,000000000001,0002\n5,0000000000ff,0003\n" );
   auto const json = [ & ]( Words words ) {
      words.insert( words.begin(), "--json" );
      return Json::parse( run( words ).out );
   };
   Json const shown = json( { "show", plan } ).at( "tables" );
   EXPECT_EQ( shown[ 0 ],
              Json::parse( R"({"name":"vlan","kind":"direct","entries":64,"key":2,"result":2,
                 "offset":0,"shadowSize":0,"used":0,"chips":{}})" ) );
   EXPECT_EQ( shown[ 1 ],
              Json::parse( R"({"name":"mac","kind":"exact","entries":4,"key":6,"result":2,
                 "offset":44,"shadowSize":48,"used":3,"chips":{"0":1,"5":2}})" ) );
   EXPECT_EQ( json( { "show", bench.chunk() } ),
              Json::parse( R"({"tables":[{"name":"mac","offset":44,"shadowSize":48,"intact":true},
                 {"name":"set","offset":144,"shadowSize":400,"intact":true}]})" ) );
   EXPECT_EQ( json( { "show", bench.chunk(), "--table", "mac", "--key", "6", "--result", "2" } ),
              Json::parse( R"({"tables":[{"name":"mac","entries":4,"key":6,"result":2,"offset":44,
                 "shadowSize":48,"intact":true,"used":3,"chips":{"0":1,"5":2}}]})" ) );
   EXPECT_EQ( json( { "dump", plan, "mac" } ),
              Json::parse( R"([{"chip":0,"key":"000000000001","result":"0001"},
                 {"chip":5,"key":"000000000001","result":"0002"},
                 {"chip":5,"key":"0000000000ff","result":"0003"}])" ) );
   EXPECT_EQ( json( { "dump", plan, "vlan" } ), Json::array() );
   Json const entry = Json::parse( R"({"chip":5,"key":"0000000000ff","result":"0003"})" );
   EXPECT_EQ( json( { "lookup", plan, "mac", "5", "0000000000ff" } ), entry );
   EXPECT_EQ( json( { "update", plan, "mac", "5", "0000000000ff", "0003" } ), entry );
   EXPECT_EQ( json( { "delete", plan, "mac", "5", "0000000000ff" } ),
              Json::parse( R"({"chip":5,"key":"0000000000ff"})" ) );
   EXPECT_EQ( json( { "clear", plan, "mac" } ), Json::parse( R"({"removed":2})" ) );
}

TEST_F( Tool, showForPeopleNamesTablesAndOccupancy ) {
   load( "0,000000000001,0001\n5,000000000001,0002\n" );
   EXPECT_THAT( run( { "show", plan } ).out,
                AllOf( HasSubstr( "agent \"l2\", chunk " + bench.chunk() ),
                       HasSubstr( "50.0 %  0: 1  5: 1" ) ) );
   EXPECT_THAT( run( { "show", bench.chunk() } ).out, HasSubstr( "mac        44     48  intact" ) );
}

TEST_F( Tool, wrongUsageIsOneLineAndStatusTwo ) {
   expectError( run( {} ), 2, "a verb is missing" );
   expectError( run( { "shwo", plan } ), 2, "no verb \"shwo\"; the nearest is show" );
   expectError( run( { "show" } ), 2, "PLAN is required" );
   expectError( run( { "show", "" } ), 2, "names no plan" );
   expectError( run( { "show", plan, "more" } ), 2, "not expected: more" );
   expectError( run( { "--jsno", "show", plan } ), 2, "no option \"--jsno\"" );
   expectError( run( { "show", plan, "--json" } ), 2, "--json comes before the verb" );
   expectError( run( { "clear", plan } ), 2, "either a TABLE or --chip" );
   expectError( run( { "clear", plan, "mac", "--chip", "1" } ), 2, "either a TABLE or --chip" );
   expectError( run( { "lookup", plan, "mac", "256", "000000000001" } ), 2, "chip \"256\"" );
   expectError( run( { "lookup", plan, "mac", "0", "01" } ), 2, "has 1 byte, 6 are needed" );
   expectError( run( { "show", plan, "--tabel", "mac" } ), 2, "the nearest is --table" );
   expectError( run( { "show", bench.chunk(), "--key", "6" } ), 2, "come together" );
   expectError( run( { "show", plan, "--key", "6", "--result", "2" } ), 2, "are for a chunk" );
   expectError( run( { "show", "/x", "--key", "21", "--result", "2" } ), 2, "from 0 to 20" );
   expectError( run( { "dump", plan, "mac", "--as", "tabel" } ), 2, "the nearest is table" );
   expectError( run( { "--json", "dump", plan, "mac", "--as", "csv" } ), 2, "contradict" );
}

TEST_F( Tool, whatIsAbsentIsOneLineAndStatusOne ) {
   expectError( run( { "dump", plan, "mca" } ), 1, "no table \"mca\"; the nearest is \"mac\"" );
   expectError( run( { "show", "/no/such\n\x1b[31mplan" } ), 1, "/no/such\\x0a\\x1b[31mplan: " );
   expectError( run( { "load", plan, "mac", bench.path( "nix.csv" ) } ), 1, "cannot be opened" );
   expectError( run( { "load", plan, "mac", bench.path( "" ) } ), 1, "cannot be read" );
   expectError(
      run( { "show", bench.file( "bad.json", "{" ) } ), 1, "bad.json: is no JSON: line 1" );
}

TEST_F( Tool, initWritesAPlanThatWorksAndKeepsWhatIsThere ) {
   std::string const file = bench.path( bench.chunk().substr( 1 ) + ".json" );
   EXPECT_EQ( run( { "init", file } ).status, 0 );
   EXPECT_EQ( run( { "load", file, "host", "-" }, "0,192.0.2.1,02:00:5e:00:53:01\n" ).status, 0 );
   EXPECT_EQ( run( { "show", bench.chunk() } ).status, 0 );
   expectError( run( { "init", file } ), 1, "nothing was changed" );
   expectError( run( { "init", bench.path( "" ) } ), 2, "names no chunk" );
}

TEST_F( Tool, helpIsNoError ) {
   EXPECT_THAT( run( { "--help" } ).out, HasSubstr( "Exit status: 0 done" ) );
   EXPECT_THAT( run( { "load", "--help" } ).out, HasSubstr( "--keep-going" ) );
   EXPECT_THAT( run( { "show", "--help" } ).out, HasSubstr( "show [OPTIONS] PLAN|CHUNK\n" ) );
   EXPECT_EQ( run( { "load", "--help" } ).status, 0 );
   EXPECT_EQ( run( { "help", "load" } ).out, run( { "load", "--help" } ).out );
   expectError( run( { "help", "laod" } ), 2, "there is no verb \"laod\"; the nearest is load" );
   EXPECT_EQ( run( { "help", "help" } ).out, run( { "--help" } ).out );
   expectError( run( { "--json", "help" } ), 2, "leave --json out" );
   EXPECT_EQ( run( { "help" } ).out, run( { "--help" } ).out );
}

} // namespace
