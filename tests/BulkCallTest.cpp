// SPDX-License-Identifier: Apache-2.0
#include "support/Contract.h"
#include "support/Tables.h"
#include "support/Traces.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <deque>
#include <memory>
#include <random>

namespace {

using namespace TestSupport;
using namespace Tessel;

/// Random pairs of few keys and chips, so that many are met again, with their bytes.
class Pairs {
 public:
   Pairs( Geometry geometry, U32 count ) {
      std::mt19937 random( geometry.key * 100 + geometry.result );
      auto const bytes = [ & ]( U32 length, U32 number ) {
         std::string text( length, static_cast<char>( number ) );
         std::memcpy( text.data(), &number, std::min<std::size_t>( length, sizeof number ) );
         return texts_.emplace_back( std::move( text ) ).data();
      };
      for ( U32 i = 0; i < count; ++i ) {
         all_.push_back( { Brine::ChipId( static_cast<U8>( random() % 3 ) ),
                           bytes( geometry.key, static_cast<U32>( random() % count ) ),
                           bytes( geometry.result, i ) } );
      }
   }

   /// Those from `from` on, as far as they go.
   std::vector<EmPairAndResult> part( std::size_t from, std::size_t count ) const {
      auto const begin =
         all_.begin() + static_cast<std::ptrdiff_t>( std::min( from, all_.size() ) );
      auto const room = static_cast<std::size_t>( all_.end() - begin );
      return { begin, begin + static_cast<std::ptrdiff_t>( std::min( count, room ) ) };
   }

 private:
   std::deque<std::string> texts_; // elements stay where they are
   std::vector<EmPairAndResult> all_;
};

std::vector<EmPair> withoutResults( std::vector<EmPairAndResult> const& pairs ) {
   std::vector<EmPair> keys;
   for ( auto const& pair : pairs ) {
      keys.push_back( { pair.chipId, pair.key } );
   }
   return keys;
}

/// One answer per pair, in memory that a span of bool can have.
struct Answers {
   explicit Answers( std::size_t count ) : bits( new bool[ count ]() ), size( count ) {}
   std::span<bool> span() const { return { bits.get(), size }; }
   std::string text() const {
      std::string digits;
      for ( bool const bit : span() ) {
         digits += bit ? '1' : '0';
      }
      return digits;
   }
   std::unique_ptr<bool[]> bits;
   std::size_t size;
};

/// A table that is filled and emptied in bulk, beside one on which the same is done call by call.
class Twins {
 public:
   explicit Twins( Geometry geometry )
         : geometry_( geometry ), bulk_( made( geometry ) ), single_( made( geometry ) ) {}

   void set( std::vector<EmPairAndResult> const& pairs ) {
      Answers answers( pairs.size() );
      U64 const count = bulk_->entryIsBulk( pairs, answers.span() );
      compare( answers, count, [ & ]( std::size_t i ) {
         return single_->entryIs( pairs[ i ].chipId, pairs[ i ].key, pairs[ i ].result );
      } );
   }
   void del( std::vector<EmPair> const& pairs ) {
      Answers answers( pairs.size() );
      U64 const count = bulk_->entryDelBulk( pairs, answers.span() );
      compare( answers, count, [ & ]( std::size_t i ) {
         bool const was = single_->entryHas( pairs[ i ].chipId, pairs[ i ].key );
         single_->entryDel( pairs[ i ].chipId, pairs[ i ].key );
         return was;
      } );
   }
   void look( std::vector<EmPair> const& pairs ) {
      Answers has( pairs.size() );
      compare( has, bulk_->entryHasBulk( pairs, has.span() ), [ & ]( std::size_t i ) {
         return single_->entryHas( pairs[ i ].chipId, pairs[ i ].key );
      } );
      std::vector<std::string> results( pairs.size(), std::string( geometry_.result, '-' ) );
      std::vector<EmPairAndBuffer> wanted;
      for ( std::size_t i = 0; i < pairs.size(); ++i ) {
         wanted.push_back( { pairs[ i ].chipId, pairs[ i ].key, results[ i ].data() } );
      }
      Answers got( pairs.size() );
      compare( got, bulk_->entryBulk( wanted, got.span() ), [ & ]( std::size_t i ) {
         std::string result( geometry_.result, '-' );
         bool const there = single_->entry( pairs[ i ].chipId, pairs[ i ].key, result.data() );
         EXPECT_EQ( results[ i ], result );
         return there;
      } );
   }
   void expectSame() {
      EXPECT_EQ( bulk_->numUsedEntries(), single_->numUsedEntries() );
      EXPECT_EQ( bulk_->keyToIndexListCount(), single_->keyToIndexListCount() );
      EXPECT_EQ( imagesOf( bulk_ ), imagesOf( single_ ) );
   }

   Table const& bulk() const { return bulk_; }
   Table const& single() const { return single_; }

