// SPDX-License-Identifier: Apache-2.0
#include "support/Tool.h"

#include "tools/tessel/ByteFormat.h"
#include "tools/tessel/HexText.h"
#include "tools/tessel/Progress.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace TesselTool;
using ::testing::HasSubstr;

std::string hexBytes( std::string_view hex ) {
   std::string bytes( hex.size() / 2, '\0' );
   EXPECT_EQ( parseHex( hex, bytes ), "" );
   return bytes;
}

/// The bytes that the text stands for, in hex; else the complaint.
std::string read( ByteFormat format, std::string_view text, std::size_t length ) {
   std::string bytes( length, 'x' );
   std::string const problem = parseBytes( format, text, bytes );
   return problem.empty() ? hexOf( bytes ) : problem;
}

TEST( ToolByteFormats, showBytesAsTheyReadThem ) {
   struct Case {
      ByteFormat format;
      std::string_view hex;
      std::string text;
   };
   for ( auto const& [ format, hex, text ] : std::vector<Case>{
            { ByteFormat::hex, "00aaff", "00aaff" },
            { ByteFormat::mac, "02005e0053ff", "02:00:5e:00:53:ff" },
            { ByteFormat::ipv4, "c0000201", "192.0.2.1" },
            { ByteFormat::ipv6, "20010db8000000000000000000000001", "2001:db8::1" },
            { ByteFormat::ipv6, "00000000000000000000ffffc0000201", "::ffff:192.0.2.1" },
            { ByteFormat::uint, "0ffe", "4094" },
            { ByteFormat::uint, "ffffffffffffffff", "18446744073709551615" } } ) {
      EXPECT_EQ( textOf( format, hexBytes( hex ) ), text );
      EXPECT_EQ( read( format, text, hex.size() / 2 ), hex ) << text;
      EXPECT_LE( text.size(), widestText( format, static_cast<U32>( hex.size() / 2 ) ) ) << text;
   }
}

TEST( ToolByteFormats, readHexWhereItMeansNothingElse ) {
   EXPECT_EQ( read( ByteFormat::mac, "0200.5e00.5301", 6 ), "02005e005301" );
   EXPECT_EQ( read( ByteFormat::ipv4, "c0000201", 4 ), "c0000201" );
   EXPECT_THAT( read( ByteFormat::ipv4, "0a.00.00.01", 4 ), HasSubstr( "is no IPv4 address" ) );
   EXPECT_EQ( read( ByteFormat::ipv4, "10.20.30.40", 4 ),
              "0a141e28" ); // decimal, though hex digits
   EXPECT_EQ( read( ByteFormat::uint, "10", 2 ), "000a" );
   EXPECT_EQ( read( ByteFormat::uint, "0x10", 2 ), "0010" );
   EXPECT_EQ( read( ByteFormat::uint, "00:10", 2 ), "0010" );
   EXPECT_EQ( read( ByteFormat::uint, "0", 2 ), "0000" );
}

TEST( ToolByteFormats, refuseWhatIsNone ) {
   EXPECT_THAT( read( ByteFormat::uint, "256", 1 ), HasSubstr( "passes 255" ) );
   EXPECT_THAT( read( ByteFormat::uint, "0010", 2 ), HasSubstr( "hex is 0x0010" ) );
   EXPECT_THAT( read( ByteFormat::uint, "99999999999999999999", 8 ), HasSubstr( "passes " ) );
   for ( std::string_view const text : { "", "0x", "-1", "+1", "1 ", "a" } ) {
      EXPECT_THAT( read( ByteFormat::uint, text, 2 ), HasSubstr( "no whole number" ) ) << text;
   }
   EXPECT_THAT( read( ByteFormat::ipv4, "192.0.2.256", 4 ), HasSubstr( "is no IPv4 address" ) );
   EXPECT_THAT( read( ByteFormat::ipv6, "2001:db8::1::", 16 ), HasSubstr( "is no ipv6" ) );
   EXPECT_THAT( read( ByteFormat::mac, "02:00:5e", 6 ), HasSubstr( "has 3 bytes, 6 are needed" ) );
}

TEST( ToolByteFormats, travelThroughEveryVerb ) {
   TestSupport::ToolBench const bench;
   std::string const plan = bench.planFile(
      R"({ "name": "route", "kind": "exact", "entries": 8, "key": 4, "result": 2,
           "keyFormat": "ipv4", "resultFormat": "uint" })" );
   std::string const lines = "0,192.0.2.1,7\n9,198.51.100.0,65535\n";
   EXPECT_EQ( bench.run( { "load", plan, "route", "-" }, lines ).status, 0 );
   EXPECT_EQ( bench.run( { "dump", plan, "route" } ).out, lines );
   EXPECT_EQ( bench.run( { "update", plan, "route", "0", "c0000201", "8" } ).status, 0 );
   EXPECT_EQ( bench.run( { "lookup", plan, "route", "0", "192.0.2.1" } ).out, "8\n" );
   EXPECT_EQ(
      bench.run( { "--json", "lookup", plan, "route", "0", "192.0.2.1" } ).out,
      R"({"chip":0,"key":"c0000201","keyText":"192.0.2.1","result":"0008","resultText":"8"})"
      "\n" );
   EXPECT_THAT( bench.run( { "delete", plan, "route", "1", "192.0.2.1" } ).err,
                HasSubstr( "no entry for chip 1, key 192.0.2.1" ) );
   EXPECT_EQ( bench.run( { "dump", plan, "route", "--as", "table" } ).out,
              "slot  chip  key              result\n"
              "   0     0  192.0.2.1        8\n"
              "   1     9  198.51.100.0     65535\n" );
   EXPECT_EQ( bench.run( { "dump", bench.chunk(), "route", "--key", "4", "--result", "2" } ).out,
              "0,c0000201,0008\n9,c6336400,ffff\n" );
}

TEST( ToolProgress, tellsRateAndTimeLeft ) {
   EXPECT_EQ( progressText( loadingEntries, 2000, 10000, std::chrono::seconds( 4 ) ),
              "2,000 of 10,000 entries, 20 %, 500 a second, 16 s left" );
   EXPECT_EQ( progressText( loadingEntries, 0, 10, std::chrono::seconds( 4 ) ), "0 of 10 entries" );
   EXPECT_EQ( progressText( readingBytes, 10, std::nullopt, std::chrono::seconds( 5 ) ),
              "reading 10 bytes, 2 a second" );
}

} // namespace
