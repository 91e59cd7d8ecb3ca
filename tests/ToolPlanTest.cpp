// SPDX-License-Identifier: Apache-2.0
#include "Tessel/TableManager.h"
#include "tools/tessel/Failure.h"
#include "tools/tessel/Plan.h"
#include "tools/tessel/Tables.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using TesselTool::parsePlan;
using TesselTool::Plan;
using ::testing::HasSubstr;

constexpr std::string_view good =
   R"({ "agent": "l2", "chunk": "/l2-tables", "size": 4096, "startOffset": 100, "allowedSize": 3000,
        "tables": [ { "name": "vlan", "kind": "direct", "entries": 4096, "key": 2, "result": 2 },
                    { "name": "mac", "kind": "exact", "entries": 100, "key": 8, "result": 4 },
                    { "name": "last", "kind": "exact", "entries": 10, "key": 20, "result": 12 } ] })";

/// The good plan with one piece of its text replaced.
std::string with( std::string_view piece, std::string_view replacement ) {
   std::string text( good );
   auto const at = text.find( piece );
   EXPECT_NE( at, std::string::npos ) << piece;
   return text.replace( at, piece.size(), replacement );
}

std::string refusalOf( std::string_view json ) {
   try {
      parsePlan( json, "l2.json" );
   } catch ( TesselTool::Failure const& failure ) {
      return failure.what();
   }
   return "(accepted)";
}

TEST( ToolPlan, tablesLieWhereTheManagerPutsThem ) {
   Plan const plan = parsePlan( good, "l2.json" );
   auto const chunk = Vellum::VellumChunk::inProcess( plan.size );
   auto const manager = manageTables( plan, chunk );
   ASSERT_EQ( plan.tables.size(), 3U );
   for ( auto const& planned : plan.tables ) {
      auto const table = manager->managedTable( planned.name );
      EXPECT_EQ( planned.offset, table->vellumOffset() ) << planned.name;
      EXPECT_EQ( planned.shadowSize, table->tableShadowSize() ) << planned.name;
   }
}

struct Refusal {
   std::string_view piece;
   std::string_view replacement;
   std::string complaint;
};

void expectRefusals( std::vector<Refusal> const& refusals ) {
   for ( auto const& [ piece, replacement, complaint ] : refusals ) {
      EXPECT_THAT( refusalOf( with( piece, replacement ) ), HasSubstr( "l2.json: " + complaint ) );
   }
}

std::string noNumber( std::string const& path, std::string const& shown ) {
   return path + ": must be a whole number from 0 to 4294967295, not " + shown;
}

TEST( ToolPlan, aNumberThatIsNoneIsRefusedWithItsPath ) {
   expectRefusals( { { "\"key\": 8", "\"key\": \"8\"", noNumber( "tables[1].key", "\"8\"" ) },
                     { "\"key\": 8", "\"key\": 8.0", noNumber( "tables[1].key", "8.0" ) },
                     { "\"key\": 8", "\"key\": -8", noNumber( "tables[1].key", "-8" ) },
                     { "\"key\": 8", "\"key\": null", noNumber( "tables[1].key", "null" ) },
                     { "\"key\": 8", "\"key\": [8]", noNumber( "tables[1].key", "a list" ) },
                     { "4096, \"start", "4294967296, \"start", noNumber( "size", "4294967296" ) },
                     { "100, \"allowed", "1e99999, \"allowed", "is no JSON: " },
                     { "3000", "18446744073709551616", noNumber( "allowedSize", "" ) } } );
}

