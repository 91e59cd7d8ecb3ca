// SPDX-License-Identifier: Apache-2.0
#include "Quarry/Slab.h"
#include "support/Heap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <random>
#include <thread>
#include <utility>
#include <vector>

namespace {

// A size class that nothing else in this process uses.
constexpr std::size_t rareSize = 4000;
constexpr std::size_t rareBlocksPerSlab = 65536 / 4000;

/// Blocks filled with a byte of their own, which must still be there when they are freed.
class FilledBlocks {
 public:
   void take( std::size_t size ) {
      auto* const block = static_cast<unsigned char*>( Quarry::slabAlloc( size ) );
      EXPECT_EQ( reinterpret_cast<std::uintptr_t>( block ) % 16, 0U ) << "size " << size;
      std::memset( block, ++filler_, size );
      blocks_.push_back( { block, size, filler_ } );
   }

   template<class Random>
   void freeAtRandom( Random& random, std::size_t leave ) {
      std::shuffle( blocks_.begin(), blocks_.end(), random );
      for ( ; blocks_.size() > leave; blocks_.pop_back() ) {
         auto const& [ bytes, size, filler ] = blocks_.back();
         auto const own = [ filler = filler ]( unsigned char byte ) { return byte == filler; };
         EXPECT_TRUE( std::all_of( bytes, bytes + size, own ) ) << "size " << size;
         Quarry::slabFree( bytes, size );
      }
   }

 private:
   struct Block {
      unsigned char* bytes;
      std::size_t size;
      unsigned char filler;
   };
   std::vector<Block> blocks_;
   unsigned char filler_ = 0;
};

void freeAll( std::vector<void*>& blocks, std::size_t size ) {
   for ( void* const block : blocks ) {
      Quarry::slabFree( block, size );
   }
   blocks.clear();
}

} // namespace

TEST( QuarryTest, blocksOfAllSizesAreAlignedAndNeverOverlapWhileOthersComeAndGo ) {
   std::mt19937 random( 1 );
   FilledBlocks blocks;
   for ( std::size_t const size :
         { 1U, 8U, 15U, 16U, 17U, 24U, 33U, 48U, 63U, 65U, 104U, 1000U, 2048U, 4095U, 4096U } ) {
      for ( std::size_t const left : { 300U, 40U, 0U } ) {
         for ( int i = 0; i < 500; ++i ) {
            blocks.take( size );
         }
         blocks.freeAtRandom( random, left );
      }
   }
}

TEST( QuarryTest, blocksOfOneSizeLieCloseTogether ) {
   std::vector<void*> blocks( 1000 );
   std::generate( blocks.begin(), blocks.end(), [] { return Quarry::slabAlloc( 48 ); } );
   std::sort( blocks.begin(), blocks.end() );
   int neighbours = 0;
   for ( std::size_t i = 1; i < blocks.size(); ++i ) {
      auto const* const before = static_cast<char*>( blocks[ i - 1 ] );
      neighbours += static_cast<char*>( blocks[ i ] ) - before == 48 ? 1 : 0;
   }
   EXPECT_GE( neighbours, 990 );
   freeAll( blocks, 48 );
}

TEST( QuarryTest, anEmptiedSlabGoesBackToTheHeapButForOneSpare ) {
   std::vector<void*> blocks;
   blocks.reserve( 3 * rareBlocksPerSlab );
   Quarry::slabFree( Quarry::slabAlloc( rareSize ), rareSize ); // from here on there is a spare
   auto const before = TestSupport::liveHeapBlocks();
   for ( int round = 0; round < 2; ++round ) {
      while ( blocks.size() < 3 * rareBlocksPerSlab ) {
         blocks.push_back( Quarry::slabAlloc( rareSize ) );
      }
      EXPECT_EQ( TestSupport::liveHeapBlocks(), before + 2 );
      freeAll( blocks, rareSize );
      EXPECT_EQ( TestSupport::liveHeapBlocks(), before );
   }
}

