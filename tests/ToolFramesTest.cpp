// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Failure.h"
#include "tools/tessel/Frames.h"
#include "tools/tessel/Tables.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace TesselTool;
using ::testing::HasSubstr;

/// Two exact tables with a direct one between them, from byte 101 on.
Plan twoTables() {
   Plan plan{ .agent = "l2",
              .chunk = "/unused",
              .size = 4096,
              .startOffset = 101,
              .allowedSize = 3900,
              .tables = { { .name = "mac", .entries = 16, .key = 8, .result = 4 },
                          { .name = "vlan", .kind = TableKind::direct, .entries = 9 },
                          { .name = "host", .entries = 8, .key = 4, .result = 2 } } };
   placeTables( plan );
   return plan;
}

class ToolFrames : public ::testing::Test {
 protected:
   enum class Use { reading, writing };

   std::string refusal( Use use ) const {
      try {
         if ( use == Use::writing ) {
            checkForWriting( *chunk, plan );
         }
         for ( PlannedTable const& table : plan.tables ) {
            checkForReading( *chunk, table );
         }
      } catch ( Failure const& failure ) {
         return failure.what();
      }
      return "(accepted)";
   }
   void put( U32 offset, std::string_view bytes ) const {
      chunk->write( offset, bytes.data(), static_cast<U32>( bytes.size() ) );
   }

   Plan plan = twoTables();
   Corvo::Ptr<Vellum::VellumChunk> chunk = Vellum::VellumChunk::inProcess( plan.size );
   PlannedTable const& mac = plan.tables[ 0 ];
   PlannedTable const& host = plan.tables[ 2 ];
};

TEST_F( ToolFrames, areFoundWhereverTheyStart ) {
   EXPECT_TRUE( findFrames( *chunk ).empty() );
   manageTables( plan, chunk );
   auto const frames = findFrames( *chunk );
   ASSERT_EQ( frames.size(), 2U );
   EXPECT_EQ( frames[ 0 ].name, "mac" );
   EXPECT_EQ( frames[ 0 ].offset, 145U );
   EXPECT_EQ( frames[ 0 ].shadowSize, 16U * 16 );
   EXPECT_EQ( frames[ 1 ].offset, host.offset );
   EXPECT_TRUE( frames[ 0 ].intact && frames[ 1 ].intact );
}

TEST_F( ToolFrames, areFoundAtEveryPlaceOfTheSearch ) {
   auto const large = Vellum::VellumChunk::inProcess( 3000 );
   for ( U32 start = 0; start < 1500; ++start ) {
      Plan one{ .size = 3000, .startOffset = start, .allowedSize = 52 };
      one.tables.push_back( { .name = "t" } );
      placeTables( one );
      manageTables( one, large );
      auto const frames = findFrames( *large );
      ASSERT_EQ( frames.size(), 1U ) << start;
      EXPECT_EQ( frames[ 0 ].offset, start + 44 );
      std::string const zeros( 52, '\0' );
      large->write( start, zeros.data(), 52 );
   }
}

TEST_F( ToolFrames, withoutTheirTrailerAreDamaged ) {
   manageTables( plan, chunk );
   put( mac.offset + mac.shadowSize, "\x01" );
   auto const frames = findFrames( *chunk );
   ASSERT_EQ( frames.size(), 2U );
   EXPECT_FALSE( frames[ 0 ].intact );
   EXPECT_TRUE( frames[ 1 ].intact );
   EXPECT_EQ( refusal( Use::reading ), "(accepted)" ); // the entries can still be read
   EXPECT_THAT( refusal( Use::writing ), HasSubstr( "is damaged: the trailer of table \"mac\"" ) );
}

TEST_F( ToolFrames, reachingOutOfTheChunkAreDamaged ) {
   manageTables( plan, chunk );
   U32 const backToTheTrailerOfMac = mac.offset + mac.shadowSize - host.offset; // in 32 bits
   for ( U32 const size : { 0xFFFFFFFFU, backToTheTrailerOfMac } ) {
      chunk->write( host.offset - 8, &size, sizeof size );
      auto const frames = findFrames( *chunk );
      ASSERT_EQ( frames.size(), 2U );
      EXPECT_FALSE( frames[ 1 ].intact ) << size;
   }
}

TEST_F( ToolFrames, copiedElsewhereOrIntoAnEntryAreNone ) {
   auto const manager = manageTables( plan, chunk );
   std::string header( 44, '\0' );
   chunk->read( host.offset - 44, header.data(), 44 );
   put( 3000, header ); // says another offset than its own
   // An entry whose bytes are a header that agrees with its place, as a hostile host may have sent.
   header.replace( 40, 4, std::string( { char( mac.offset + 46 ), '\0', '\0', '\0' } ) );
   put( mac.offset + 2, header );
   EXPECT_EQ( findFrames( *chunk ).size(), 2U );
}

TEST_F( ToolFrames, thatAnAgentHasNotYetWrittenAreExpected ) {
   for ( Use const use : { Use::reading, Use::writing } ) {
      EXPECT_EQ( refusal( use ), "(accepted)" );
   }
   Plan firstOnly = plan;
   firstOnly.tables.resize( 1 );
   manageTables( firstOnly, chunk );
   EXPECT_EQ( refusal( Use::writing ), "(accepted)" );
   // Killed between trailer and header, and within the header, whose first byte comes last.
   put( host.offset + host.shadowSize, "\x78\x56\x34\x12\xef\xcd\xab\x90" );
   EXPECT_EQ( refusal( Use::writing ), "(accepted)" );
   put( host.offset - 44, std::string( "\0\xef\xcd\xabhos", 7 ) );
   EXPECT_EQ( refusal( Use::writing ), "(accepted)" );
   manageTables( plan, chunk );
   EXPECT_EQ( findFrames( *chunk ).size(), 2U );
}

TEST_F( ToolFrames, thatAreOthersThanPlannedAreRefused ) {
   manageTables( plan, chunk );
   plan.tables[ 0 ].name = "arp";
   EXPECT_THAT( refusal( Use::reading ), HasSubstr( "stands the header of a table \"mac\"" ) );
   plan.tables[ 0 ].name = "mac";
   plan.tables[ 2 ].entries = 9;
   placeTables( plan );
   EXPECT_THAT( refusal( Use::writing ), HasSubstr( "stands a header that says 64 bytes" ) );
   plan.startOffset = 100;
   placeTables( plan );
   EXPECT_THAT( refusal( Use::writing ), HasSubstr( "stands something that is no header" ) );
}

TEST_F( ToolFrames, areNotWrittenOverBytesOfSomebodyElse ) {
   put( host.offset + 20, "\x01" );
   EXPECT_THAT( refusal( Use::reading ), HasSubstr( "the header of table \"host\"" ) );
   put( host.offset + 20, std::string_view( "\0", 1 ) );
   // Zeros that are the free slots of another agent's table.
   Plan other{ .size = 4096, .startOffset = 0, .allowedSize = 4096 };
   other.tables.push_back( { .name = "other", .entries = 128, .key = 8, .result = 4 } );
   placeTables( other );
   manageTables( other, chunk );
   EXPECT_THAT( refusal( Use::writing ), HasSubstr( "table \"other\" at offset 44 lies" ) );
}

} // namespace