 private:
   static Table made( Geometry geometry ) {
      return tableOver( Vellum::VellumChunk::inProcess( geometry.entries * 36 ), geometry );
   }
   std::string imagesOf( Table const& table ) const {
      return bytesAt( table->vellumChunk(), 0, table->tableShadowSize() );
   }
   template<class One>
   static void compare( Answers const& answers, U64 count, One const& one ) {
      Answers expected( answers.size );
      for ( std::size_t i = 0; i < answers.size; ++i ) {
         expected.bits[ i ] = one( i );
      }
      EXPECT_EQ( answers.text(), expected.text() );
      EXPECT_EQ( count, static_cast<U64>( std::ranges::count( expected.span(), true ) ) );
   }

   Geometry geometry_;
   Table bulk_;
   Table single_;
};

// Small tables are worked on directly, large ones fetch ahead; each class of key and result lengths
// has code of its own.
TEST( BulkCall, doesWhatTheSingleCallsDoInEveryGeometry ) {
   for ( Geometry const geometry : { Geometry{ 9000, 16, 8 },
                                     Geometry{ 9000, 6, 4 },
                                     Geometry{ 9000, 8, 0 },
                                     Geometry{ 9000, 20, 12 },
                                     Geometry{ 9000, 11, 3 },
                                     Geometry{ 9000, 5, 2 },
                                     Geometry{ 50, 17, 1 },
                                     Geometry{ 50, 8, 8 } } ) {
      SCOPED_TRACE( testing::Message() << geometry.key << '+' << geometry.result );
      U32 const count = geometry.entries * 2; // more than fit
      Pairs const pairs( geometry, count );
      Twins twins( geometry );
      for ( std::size_t from = 0; from < count; from += 3001 ) {
         twins.set( pairs.part( from, 3001 ) );
         twins.look( withoutResults( pairs.part( from / 2, 3001 ) ) );
         twins.del( withoutResults( pairs.part( from / 3, 500 ) ) );
      }
      twins.expectSame();
      auto const again = tableOver( twins.bulk()->vellumChunk(), geometry );
      EXPECT_EQ( again->numUsedEntries(), twins.single()->numUsedEntries() );
      EXPECT_EQ( again->keyToIndexListCount(), twins.single()->keyToIndexListCount() );
   }
}

// What a large table may take for granted, and a small one never looks at.
TEST( BulkCall, doesWhatTheSingleCallsDoWhereOthersHoldTheBookkeeping ) {
   Geometry const geometry{ 20'000, 8, 8 }; // large enough to fetch ahead
   Pairs const pairs( geometry, 3000 );
   auto const all = pairs.part( 0, 3000 );
   auto const handsOut = [ & ]( auto const& handOut ) {
      Twins twins( geometry );
      twins.set( all );
      handOut( *twins.bulk() );
      handOut( *twins.single() );
      twins.look( withoutResults( all ) );
      twins.set( pairs.part( 1000, 1000 ) );
      twins.del( withoutResults( pairs.part( 500, 1000 ) ) );
      twins.look( withoutResults( all ) );
      twins.expectSame();
   };
   handsOut( []( EmShadowTable& table ) { EXPECT_TRUE( table.freeIndexBmp() ); } );
   // The object of a key takes the place of one of its pairs: the others are no elements any more.
   handsOut( [ & ]( EmShadowTable& table ) {
      for ( auto const& pair : all ) {
         EXPECT_TRUE( table.keyToIndexList( keyOf( { pair.key, geometry.key } ) ) );
      }
   } );
}

TEST( BulkCall, followsAChainThroughItsOwnBuffers ) {
   Geometry const geometry{ 20'000, 8, 8 }; // large enough to fetch ahead
   auto const table = tableOver( Vellum::VellumChunk::inProcess( 1 << 20 ), geometry );
   std::array<U64, 100> links{};
   std::vector<EmPairAndBuffer> steps;
   U64 first = 1;
   char* key = reinterpret_cast<char*>( &first );
   for ( U64 i = 0; i < links.size(); ++i ) {
      U64 const from = i + 1;
      U64 const to = i + 2;
      ASSERT_TRUE( table->entryIs(
         chip3, reinterpret_cast<char const*>( &from ), reinterpret_cast<char const*>( &to ) ) );
      steps.push_back( { chip3, key, reinterpret_cast<char*>( &links[ i ] ) } );
      key = reinterpret_cast<char*>( &links[ i ] );
   }
   EXPECT_EQ( table->entryBulk( steps ), links.size() );
   EXPECT_EQ( links.back(), links.size() + 1 );
}

// A slot that is in use and that the map does not name holds an image of the very pair.
TEST( BulkCall, rewritesTheSlotThatTheMapNamesWhenTheMapGrowsOnTheWay ) {
   Geometry const geometry{ .entries = 400'000, .key = 8, .result = 4 };
   auto const table = tableOver( Vellum::VellumChunk::inProcess( 400'000 * 16 ), geometry );
   auto const keyNumber = []( U64 number ) {
      return std::string( reinterpret_cast<char const*>( &number ), sizeof number );
   };
   add( table, chip3, keyNumber( 0 ), "old0" );
   table->deleteTableIndex( chip3, keyOf( keyNumber( 0 ) ) );
   U64 keys = 0;
   constexpr U64 manyEnough = 16'000; // for stages
   while ( keys < manyEnough || keys + 4 < table->keyToIndexListCapacity() ) {
      add( table, chip3, keyNumber( ++keys ), "rrrr" );
   }
   add( table, chip3, keyNumber( 0 ), "old1" );
   std::deque<std::string> wanted;
   std::vector<EmPairAndResult> pairs;
   for ( U64 i = 1; i < 16; ++i ) {
      pairs.push_back( { chip3, wanted.emplace_back( keyNumber( keys + i ) ).data(), "rrrr" } );
   }
   pairs.push_back( { chip3, wanted.emplace_back( keyNumber( 0 ) ).data(), "new1" } );
   U64 const before = table->keyToIndexListCapacity();
   EXPECT_EQ( table->entryIsBulk( pairs ), pairs.size() );
   EXPECT_GT( table->keyToIndexListCapacity(), before );
   EXPECT_EQ( lookUp( *table, chip3, keyNumber( 0 ) ), "new1" );
}

TEST( BulkCall, makesRoomForAllThatItAddsAtOnce ) {
   // Too large to take all its memory with the first entry.
   Geometry const geometry{ .entries = 400'000, .key = 8, .result = 2 };
   auto const table = tableOver( Vellum::VellumChunk::inProcess( 400'000 * 12 ), geometry );
   Pairs const pairs( geometry, 50'000 );
   EXPECT_EQ( table->entryIsBulk( pairs.part( 0, 50'000 ) ), 50'000U );
   EXPECT_GE( table->keyToIndexListCapacity(), 50'000U );
   EXPECT_LT( table->keyToIndexListCapacity(), 60'000U );
   EXPECT_EQ( table->entryHasBulk( withoutResults( pairs.part( 0, 50'000 ) ) ), 50'000U );
}

TEST( BulkCall, putsNoMoreIntoTheMapThanItHasRoomFor ) {
   Geometry const geometry{ .entries = 400'000, .key = 8, .result = 2 };
   auto const table = tableOver( Vellum::VellumChunk::inProcess( 400'000 * 12 ), geometry );
   std::mt19937_64 random( 5 );
   for ( U32 call = 0; call < 570; ++call ) {
      std::array<U64, 7> keys{};
      std::vector<EmPairAndResult> pairs;
      for ( U64& key : keys ) {
         key = random();
         pairs.push_back( { chip3, reinterpret_cast<char const*>( &key ), "rr" } );
      }
      table->entryIsBulk( pairs );
      ASSERT_GE( table->keyToIndexListCapacity(), table->numUsedEntries() );
   }
}

TEST( BulkCall, tracesWhatTheSingleCallsTrace ) {
   Twins const twins( { 8, 4, 2 } );
   Pairs const pairs( { 8, 4, 2 }, 12 );
   auto const all = pairs.part( 0, 12 );
   TraceRecorder recorder( "TesselEmTable" );
   std::array<char, 2> result{};
   std::vector<EmPairAndBuffer> buffers;
   for ( auto const& pair : all ) {
      buffers.push_back( { pair.chipId, pair.key, result.data() } );
   }
   twins.bulk()->entryIsBulk( all );
   twins.bulk()->entryBulk( buffers );
   twins.bulk()->entryHasBulk( withoutResults( all ) );
   twins.bulk()->entryDelBulk( withoutResults( all ) );
   auto const bulk = recorder.take();
   for ( auto const& pair : all ) {
      twins.single()->entryIs( pair.chipId, pair.key, pair.result );
   }
   for ( auto const& pair : buffers ) {
      twins.single()->entry( pair.chipId, pair.key, pair.result );
   }
   for ( auto const& pair : all ) {
      twins.single()->entryHas( pair.chipId, pair.key );
   }
   for ( auto const& pair : all ) {
      twins.single()->entryDel( pair.chipId, pair.key );
   }
   EXPECT_EQ( bulk, recorder.take() );
}

TEST( BulkCall, answersOfAnotherNumberAreRefused ) {
   auto const table = newTable();
   std::vector<EmPair> const pairs( 2, { chip3, "AAAA" } );
   Answers const answers( 1 );
   EXPECT_EQ( failedCondition( [ & ] { table->entryHasBulk( pairs, answers.span() ); } ),
              "answers.empty() || answers.size() == pairs.size()" );
}

} // namespace