TEST( QuarryTest, freedBlocksAreUsedAgainBeforeANewSlabIsTaken ) {
   std::vector<void*> blocks;
   for ( std::size_t i = 0; i < 3 * rareBlocksPerSlab; ++i ) {
      blocks.push_back( Quarry::slabAlloc( rareSize ) );
   }
   auto const before = TestSupport::liveHeapBlocks();
   for ( std::size_t i = 0; i < blocks.size(); i += 2 ) {
      Quarry::slabFree( std::exchange( blocks[ i ], nullptr ), rareSize );
   }
   for ( std::size_t i = 0; i < blocks.size(); i += 2 ) {
      blocks[ i ] = Quarry::slabAlloc( rareSize );
   }
   EXPECT_EQ( TestSupport::liveHeapBlocks(), before );
   freeAll( blocks, rareSize );
}

TEST( QuarryTest, aSizeThatNoSlabHoldsIsRefusedOrComesFromTheHeap ) {
   EXPECT_THROW( Quarry::slabAlloc( Quarry::largestSlabBlock + 1 ), std::bad_alloc );
   EXPECT_THROW( Quarry::slabAlloc( 0 ), std::bad_alloc );

   auto const before = TestSupport::liveHeapBlocks();
   void* const block = Quarry::slabAllocOrStdMalloc( Quarry::largestSlabBlock + 1 );
   std::memset( block, 0xaa, Quarry::largestSlabBlock + 1 );
   EXPECT_EQ( TestSupport::liveHeapBlocks(), before + 1 );
   Quarry::slabFreeOrStdFree( block, Quarry::largestSlabBlock + 1 );
   EXPECT_EQ( TestSupport::liveHeapBlocks(), before );

   Quarry::slabFree( nullptr, 16 );
   Quarry::slabFreeOrStdFree( nullptr, Quarry::largestSlabBlock + 1 );
}

TEST( QuarryTest, runningOutOfMemoryIsBadAllocAndTheAllocatorGoesOnAfterwards ) {
   std::vector<void*> blocks;
   blocks.reserve( 2 * rareBlocksPerSlab );
   auto const failures = TestSupport::failEachAllocation(
      [ & ] {
         while ( blocks.size() < 2 * rareBlocksPerSlab ) {
            blocks.push_back( Quarry::slabAllocOrStdMalloc( rareSize ) );
         }
      },
      [ & ] { EXPECT_EQ( blocks.size() % rareBlocksPerSlab, 0U ); } );
   EXPECT_GE( failures, 1U );
   freeAll( blocks, rareSize );
}

TEST( QuarryTest, threadsTakeBlocksAndFreeThoseOfOthers ) {
   constexpr std::size_t threads = 4;
   std::vector<std::vector<void*>> blocks( threads );
   auto const inParallel = [ & ]( auto const& work ) {
      std::vector<std::thread> running;
      for ( std::size_t i = 0; i < threads; ++i ) {
         running.emplace_back( [ &, i ] { work( i ); } );
      }
      for ( std::thread& thread : running ) {
         thread.join();
      }
   };
   for ( int round = 0; round < 3; ++round ) {
      inParallel( [ & ]( std::size_t i ) {
         for ( int block = 0; block < 3000; ++block ) {
            blocks[ i ].push_back(
               std::memset( Quarry::slabAlloc( 96 ), static_cast<int>( i ), 96 ) );
         }
      } );
      for ( std::size_t i = 0; i < threads; ++i ) {
         EXPECT_TRUE( std::all_of( blocks[ i ].begin(), blocks[ i ].end(), [ & ]( void* block ) {
            auto const* const bytes = static_cast<unsigned char*>( block );
            return std::count( bytes, bytes + 96, i ) == 96;
         } ) );
      }
      inParallel( [ & ]( std::size_t i ) { freeAll( blocks[ ( i + 1 ) % threads ], 96 ); } );
   }
}

#if defined( __SANITIZE_ADDRESS__ )
TEST( QuarryDeathTest, underAddressSanitizerAFreedBlockIsOutOfBounds ) {
   auto* const block = static_cast<char volatile*>( Quarry::slabAlloc( 24 ) );
   EXPECT_DEATH( block[ 24 ] = 1, "use-after-poison" );
   Quarry::slabFree( const_cast<char*>( block ), 24 );
   EXPECT_DEATH( block[ 0 ] = 1, "use-after-poison" );
   EXPECT_DEATH( Quarry::slabFree( const_cast<char*>( block ), 24 ), "use-after-poison" );
}
#endif
