// SPDX-License-Identifier: Apache-2.0
#include "support/Tool.h"

#include "tools/tessel/Picture.h"
#include "tools/tessel/Tables.h"
#include "tools/tessel/Watch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

namespace {

using namespace TesselTool;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class ToolPicture : public ::testing::Test {
 protected:
   ToolPicture() {
      plan.tables.push_back( { .name = "mac", .entries = 40, .key = 2, .result = 0 } );
      placeTables( plan );
      manager = manageTables( plan, chunk );
   }
   void add( U8 chip, char key ) const {
      std::string const bytes{ key, '\0' };
      manager->managedTable( "mac" )->entryIs( Brine::ChipId( chip ), bytes.data(), "" );
   }
   void remove( U8 chip, char key ) const {
      std::string const bytes{ key, '\0' };
      manager->managedTable( "mac" )->entryDel( Brine::ChipId( chip ), bytes.data() );
   }
   Picture picture( U32 cells, U32 entries = 0 ) const {
      return pictureOf(
         *chunk, { .table = plan.tables[ 0 ] }, { .cells = cells, .entriesPerCell = entries } );
   }
   std::string printed( U32 cells, Style style, U32 columns = 42 ) const {
      std::ostringstream out;
      printPicture( out, picture( cells ), style, { .columns = columns, .rows = 24 } );
      return out.str();
   }

   Plan plan{ .size = 4096, .allowedSize = 4096 };
   Corvo::Ptr<Vellum::VellumChunk> chunk = Vellum::VellumChunk::inProcess( plan.size );
   Corvo::Ptr<Tessel::TableManager> manager;
};

TEST_F( ToolPicture, showsWhereEntriesLieAndOfWhichChip ) {
   for ( char key = 0; key < 18; ++key ) {
      add( key < 16 ? 3 : 200, key );
   }
   remove( 3, 2 );
   EXPECT_EQ( printed( 64, { .unicode = true } ),
              "mac  17 of 40 slots used, 42.5 %\n"
              "  ■ chip 3    █████████░░░░░░░░░░░░░░░  15\n"
              "  ■ chip 200  █▏░░░░░░░░░░░░░░░░░░░░░░  2\n"
              "         0 ██·█████████████\n"
              "        16 ██··············\n"
              "        32 to 39: free\n" );
   EXPECT_THAT( printed( 10, {} ),
                HasSubstr( "4 to a character\n  d chip 3    #########...............  15\n" ) );
   EXPECT_THAT( printed( 10, {} ), HasSubstr( "         0 ddddS.....\n" ) );
   EXPECT_EQ( printed( 10, {}, 24 ),
              "mac  17 of 40 slots used, 42.5 %, 4 to a character\n"
              "  d chip 3    ##....  15\n"
              "  S chip 200  ......  2\n"
              "         0 ddddS...\n"
              "        32 to 39: free\n" );
   std::string const chip200 = "\x1b[38;5;209m█\x1b[0m";
   Style const inColour{ .colour = true, .unicode = true };
   EXPECT_THAT( printed( 64, inColour ), HasSubstr( chip200 + "\x1b[2m·\x1b[0m" ) );
   manager->deleteAll( Brine::ChipId( 3 ) );
   EXPECT_THAT( printed( 64, inColour ), HasSubstr( chip200 ) ) << "whoever else is there";
}

TEST_F( ToolPicture, hasCellsThatCoverEverySlotOnce ) {
   for ( U32 const cells : { 1U, 3U, 39U, 40U, 1000U } ) {
      auto const taken = picture( cells );
      U32 slots = 0;
      for ( std::size_t i = 0; i < taken.cells.size(); ++i ) {
         slots += taken.slotsIn( i );
      }
      EXPECT_EQ( slots, 40U ) << cells;
      EXPECT_LE( taken.cells.size(), cells );
   }
}

TEST_F( ToolPicture, tellsEntriesAndMarksNothingUpByTheirNames ) {
   plan.tables[ 0 ].name = "<b>&\"";
   add( 5, 'A' );
   std::string const page =
      htmlOf( { .chunk = "/c", .chunkSize = 4096, .tables = { picture( 64, 9 ) } } );
   EXPECT_THAT( page, HasSubstr( "slot 0\nslot 0  chip 5  4100</title>" ) );
   EXPECT_THAT( page, HasSubstr( "data-table=\"&lt;b&gt;&amp;&quot;\"" ) );
   EXPECT_THAT( page, testing::Not( HasSubstr( "<b>" ) ) );
}

TEST_F( ToolPicture, isWrittenWhereItsNameSaysHow ) {
   TestSupport::ToolBench const bench;
   std::string const file = bench.planFile(
      R"({ "name": "mac", "kind": "exact", "entries": 8, "key": 6, "result": 2 })" );
   bench.run( { "update", file, "mac", "0", "000000000001", "0001" } );
   EXPECT_EQ( bench.run( { "map", file, "--out", bench.path( "m.svg" ) } ).status, 0 );
   EXPECT_THAT( TestSupport::contentsOf( bench.path( "m.svg" ) ), testing::StartsWith( "<svg " ) );
   EXPECT_EQ( bench.run( { "map", file, "--out", bench.path( "m.png" ) } ).status, 2 );
   EXPECT_EQ( bench.run( { "map", file, "--out", bench.path( "none/m.svg" ) } ).status, 1 );
   EXPECT_EQ( bench.run( { "map", bench.chunk() } ).status, 2 );
   EXPECT_EQ( bench.run( { "--json", "map", file } ).out,
              R"({"tables":[{"name":"mac","entries":8,"used":1,"chips":{"0":1},"slotsPerCell":1,)"
              "\"cells\":[1,0,0,0,0,0,0,0]}]}\n" );
}

TEST_F( ToolPicture, leavesOutATableThatDoesNotFitIntoTheChunk ) {
   TestSupport::ToolBench const bench;
   std::string const shape = R"("kind": "exact", "entries": 8, "key": 6, "result": 2 })";
   std::string const file =
      bench.planFile( R"({ "name": "mac", )" + shape + R"(, { "name": "cut", )" + shape );
   bench.run( { "update", file, "mac", "0", "000000000001", "0001" } );
   Vellum::VellumChunk::open( bench.chunk() )->write( 184, "\xff\xff\xff\xff", 4 );
   auto const answer = bench.run( { "map", bench.chunk(), "--key", "6", "--result", "2" } );
   EXPECT_EQ( answer.status, 1 );
   EXPECT_THAT( answer.out, HasSubstr( "mac  1 of 8 slots used" ) );
   EXPECT_THAT( answer.err, HasSubstr( "table \"cut\" says that it has 4294967295 bytes" ) );
   auto const watched =
      bench.run( { "watch", bench.chunk(), "--count", "1", "--key", "6", "--result", "2" } );
   EXPECT_EQ( watched.status, 1 );
   EXPECT_THAT( watched.err, HasSubstr( "table \"cut\" says that it has" ) );
   EXPECT_THAT( bench.run( { "map", bench.chunk(), "--key", "20", "--result", "12" } ).err,
                HasSubstr( "is not made of slots for keys of 20 bytes and results of 12" ) );
}

TEST_F( ToolPicture, watchedTellsWhatCameAndWent ) {
   TableWatch watch;
   add( 1, 'a' );
   add( 1, 'b' );
   EXPECT_EQ( watch.look( *chunk, plan.tables[ 0 ] ).all.added, 0U );
   remove( 1, 'a' );
   add( 2, 'a' ); // in the slot that has just become free
   add( 2, 'c' );
   auto const seen = watch.look( *chunk, plan.tables[ 0 ] );
   EXPECT_EQ( seen.all.used, 3U );
   EXPECT_EQ( seen.all.added, 2U );
   EXPECT_EQ( seen.all.removed, 1U );
   EXPECT_EQ( seen.byChip.at( 1 ).removed, 1U );
   EXPECT_EQ( seen.byChip.at( 2 ).added, 2U );
   Look const look{ .title = "t", .tables = { { plan.tables[ 0 ], seen } }, .seconds = 4 };
   EXPECT_THAT(
      linesOf( look, {} ),
      ElementsAre( "t",
                   "",
                   testing::_,
                   "mac    all      3  7.5 %      0.5        0.2  ##......................",
                   "       1        1  2.5 %      0.0        0.2  #.......................",
                   "       2        2  5.0 %      0.5        0.0  #......................." ) );
}

} // namespace