TEST( ToolPlan, whatIsUnknownMissingOrTwiceIsRefusedWithItsPath ) {
   expectRefusals(
      { { "\"kind\": \"direct\"", "\"kind\": \"lpm\"", "tables[0].kind: unknown kind \"lpm\"" },
        { "\"name\": \"mac\"",
          "\"nam\": \"mac\"",
          "tables[1].nam: unknown field; the nearest is name" },
        { "\"agent\": \"l2\",", "", "agent: is missing" },
        { ", \"result\": 4 }", " }", "tables[1].result: is missing" },
        { "4 }",
          "4, \"keyFormat\": \"mca\" }",
          "tables[1].keyFormat: unknown format \"mca\"; the nearest is mac" },
        { "4 }",
          "4, \"resultFormat\": \"ipv6\" }",
          "tables[1].resultFormat: ipv6 takes 16 bytes, not 4" },
        { "\"mac\"", "\"vlan\"", "tables[1].name: \"vlan\" is the name of tables[0] already" },
        { "\"mac\"", "\"\"", "tables[1].name: " },
        { "\"mac\"", "\"a\\u0000b\"", "tables[1].name: " },
        { "\"mac\"", "\"a name of more than thirty-one bytes\"", "tables[1].name: has 36 bytes" },
        { "\"mac\"", "5", "tables[1].name: must be a text, not 5" },
        { "/l2-tables", "l2-tables", "chunk: \"l2-tables\" is no chunk name" },
        { "/l2-tables", "/l2/tables", "chunk: \"/l2/tables\" is no chunk name" },
        { "/l2-tables", "/..", "chunk: " },
        { "\"key\": 8", "\"key\": 8, \"key\": 9", "tables[1].key: is given twice" },
        { "\"size\": 4096", "\"size\": 4096, \"size\": 4096", "size: is given twice" },
        { "\"agent\": \"l2\",", "\"agent\": \"l2\"\n,,", "is no JSON: line 2, column 2: " } } );
}

TEST( ToolPlan, whatDoesNotFitIsRefusedWithItsPath ) {
   expectRefusals(
      { { "\"key\": 20", "\"key\": 21", "tables[2].key: an exact-match table takes at most 20" },
        { "\"result\": 12",
          "\"result\": 13",
          "tables[2].result: an exact-match table takes at most 12" },
        { "3000", "1651", "tables[1]: does not fit: its frame would end at byte 1752" },
        { "\"size\": 4096", "\"size\": 1751", "tables[1]: does not fit" },
        { "\"entries\": 100,", "\"entries\": 268435456,", "tables[1]: does not fit" },
        { "100, \"allowed", "4097, \"allowed", "startOffset: 4097 lies outside the chunk" } } );
}

TEST( ToolPlan, whatIsNoObjectIsRefused ) {
   EXPECT_THAT( refusalOf( "[]" ), HasSubstr( "l2.json: the plan must be an object, not a list" ) );
   EXPECT_THAT( refusalOf( "" ), HasSubstr( "l2.json: is no JSON: line 1, column 1: " ) );
   EXPECT_THAT( refusalOf( with( "\"tables\": [", "\"tables\": [ 7," ) ),
                HasSubstr( "tables[0]: must be an object, not 7" ) );
   EXPECT_THAT( refusalOf( std::string( 20000, '[' ) ), HasSubstr( "is no JSON" ) );
}

TEST( ToolPlan, theAllowedSizeMayEndWhere32BitsDo ) {
   EXPECT_EQ( refusalOf( with( "3000", "4294967196" ) ), "(accepted)" );
   EXPECT_THAT( refusalOf( with( "3000", "4294967197" ) ),
                HasSubstr( "allowedSize: startOffset and allowedSize together pass 4294967296" ) );
}

TEST( ToolPlan, aTableMayFillTheChunkToItsLastByte ) {
   EXPECT_EQ( refusalOf( with( "3000", "2064" ) ), "(accepted)" );
   EXPECT_THAT( refusalOf( with( "3000", "2063" ) ), HasSubstr( "tables[2]: does not fit" ) );
   EXPECT_EQ( refusalOf( with( "\"size\": 4096", "\"size\": 2164" ) ), "(accepted)" );
   EXPECT_THAT( refusalOf( with( "\"size\": 4096", "\"size\": 2163" ) ),
                HasSubstr( "tables[2]: " ) );
}

} // namespace
