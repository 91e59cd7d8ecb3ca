// SPDX-License-Identifier: Apache-2.0
#include "support/Contract.h"
#include "support/Tables.h"

#include <gtest/gtest.h>

namespace {

using namespace TestSupport;
using namespace Tessel;
using namespace std::string_literals;

std::string littleEndian( U64 number, U32 bytes ) {
   std::string text;
   for ( U32 i = 0; i < bytes; ++i ) {
      text += static_cast<char>( number >> ( 8 * i ) );
   }
   return text;
}

std::string headerOf( std::string name, U32 shadowSize, U32 offset ) {
   name.resize( 32 );
   return "\x12\xef\xcd\xab" + name + littleEndian( shadowSize, 4 ) + littleEndian( offset, 4 );
}

std::string const trailer = "\x78\x56\x34\x12\xef\xcd\xab\x90";

TEST( Placement, framesEachTableAndPutsTheNextBehindIt ) {
   auto const chunk = Vellum::VellumChunk::inProcess( 10000 );
   auto const manager = tableManagerFactory( "l2", chunk, 1000, 9000 );
   auto const direct = manager->manageDirectShadow( "vlan", directTableHelperFactory( 9, 2, 2 ) );
   EXPECT_EQ( direct->vellumOffset(), 1000U );
   auto const first = manager->manageEmShadow( "mac", emTableHelperFactory( 625, 4, 2 ) );
   auto const second = manager->manageEmShadow( "arp", emTableHelperFactory( 25, 6, 4 ) );
   EXPECT_EQ( first->vellumOffset(), 1044U );
   EXPECT_EQ( second->vellumOffset(), 6096U );
   EXPECT_EQ( manager->currentOffset(), 6404U );
   std::string expected( 10000, '\0' );
   expected.replace( 1000, 44, headerOf( "mac", 5000, 1044 ) );
   expected.replace( 6044, 8, trailer );
   expected.replace( 6052, 44, headerOf( "arp", 300, 6096 ) );
   expected.replace( 6396, 8, trailer );
   EXPECT_EQ( allBytes( chunk ), expected );
}

TEST( Placement, keepsUpTo31BytesOfTheNameUpToItsFirstZero ) {
   auto const headerFor = []( std::string const& name ) {
      auto const chunk = Vellum::VellumChunk::inProcess( 100 );
      std::string const dirt( 44, '\x5a' );
      chunk->write( 0, dirt.data(), 44 );
      tableManagerFactory( "l2", chunk, 0, 100 )
         ->manageEmShadow( name, helperOf( { .entries = 0 } ) );
      return bytesAt( chunk, 0, 44 );
   };
   std::string const name( 40, 'n' );
   EXPECT_EQ( headerFor( name ), headerOf( name.substr( 0, 31 ), 0, 44 ) );
   EXPECT_EQ( headerFor( name.substr( 0, 31 ) ), headerOf( name.substr( 0, 31 ), 0, 44 ) );
   EXPECT_EQ( headerFor( "a\0b"s ), headerOf( "a", 0, 44 ) );
   EXPECT_EQ( headerFor( "" ), headerOf( "", 0, 44 ) );
}

TEST( Placement, acceptsWhatEndsWhereTheRangeEndsAndNotOneByteMore ) {
   U32 const size = 44 + 64 + 8;
   auto const chunk = Vellum::VellumChunk::inProcess( 1000 );
   EXPECT_TRUE(
      tableManagerFactory( "l2", chunk, 100, size )->manageEmShadow( "mac", helperOf( {} ) ) );
   auto const untouched = Vellum::VellumChunk::inProcess( 1000 );
   auto const manager = tableManagerFactory( "l2", untouched, 100, size - 1 );
   auto const failure =
      contractFailure( [ & ] { manager->manageEmShadow( "mac", helperOf( {} ) ); } );
   ASSERT_TRUE( failure );
   EXPECT_EQ( failure->condition(), "currentOffset() <= endOffset()" );
   EXPECT_EQ( failure->message(), "" );
   EXPECT_EQ( failure->module(), "TableManager" );
   EXPECT_EQ( allBytes( untouched ), std::string( 1000, '\0' ) );
   EXPECT_EQ( manager->currentOffset(), 100U );
   EXPECT_EQ( manager->managedTable( "mac" ), nullptr );
   EXPECT_TRUE( manager->manageEmShadow( "mac", helperOf( { .entries = 7 } ) ) )
      << "a smaller table still fits";
}

TEST( Placement, knowsTheLengthOfRangesThatNoTableCanHave ) {
   U64 const past32Bits = U64{ 1 } << 33;
   Geometry const many{ .entries = 1U << 28, .key = 20, .result = 10 };
   Geometry const wide{ .entries = 1, .key = 0xFFFFFFFF, .result = 0xFFFFFFFF };
   EXPECT_EQ( EmShadowTable::rangeBytes( *helperOf( many ) ), past32Bits );
   EXPECT_EQ( EmShadowTable::rangeBytes( *helperOf( wide ) ), past32Bits );
}

TEST( Placement, refusesAFrameThatPasses32Bits ) {
   auto const chunk = Vellum::VellumChunk::inProcess( 100 );
   auto const manager = tableManagerFactory( "l2", chunk, 0xFFFFFF00, 0x100 );
   for ( U32 entries : { 100U, 0xFFFFFFFFU } ) {
      EXPECT_EQ( failedCondition( [ & ] {
                    manager->manageEmShadow( "m", emTableHelperFactory( entries, 20, 12 ) );
                 } ),
                 "currentOffset() <= endOffset()" );
   }
   EXPECT_EQ( manager->currentOffset(), 0xFFFFFF00U );
}

TEST( Placement, ofATableThatItsChunkOrItsGeometryRefusesLeavesNoTrace ) {
   auto const chunk = Vellum::VellumChunk::inProcess( 100 );
   auto const manager = tableManagerFactory( "l2", chunk, 0, 1000 );
   auto const refusal = [ & ]( Corvo::Ptr<EmTableHelper> const& helper ) {
      auto const failure = contractFailure( [ & ] { manager->manageEmShadow( "mac", helper ); } );
      EXPECT_EQ( allBytes( chunk ), std::string( 100, '\0' ) );
      EXPECT_EQ( manager->currentOffset(), 0U );
      EXPECT_EQ( manager->managedTables().count(), 0U );
      return failure ? failure->condition() : "(none)";
   };
   EXPECT_EQ( refusal( emTableHelperFactory( 8, 4, 2 ) ), "offset + length <= size()" );
   EXPECT_EQ( refusal( emTableHelperFactory( 7, 4, 2 ) ), "offset + length <= size()" )
      << "only the trailer is outside";
   EXPECT_EQ( refusal( emTableHelperFactory( 7, 21, 2 ) ),
              "tableHelper()->keyLengthBytes() <= MAX_KEY_LENGTH_IN_BYTE" );
   EXPECT_EQ( refusal( emTableHelperFactory( 0xFFFFFFFF, 4, 13 ) ),
              "tableHelper()->resultLengthBytes() <= MAX_RESULT_LENGTH_IN_BYTE" );
   EXPECT_EQ( refusal( nullptr ), "emTableHelper" );
}

TEST( Placement, repeatedOverALiveChunkGivesEveryTableItsEntriesAndChangesNoByte ) {
   UniqueName const name;
   auto chunk = Vellum::VellumChunk::create( *name, 2000 );
   auto const manageAll = [ & ] {
      auto manager = tableManagerFactory( "l2", chunk, 4, 1996 );
      for ( auto table : { "a", "b", "c" } ) {
         manager->manageEmShadow( table, helperOf( {} ) );
      }
      return manager;
   };
   auto manager = manageAll();
   for ( auto table : { "a", "b", "c" } ) {
      manager->managedTable( table )->entryIs( chip3, "AAAA", ( table + "r"s ).data() );
   }
   std::string const before = allBytes( chunk );
   manager = nullptr;
   chunk = nullptr;
   for ( auto access :
         { Vellum::VellumChunk::Access::readWrite, Vellum::VellumChunk::Access::readOnly } ) {
      chunk = Vellum::VellumChunk::open( *name, access );
      manager = manageAll();
      EXPECT_EQ( allBytes( chunk ), before );
      for ( auto table : { "a", "b", "c" } ) {
         std::string result = "##";
         EXPECT_TRUE( manager->managedTable( table )->entry( chip3, "AAAA", result.data() ) );
         EXPECT_EQ( result, ( table + "r\0"s ).substr( 0, 2 ) );
      }
   }
}

TEST( Placement, writesItsFrameToTheChunkAlsoWhenItsTableIsReadOnlyThere ) {
   UniqueName const name;
   Vellum::VellumChunk::create( *name, 200 );
   auto const chunk = Vellum::VellumChunk::open( *name, Vellum::VellumChunk::Access::readOnly );
   auto const manager = tableManagerFactory( "l2", chunk, 0, 200 );
   EXPECT_EQ( failedCondition( [ & ] { manager->manageEmShadow( "mac", helperOf( {} ) ); } ),
              "access() == Access::readWrite" )
      << "a frame that is not there yet cannot be written";
   EXPECT_EQ( manager->managedTables().count(), 0U );
   EXPECT_EQ( manager->currentOffset(), 0U );
}

} // namespace
