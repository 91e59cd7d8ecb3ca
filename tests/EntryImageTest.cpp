// SPDX-License-Identifier: Apache-2.0
#include "support/Contract.h"
#include "support/Tables.h"
#include "support/Traces.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

namespace {

using namespace TestSupport;
using namespace Tessel;
using namespace std::string_literals;
using testing::ElementsAre;

std::string encoded( EmTableEntry const& entry, U32 keyLength, U32 resultLength ) {
   EmTableEntryRaw raw;
   std::memset( &raw, '!', sizeof raw );
   entry.copyToBuf( &raw, keyLength, resultLength );
   return std::string( reinterpret_cast<char const*>( &raw ), sizeof raw );
}

EmTableEntryRaw rawOf( std::string bytes ) {
   bytes.resize( sizeof( EmTableEntryRaw ) );
   EmTableEntryRaw raw;
   std::memcpy( &raw, bytes.data(), sizeof raw );
   return raw;
}

EmTableEntry entryOf( Brine::ChipId chip, std::string_view key, std::string_view result ) {
   return EmTableEntry( true, chip, keyOf( key ), resultOf( result ) );
}

TEST( EntryImage, isValidChipKeyResultAndZeros ) {
   EXPECT_EQ( encoded( entryOf( chip7, "KEY", "RS" ), 3, 2 ),
              "\1\7KEYRS"s + std::string( 29, '\0' ) );
   std::string const key( 20, 'k' );
   std::string const result( 12, 'r' );
   EXPECT_EQ( encoded( entryOf( chip7, key, result ), 20, 12 ), "\1\7"s + key + result + "\0\0"s );
}

TEST( EntryImage, ofAnInvalidEntryIsAllZeroWhateverElseItHolds ) {
   EXPECT_EQ( encoded( EmTableEntry( false, chip7, keyOf( "KEY" ), resultOf( "RS" ) ), 3, 2 ),
              std::string( 36, '\0' ) );
}

TEST( EntryImage, fillsUpWhatIsShortAndCutsWhatIsLong ) {
   EXPECT_EQ( encoded( entryOf( chip7, "K", "R" ), 3, 2 ).substr( 0, 8 ), "\1\7K\0\0R\0\0"s );
   EXPECT_EQ( encoded( entryOf( chip7, "KEYKEY", "RSRS" ), 3, 2 ).substr( 0, 8 ), "\1\7KEYRS\0"s );
}

TEST( EntryImage, anyNonZeroFirstByteDecodesAsValidAndIsWrittenBackAsOne ) {
   EmTableEntryRaw const raw = rawOf( "\2\377KEYRS" );
   EmTableEntry entry;
   entry.copyFromBuf( &raw, 3, 2 );
   EXPECT_EQ( entry, entryOf( Brine::ChipId( 255 ), "KEY", "RS" ) );
   EXPECT_EQ( encoded( entry, 3, 2 )[ 0 ], '\1' );
}

TEST( EntryImage, aFreeOneLeavesTheEntryThatDecodesItUnchanged ) {
   EmTableEntryRaw const raw = rawOf( "\0\7KEYRS"s );
   EmTableEntry entry = entryOf( chip3, "old", "xy" );
   entry.copyFromBuf( &raw, 3, 2 );
   EXPECT_EQ( entry, entryOf( chip3, "old", "xy" ) );
   EmTableEntry none;
   none.copyFromBuf( &raw, 3, 2 );
   EXPECT_FALSE( none );
}

TEST( EntryImage, lengthsPastTheLimitsAreRefusedAndLeaveTheEntryAsItWas ) {
   EmTableEntryRaw raw = rawOf( "\1\7abc" );
   EmTableEntry entry;
   EXPECT_EQ( failedCondition( [ & ] { entry.copyFromBuf( &raw, 21, 0 ); } ),
              "keySize <= MAX_KEY_LENGTH_IN_BYTE" );
   EXPECT_EQ( failedCondition( [ & ] { entry.copyFromBuf( &raw, 20, 13 ); } ),
              "resultSize <= MAX_RESULT_LENGTH_IN_BYTE" );
   EXPECT_EQ( entry, EmTableEntry() );
   EXPECT_TRUE( contractFailure( [ & ] { entryOf( chip0, "", "" ).copyToBuf( &raw, 21, 12 ); } ) );
   EXPECT_TRUE( contractFailure( [ & ] { entryOf( chip0, "", "" ).copyToBuf( &raw, 20, 13 ); } ) );
}

TEST( EntryImage, keysAndResultsAreMadeOfExactlySoManyBytesUpToTheLimits ) {
   std::string const bytes( 40, 'b' );
   TraceRecorder trace( "TesselEmTable", 1 );
   EXPECT_EQ( textOf( makeEmTableKey( bytes.data(), 20 ).bytes() ), std::string( 20, 'b' ) );
   EXPECT_EQ( textOf( makeEmTableResult( bytes.data(), 12 ).bytes() ), std::string( 12, 'b' ) );
   auto const longKey = contractFailure( [ & ] { makeEmTableKey( bytes.data(), 21 ); } );
   auto const longResult = contractFailure( [ & ] { makeEmTableResult( bytes.data(), 13 ); } );
   ASSERT_TRUE( longKey && longResult );
   EXPECT_EQ( longKey->condition(), "keySize <= MAX_KEY_LENGTH_IN_BYTE" );
   EXPECT_EQ( longResult->condition(), "resultSize <= MAX_RESULT_LENGTH_IN_BYTE" );
   EXPECT_EQ( longKey->module(), "EmTable" );
   EXPECT_EQ( longKey->message(), "" );
   EXPECT_THAT( trace.messages(),
                ElementsAre( "makeEmTableKey keySize:20",
                             "makeEmTableResult resultSize:12",
                             "makeEmTableKey keySize:21",
                             "makeEmTableResult resultSize:13" ) );
}

TEST( EntryImage, aSlotIsTwoBytesKeyAndResultRoundedUpToFour ) {
   for ( U32 key = 0; key <= MAX_KEY_LENGTH_IN_BYTE; ++key ) {
      for ( U32 result = 0; result <= MAX_RESULT_LENGTH_IN_BYTE; ++result ) {
         auto const table = newTable( { .entries = 5, .key = key, .result = result } );
         U32 expected = 2 + key + result;
         while ( expected % 4 != 0 ) {
            ++expected;
         }
         ASSERT_EQ( table->entryLengthBytes(), expected ) << key << ", " << result;
         ASSERT_EQ( table->tableShadowSize(), 5 * expected );
      }
   }
}

TEST( EntryImage, everyGeometryWritesItsBytesAndNothingElse ) {
   std::string const keyBytes = "\xff\0abcdefghijklmnopqr"s;
   std::string const resultBytes = "0123456789AB";
   for ( U32 key = 0; key <= MAX_KEY_LENGTH_IN_BYTE; ++key ) {
      for ( U32 result = 0; result <= MAX_RESULT_LENGTH_IN_BYTE; ++result ) {
         auto const chunk = Vellum::VellumChunk::inProcess( 300 );
         std::string expected( 300, '\x5a' );
         chunk->write( 0, expected.data(), 300 );
         U32 const length = ( key + result + 5 ) & ~3U;
         expected.replace( 101, 2 * std::size_t{ length }, 2 * std::size_t{ length }, '\0' );
         chunk->write( 101, expected.data() + 101, 2 * length );
         auto const table = tableOver( chunk, { .entries = 2, .key = key, .result = result }, 101 );
         ASSERT_TRUE( table->entryIs( chip3, keyBytes.data(), resultBytes.data() ) );
         ASSERT_TRUE( table->entryIs( chip5, keyBytes.data(), resultBytes.data() ) );
         std::string image = keyBytes.substr( 0, key ) + resultBytes.substr( 0, result );
         expected.replace( 101, 2 + image.size(), "\1\3" + image );
         expected.replace( 101 + length, 2 + image.size(), "\1\5" + image );
         ASSERT_EQ( allBytes( chunk ), expected ) << key << ", " << result;
         ASSERT_EQ( table->readFromVellumMemory( EmTableIndex( 1 ) ),
                    entryOf( chip5, keyBytes.substr( 0, key ), resultBytes.substr( 0, result ) ) );
      }
   }
}

TEST( EntryIndex, isInvalidByDefaultAndPrintsItsNumber ) {
   EXPECT_EQ( printed( EmTableIndex() ) + ' ' + printed( EmTableIndex( 0 ) ), "4294967295 0" );
   EXPECT_FALSE( EmTableIndex() );
   EXPECT_TRUE( EmTableIndex( 0 ) );
   EXPECT_TRUE( EmTableIndex( 0xFFFFFFFE ).valid() );
   EXPECT_LT( EmTableIndex( 1 ), EmTableIndex( 2 ) );
}

TEST( EntryValue, ordersByValidThenChipThenKeyThenResult ) {
   EmTableEntry const entry = entryOf( chip3, "b", "b" );
   EXPECT_LT( EmTableEntry( false, chip7, keyOf( "z" ), resultOf( "z" ) ), entry );
   EXPECT_LT( entryOf( chip1, "z", "z" ), entry );
   EXPECT_LT( entryOf( chip3, "a", "z" ), entry );
   EXPECT_LT( entryOf( chip3, "b", "a" ), entry );
   EXPECT_EQ( entryOf( chip3, "b", "b" ), entry );
}

TEST( EntryValue, isTrueWhenAnyAttributeDiffersFromTheDefault ) {
   EmTableEntry entry;
   EXPECT_FALSE( entry.valid() );
   EXPECT_EQ( entry.chipId(), Brine::ChipId( 255 ) );
   EXPECT_FALSE( entry );
   entry.chipIdIs( chip0 );
   EXPECT_TRUE( entry );
   entry = EmTableEntry();
   entry.resultIs( resultOf( "r" ) );
   EXPECT_TRUE( entry );
   entry = EmTableEntry();
   entry.validIs( true );
   EXPECT_TRUE( entry );
}

TEST( EntryValue, itsStringFormReadsBackToAnEqualValue ) {
   for ( auto const& entry : { EmTableEntry(), entryOf( chip3, "k,", "\xff)" ) } ) {
      EXPECT_EQ( parsed<EmTableEntry>( printed( entry ) ), entry );
      EXPECT_THROW( parsed<EmTableEntry>( printed( entry ) + ' ' + ')' ), Weft::ParseError );
   }
   EXPECT_THROW( parsed<EmTableEntry>( printed( keyOf( "k" ) ) ), Weft::ParseError );
}

} // namespace
