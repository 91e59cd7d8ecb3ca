// SPDX-License-Identifier: Apache-2.0
#include "support/Tables.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace {

using namespace TestSupport;
using Tessel::EntryKey;
using Tessel::EntryResult;
using namespace std::string_view_literals;

static_assert( !std::is_convertible_v<EntryKey, EntryResult> &&
               !std::is_constructible_v<EntryKey, EntryResult> &&
               !std::is_constructible_v<EntryResult, EntryKey> );

TEST( ByteString, aDefaultValueIsFalseAndEqualsTheEmptyOne ) {
   EXPECT_FALSE( EntryKey() );
   EXPECT_EQ( EntryKey(), keyOf( "" ) );
   EXPECT_TRUE( keyOf( "\0"sv ) ) << "a zero byte is a byte";
}

TEST( ByteString, zeroBytesCount ) {
   EXPECT_NE( keyOf( "ab" ), keyOf( "ab\0"sv ) );
   EXPECT_NE( keyOf( "ab" ).hash(), keyOf( "ab\0"sv ).hash() );
   EXPECT_EQ( keyOf( "ab\0"sv ).bytes().size(), 3U );
}

TEST( ByteString, keyAndResultOfTheSameBytesHashAlike ) {
   EXPECT_EQ( keyOf( "same" ).hash(), resultOf( "same" ).hash() );
   EXPECT_NE( keyOf( "same" ).hash(), keyOf( "sane" ).hash() );
}

TEST( ByteString, ordersBytewiseWithBytesAsUnsignedNumbersAndThePrefixFirst ) {
   EXPECT_LT( keyOf( "ab" ), keyOf( "ab\0"sv ) );
   EXPECT_LT( keyOf( "\x7f" ), keyOf( "\x80" ) );
   EXPECT_FALSE( keyOf( "ab" ) < keyOf( "ab" ) );
   EntryKey const a = keyOf( "a" );
   EntryKey const alsoA = keyOf( "a" );
   EntryKey const b = keyOf( "b" );
   EXPECT_TRUE( EntryKey::isEq( &a, &alsoA ) );
   EXPECT_FALSE( EntryKey::isEq( &a, &b ) );
}

TEST( ByteString, aLongValueIsCopiedWhole ) {
   std::string const text( 1000, 'x' );
   EntryResult const original = resultOf( text );
   EntryResult copy;
   copy = original;
   EXPECT_EQ( textOf( copy.bytes() ), text );
   EXPECT_EQ( copy, original );
}

TEST( ByteString, itsStringFormReadsBackToAnEqualValue ) {
   for ( auto const bytes : { ""sv, "ab"sv, "a\0b\xff,)\""sv, "more than twenty bytes long"sv } ) {
      EXPECT_EQ( parsed<EntryKey>( printed( keyOf( bytes ) ) ), keyOf( bytes ) );
      EXPECT_EQ( parsed<EntryResult>( printed( resultOf( bytes ) ) ), resultOf( bytes ) );
   }
}

TEST( ByteString, aTextThatIsNoStringFormIsRefused ) {
   std::string const key = printed( keyOf( "ab" ) );
   EXPECT_THROW( parsed<EntryResult>( key ), Weft::ParseError ) << "that of another type";
   EXPECT_THROW( parsed<EntryKey>( key + "x" ), Weft::ParseError ) << "characters left over";
   EXPECT_THROW( parsed<EntryKey>( key + " " ), Weft::ParseError ) << "a blank is one";
   EXPECT_THROW( parsed<EntryKey>( "Tessel::EntryKey()" ), Weft::ParseError ) << "no bytes";
   for ( std::size_t length = 0; length < key.size(); ++length ) {
      EXPECT_THROW( parsed<EntryKey>( key.substr( 0, length ) ), Weft::ParseError ) << length;
   }
}

} // namespace
