// SPDX-License-Identifier: Apache-2.0
#include "support/Stepping.h"
#include "support/Tables.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <random>

namespace {

using namespace TestSupport;
using namespace Tessel;
using Vellum::VellumChunk;
using namespace std::string_literals;

/// What a reader in another process got when one write came between any two of its instructions.
void expectOneImageOrTheOther( std::string const& before, std::string const& after ) {
   UniqueName const name;
   auto const chunk = VellumChunk::create( *name, 200 );
   auto const length = static_cast<U32>( before.size() );
   constexpr U32 offset = 50; // crosses a cache line
   struct Got {
      std::array<char, 64> image;
      std::atomic<bool> whole;
   };
   SharedPage<Got> got;
   SteppedChild child( [ & ] {
      got->whole = false;
      chunk->read( offset, got->image.data(), length );
      got->whole = true;
   } );
   if ( !child.traced() ) {
      GTEST_SKIP() << "no process may be traced here";
   }
   U32 instructions = 0;
   for ( ; !got->whole && child.step(); ++instructions ) {}
   child.finish();
   // An instrumented build has too many to stop between any two.
   U32 const stride = instructions < 200 ? 1 : instructions / 40;
   for ( U32 steps = 1; steps < instructions; steps += stride ) {
      chunk->write( offset, std::string( length, '\0' ).data(), length );
      chunk->write( offset, before.data(), length );
      for ( U32 i = 0; i < steps; ++i ) {
         child.step();
      }
      chunk->write( offset, after.data(), length );
      child.finish();
      std::string const image( got->image.data(), length );
      ASSERT_TRUE( image == before || image == after )
         << "after instruction " << steps << ": " << testing::PrintToString( image );
   }
   EXPECT_GT( instructions, 20U );
}

TEST( InterruptedReader, getsOneImageOrTheOther ) {
   auto const image = []( U32 length, char byte ) {
      return "\1\3kk" + std::string( length - 4, byte );
   };
   for ( U32 length : { 12, 16, 20, 36 } ) {
      expectOneImageOrTheOther( image( length, 'b' ), image( length, 'a' ) );
   }
   expectOneImageOrTheOther( image( 36, 'b' ), std::string( 36, '\0' ) );
   expectOneImageOrTheOther( std::string( 36, '\0' ), image( 36, 'a' ) );
}

/// A result that tells its chip, its key and its own version, as far as it has room.
std::string resultFor( Brine::ChipId chip, std::string const& key, U32 version, U32 length ) {
   std::string result( length, '\0' );
   U32 mixed = version * 0x9e3779b1U ^ chip.value();
   for ( char const byte : key ) {
      mixed = ( mixed ^ static_cast<U8>( byte ) ) * 0x01000193U;
   }
   for ( U32 at = 0; at < length; ++at ) {
      mixed = mixed * 1664525U + 1013904223U;
      result[ at ] = at == 0 ? static_cast<char>( version ) : static_cast<char>( mixed >> 24 );
   }
   return result;
}

bool belongs( Brine::ChipId chip, std::string const& key, std::string const& result ) {
   U32 const version = static_cast<U8>( result[ 0 ] );
   return result == resultFor( chip, key, version, static_cast<U32>( result.size() ) );
}

struct Seen {
   std::atomic<bool> writerDone{ false };
   std::atomic<U64> looksFound{ 0 };
   std::atomic<U64> walked{ 0 };
   std::atomic<U64> foreign{ 0 };
};

class SharedTable {
 public:
   SharedTable( std::string const& name, Geometry geometry, U32 offset, U32 seed )
         : geometry_( geometry ), offset_( offset ), random_( seed ),
           chunk_( VellumChunk::open( name ) ), table_( tableOver( chunk_, geometry, offset ) ) {}

   void write( U32 operations ) {
      for ( U32 i = 0; i < operations; ++i ) {
         choose();
         if ( random_() % 8 != 0 ) {
            add( table_, chip_, key_, resultFor( chip_, key_, i & 0xff, geometry_.result ) );
         } else {
            table_->entryDel( chip_, key_.data() );
         }
      }
   }

   void readUntilDone( Seen& seen ) {
      while ( !seen.writerDone ) {
         table_ = tableOver( chunk_, geometry_, offset_ );
         auto const reader = emShadowTableReaderFactory( table_ );
         for ( U32 i = 0; i < 300; ++i ) {
            choose();
            std::string result( geometry_.result, '\0' );
            if ( reader->entry( chip_, key_.data(), result.data() ) ) {
               ++seen.looksFound;
               seen.foreign += belongs( chip_, key_, result ) ? 0 : 1;
            }
         }
         for ( EmTableEntry const& entry : table_->entries() ) {
            if ( entry.valid() ) {
               ++seen.walked;
               seen.foreign += belongs( entry.chipId(),
                                        textOf( entry.key().bytes() ),
                                        textOf( entry.result().bytes() ) )
                                  ? 0
                                  : 1;
            }
         }
      }
   }

 private:
   void choose() {
      chip_ = Brine::ChipId( static_cast<U8>( random_() % 2 ) );
      key_ = std::string( geometry_.key, static_cast<char>( random_() % 2 ) );
   }

   Geometry geometry_;
   U32 offset_;
   std::minstd_rand random_;
   Chunk chunk_;
   Table table_;
   Brine::ChipId chip_{ 0 };
   std::string key_;
};

template<class Work>
pid_t inChild( Work const& work ) {
   pid_t const child = ::fork();
   if ( child == 0 ) {
      work();
      ::_exit( 0 );
   }
   return child;
}

TEST( TwoReaders, besideAWriterNeverMeetAForeignOrATornResult ) {
   U32 seed = 1;
   for ( Geometry const geometry : { Geometry{ .entries = 4, .key = 20, .result = 12 },
                                     Geometry{ .entries = 4, .key = 14, .result = 12 },
                                     Geometry{ .entries = 3, .key = 2, .result = 12 },
                                     Geometry{ .entries = 3, .key = 6, .result = 4 },
                                     Geometry{ .entries = 3, .key = 4, .result = 2 } } ) {
      UniqueName const name;
      auto const chunk = VellumChunk::create( *name, 400 );
      SharedPage<Seen> seen;
      // The result of the first slot crosses a cache line in its middle.
      U32 const offset = 64 - 2 - geometry.key - geometry.result / 2;
      std::array const readers{
         inChild( [ & ] { SharedTable( *name, geometry, offset, 11 ).readUntilDone( *seen ); } ),
         inChild( [ & ] { SharedTable( *name, geometry, offset, 12 ).readUntilDone( *seen ); } )
      };
      pid_t const writer = inChild( [ & ] {
         SharedTable( *name, geometry, offset, seed ).write( 300000 );
         seen->writerDone = true;
      } );
      int status = 0;
      ::waitpid( writer, &status, 0 );
      seen->writerDone = true;
      EXPECT_EQ( status, 0 );
      for ( pid_t const reader : readers ) {
         ::waitpid( reader, &status, 0 );
         EXPECT_EQ( status, 0 );
      }
      EXPECT_EQ( seen->foreign, 0U ) << "key length " << geometry.key;
      EXPECT_GT( seen->looksFound, 0U );
      EXPECT_GT( seen->walked, 0U );
      ++seed;
   }
}

} // namespace
