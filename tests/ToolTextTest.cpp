// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Columns.h"
#include "tools/tessel/Csv.h"
#include "tools/tessel/DemoData.h"
#include "tools/tessel/DemoReport.h"
#include "tools/tessel/HexText.h"
#include "tools/tessel/Text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

namespace {

using namespace TesselTool;
using namespace std::string_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

// ------------------------------------------------------------------------- text for people

TEST( ToolText, nothingThatActsOnATerminalIsPrintable ) {
   EXPECT_EQ( printable( "a\tb\x1b[31m\x7f" ), "a\\x09b\\x1b[31m\\x7f" );
   EXPECT_EQ( printable( "\0"s ), "\\x00" );
   EXPECT_EQ( printable( "Zürich 表 😀" ), "Zürich 表 😀" );
   EXPECT_EQ( printable( "\xC2\x9B" ), "\\xc2\\x9b" );          // a control of its own
   EXPECT_EQ( printable( "\xE2\x80\xAE" ), "\\xe2\\x80\\xae" ); // writes right to left
   EXPECT_EQ( printable( "\xC0\xAF\xED\xA0\x80" ), "\\xc0\\xaf\\xed\\xa0\\x80" ); // no UTF-8
   EXPECT_EQ( printable( "\xF4\x90\x80\x80\xE2\x82" ), "\\xf4\\x90\\x80\\x80\\xe2\\x82" );
}

TEST( ToolText, aLongInputIsCutBetweenCharacters ) {
   EXPECT_EQ( inQuotes( "mac" ), "\"mac\"" );
   EXPECT_EQ( inQuotes( std::string( 63, 'x' ) + "üyyy" ), '"' + std::string( 63, 'x' ) + "…\"" );
}

TEST( ToolText, theNearestNameTakesTheFewestChanges ) {
   std::vector<std::string_view> const names{ "show", "dump", "delete" };
   EXPECT_EQ( nearest( "shwo", names ), "show" );
   EXPECT_EQ( nearest( "del", names ), "delete" );
   EXPECT_EQ( nearest( "SHWO", names ), "show" );
   EXPECT_EQ( nearest( "x", {} ), "" );
   EXPECT_EQ( nearest( "frobnicate", names ), "" );
   EXPECT_THAT( suggestion( "frobnicate", names ), ::testing::StartsWith( "; there is " ) );
}

TEST( ToolText, numbersAreGroupedByThree ) {
   EXPECT_EQ( grouped( 0 ), "0" );
   EXPECT_EQ( grouped( 999 ), "999" );
   EXPECT_EQ( grouped( 1234567 ), "1,234,567" );
   EXPECT_EQ( counted( 1, "entry", "entries" ), "1 entry" );
   EXPECT_EQ( counted( 1000, "entry", "entries" ), "1,000 entries" );
}

TEST( ToolText, columnsAreAsWideAsTheirWidestText ) {
   Columns columns( { { "a" }, { "n", Columns::Align::right }, { "c" } } );
   columns.rowIs( { "Zürich", "1", "x" } );
   columns.rowIs( { "b", "100", "" } );
   std::ostringstream out;
   columns.print( out );
   EXPECT_EQ( out.str(), "a         n  c\nZürich    1  x\nb       100\n" );
}

TEST( ToolText, aBarFillsInEighths ) {
   EXPECT_EQ( bar( 0, 16, 2, true ), "░░" );
   EXPECT_EQ( bar( 9, 16, 2, true ), "█▏" );
   EXPECT_EQ( bar( 99, 16, 2, true ), "██" );
   EXPECT_EQ( bar( 3, 4, 4, false ), "###." );
   EXPECT_EQ( bar( 3, 0, 2, false ), ".." );
}

// ------------------------------------------------------------------------- hex

TEST( ToolHex, bytesMayBeSeparated ) {
   for ( std::string_view const text : { "00aaff", "00:AA:ff", "00.aA.FF", "00aa.ff" } ) {
      std::string bytes( 3, 'x' );
      EXPECT_EQ( parseHex( text, bytes ), "" ) << text;
      EXPECT_EQ( bytes, "\x00\xaa\xff"s ) << text;
   }
   EXPECT_EQ( hexOf( "\x00\xaa\xff"s ), "00aaff" );
   EXPECT_EQ( parseHex( "", {} ), "" );
}

TEST( ToolHex, aComplaintSaysWhatIsWrong ) {
   std::string bytes( 2, '\0' );
   EXPECT_EQ( parseHex( "001122", bytes ), "has 3 bytes, 2 are needed" );
   EXPECT_EQ( parseHex( "", bytes ), "has 0 bytes, 2 are needed" );
   EXPECT_THAT( parseHex( "001", bytes ), HasSubstr( "half a byte" ) );
   EXPECT_THAT( parseHex( "0:11", bytes ), HasSubstr( "half a byte" ) );
   EXPECT_THAT( parseHex( "0x11", bytes ), HasSubstr( "\"x\", which is no hex digit" ) );
   EXPECT_THAT( parseHex( "00 11", bytes ), HasSubstr( "\" \", which is no hex digit" ) );
   for ( std::string_view const text : { ":0011", "0011:", "00::11", ":", "00:.11" } ) {
      EXPECT_THAT( parseHex( text, bytes ), HasSubstr( "not between two bytes" ) ) << text;
   }
}

// ------------------------------------------------------------------------- lines of entries

CsvInput inputOf( std::string const& text, U32 keyBytes = 2, U32 resultBytes = 1 ) {
   std::istringstream stream( text );
   return readCsv( stream, keyBytes, resultBytes );
}

TEST( ToolCsv, whatPeopleWriteIsRead ) {
   auto const input =
      inputOf( "\xEF\xBB\xBF# heading\n0,0011,aa\r\n\r\n \t\n 255 , 00:12 ,\tbb # why\n"
               "007,0013,cc" );
   EXPECT_EQ( input.badLines, 0U );
   ASSERT_EQ( input.entries.size(), 3U );
   EXPECT_EQ( input.entries[ 1 ].chip, 255 );
   EXPECT_EQ( hexOf( { input.entries[ 1 ].key.data(), 2 } ), "0012" );
   EXPECT_EQ( hexOf( { input.entries[ 2 ].result.data(), 1 } ), "cc" );
   EXPECT_EQ( inputOf( "1,,\n", 0, 0 ).entries.size(), 1U );
   EXPECT_EQ( inputOf( "" ).entries.size(), 0U );
}

TEST( ToolCsv, eachBadLineIsNamedByNumberAndCause ) {
   for ( std::string_view const line : { "0,0011",
                                         "0,0011,aa,",
                                         ",0011,aa",
                                         "256,0011,aa",
                                         "-1,0011,aa",
                                         "+1,0011,aa",
                                         "0x1,0011,aa",
                                         "1.0,0011,aa",
                                         "0,00110,aa",
                                         "0,001122,aa",
                                         "0,0011,",
                                         "0,0011,a a",
                                         "0;0011;aa" } ) {
      auto const input = inputOf( "1,0001,ee\n" + std::string( line ) + "\n2,0002,ff\n" );
      EXPECT_EQ( input.entries.size(), 2U ) << line;
      ASSERT_EQ( input.badLines, 1U ) << line;
      EXPECT_EQ( input.firstBad[ 0 ].number, 2U ) << line;
   }
   EXPECT_EQ( inputOf( "0,001122,aa" ).firstBad[ 0 ].problem,
              "key \"001122\" has 3 bytes, 2 are needed" );
}

TEST( ToolCsv, aLineOfAnyLengthIsOneLine ) {
   std::string const blanks( 300000, ' ' );
   auto const input =
      inputOf( "0,0011,aa" + blanks + "junk\n1,0011,aa #" + blanks + "\n2,0011,aa\n" );
   EXPECT_EQ( input.entries.size(), 2U );
   ASSERT_EQ( input.badLines, 1U );
   EXPECT_THAT( input.firstBad[ 0 ].problem, HasSubstr( "is longer than 4096 bytes" ) );
}

TEST( ToolCsv, onlyTheFirstBadLinesAreKept ) {
   std::string text;
   for ( int i = 0; i < 50; ++i ) {
      text += "bad\n";
   }
   auto const input = inputOf( text );
   EXPECT_EQ( input.badLines, 50U );
   EXPECT_EQ( input.firstBad.size(), CsvInput::shownBadLines );
}

// ------------------------------------------------------------------------- the registry of blocks

TEST( ToolRegistry, eachBlockIsTakenOnceWithItsOwner ) {
   MacRegistry registry;
   addMacBlocks( registry,
                 "Registry,Assignment,Organization Name,Organization Address\r\n"
                 "MA-L,0A0B0C,\"One, \"\"Inc\"\"\",\"a\r\nb, c\"\r\n"
                 "MA-M,0A0B0DE,Two,x\r\nMA-S,0A0B0DE12,\"One, \"\"Inc\"\"\",x\r\n"
                 "MA-L,0A0B0C,Three,x\r\nMA-L,XYZ,Four,x\r\nMA-L\r\n" );
   EXPECT_THAT( registry.organisations, ElementsAre( "One, \"Inc\"", "Two" ) );
   ASSERT_EQ( registry.blocks.size(), 3U );
   EXPECT_EQ( registry.skipped, 3U );
   EXPECT_EQ( registry.blocks[ 1 ].bits, 28 );
   EXPECT_THAT( registry.blocks[ 2 ].prefix, ElementsAre( 0x0A, 0x0B, 0x0D, 0xE1, 0x20, 0 ) );
   EXPECT_EQ( registry.blocks[ 2 ].organisation, 0U );
}

} // namespace
