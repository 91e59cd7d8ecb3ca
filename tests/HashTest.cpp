// SPDX-License-Identifier: Apache-2.0
#include "Weft/Hash.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <set>
#include <string>
#include <string_view>

namespace {

U32 hashOf( std::string_view text ) {
   Weft::Hash hash;
   hash.mixNi( text.data(), static_cast<U32>( text.size() ) );
   return hash.result();
}

template<std::size_t wordCount>
U32 hashAsWords( std::string_view text ) {
   std::array<U64, wordCount> words{};
   std::memcpy( words.data(), text.data(), text.size() );
   return Weft::hashWords( words, static_cast<U32>( text.size() ) );
}

} // namespace

TEST( HashTest, theHashOfAByteStringNeverChanges ) {
   EXPECT_EQ( hashOf( "" ), 0x1df90f2dU );
   EXPECT_EQ( hashOf( "a" ), 0x77bf9482U );
   EXPECT_EQ( hashOf( std::string_view( "\0", 1 ) ), 0x3bb32edfU );
   EXPECT_EQ( hashOf( "\x0a\x0b\x0c\x0d\x0e\x0f\x01\x02" ), 0xc479465bU );
   EXPECT_EQ( hashOf( "0123456789abcdef" ), 0xbb73eb11U );
   EXPECT_EQ( hashOf( "0123456789abcdefghij" ), 0x8f052b7bU );
   EXPECT_EQ( hashOf( "a byte string that needs more than two steps" ), 0x3de307f1U );
}

TEST( HashTest, wordsInRegistersHashLikeTheirBytesAtEveryLength ) {
   std::string_view const text = "\xff\x80 a key of 20 bytes";
   for ( std::size_t length = 0; length <= text.size(); ++length ) {
      std::string_view const key = text.substr( 0, length );
      U32 const words = length <= 8    ? hashAsWords<1>( key )
                        : length <= 16 ? hashAsWords<2>( key )
                                       : hashAsWords<3>( key );
      EXPECT_EQ( words, hashOf( key ) ) << "length " << length;
   }
}

TEST( HashTest, theLengthCountsAlsoWhereTheBytesAreZero ) {
   std::set<U32> hashes;
   for ( std::size_t length = 0; length <= 64; ++length ) {
      hashes.insert( hashOf( std::string( length, '\0' ) ) );
   }
   EXPECT_EQ( hashes.size(), 65U );
}

TEST( HashTest, everySingleBitOfAKeyChangesTheHash ) {
   std::string const key( 20, 'k' );
   std::set<U32> hashes{ hashOf( key ) };
   for ( std::size_t bit = 0; bit < key.size() * 8; ++bit ) {
      std::string other = key;
      other[ bit / 8 ] = static_cast<char>( other[ bit / 8 ] ^ ( 1 << bit % 8 ) );
      hashes.insert( hashOf( other ) );
   }
   EXPECT_EQ( hashes.size(), key.size() * 8 + 1 );
}

TEST( HashTest, consecutiveKeysSpreadOverTheBucketsOfATable ) {
   constexpr U32 keys = 65536;
   std::array<U32, 4096> buckets{};
   for ( U64 number = 0; number < keys; ++number ) {
      ++buckets[ Weft::hashWords( std::array{ number }, 8 ) % buckets.size() ];
   }
   // 16 keys in a bucket on average; an even spread stays far below 48 in its fullest.
   for ( U32 const count : buckets ) {
      EXPECT_LT( count, 48U );
   }
}

TEST( HashTest, anAccumulatorTakesInWhatCameBeforeAndInWhichOrder ) {
   auto const hashOfTwo = []( std::string_view first, std::string_view second ) {
      Weft::Hash hash;
      hash.mixNi( first.data(), static_cast<U32>( first.size() ) );
      hash.mixNi( second.data(), static_cast<U32>( second.size() ) );
      return hash.result();
   };
   EXPECT_NE( hashOfTwo( "a", "b" ), hashOfTwo( "b", "a" ) );
   EXPECT_NE( hashOfTwo( "a", "b" ), hashOf( "ab" ) );
   EXPECT_NE( hashOfTwo( "a", "bc" ), hashOfTwo( "ab", "c" ) );
}
