// SPDX-License-Identifier: Apache-2.0
#include "support/Stepping.h"
#include "support/Tables.h"

#include <gtest/gtest.h>

#include <atomic>
#include <ctime>
#include <functional>
#include <map>
#include <random>

namespace {

using namespace TestSupport;
using namespace Tessel;
using Vellum::VellumChunk;

class StoppedAtEveryInstruction : public testing::TestWithParam<Geometry> {
 protected:
   void SetUp() override {
      add( writer, chip3, older, std::string( 12, 'o' ) );
      add( writer, chip3, key, std::string( 12, 'b' ) );
      add( writer, chip5, older, std::string( 12, 'o' ) );
   }

   /// Runs `work` step by step and looks at every state of the chunk on the way, as a restart and
   /// as a reader: the entry of (chip 3, key) has one of the two results, the others are untouched.
   void expectBeforeOrAfter( std::function<void()> const& work,
                             std::optional<std::string> before,
                             std::optional<std::string> after ) {
      cut( before );
      cut( after );
      std::string last;
      U32 states = 0;
      Table const readersTable = tableOver( chunk, GetParam(), offset );
      auto const reader = emShadowTableReaderFactory( readersTable );
      auto const look = [ & ] {
         std::string const bytes = allBytes( chunk );
         if ( bytes == last ) {
            return;
         }
         if ( before && after && !last.empty() ) {
            expectMarked( last, bytes );
         }
         last = bytes;
         ++states;
         auto const restarted = tableOver( chunk, GetParam(), offset );
         auto const found = lookUp( *restarted, chip3, key );
         EXPECT_TRUE( found == before || found == after ) << testing::PrintToString( bytes );
         EXPECT_EQ( lookUp( *restarted, chip3, older ), std::string( GetParam().result, 'o' ) );
         EXPECT_EQ( lookUp( *restarted, chip5, older ), std::string( GetParam().result, 'o' ) );
         EXPECT_EQ( restarted->numUsedEntries(), found ? 3U : 2U );
         auto const read = lookUp( *reader, chip3, key );
         EXPECT_TRUE( read == before || read == after ||
                      !readersTable->entryHas( chip3, key.data() ) );
      };
      if ( !stepThrough( work, look ) ) {
         GTEST_SKIP() << "no process may be traced here";
      }
      EXPECT_GT( states, 1U );
      EXPECT_EQ( lookUp( *tableOver( chunk, GetParam(), offset ), chip3, key ), after );
   }

   /// Another process may meet any mixture of two neighbouring states. So a rewritten image changes
   /// behind a first byte that tells a reader to look again.
   void expectMarked( std::string const& from, std::string const& to ) const {
      std::size_t const first = offset + writer->entryLengthBytes(); // of slot 1
      if ( from.substr( first + 1 ) != to.substr( first + 1 ) ) {
         EXPECT_EQ( from[ first ], to[ first ] );
         EXPECT_GT( static_cast<U8>( to[ first ] ), 1 );
      }
   }

   void cut( std::optional<std::string>& result ) const {
      if ( result ) {
         result->resize( GetParam().result );
      }
   }

   static constexpr U32 offset = 50; // images cross cache lines
   UniqueName const name;
   Chunk const chunk = VellumChunk::create( *name, 200 );
   Table const writer = tableOver( chunk, GetParam(), offset );
   std::string const key = std::string( GetParam().key, 'k' );
   std::string const older = std::string( GetParam().key, 'o' );
   std::string const newResult = std::string( 12, 'a' );
};

TEST_P( StoppedAtEveryInstruction, aRewriteIsDoneOrNot ) {
   expectBeforeOrAfter(
      [ & ] { add( writer, chip3, key, newResult ); }, std::string( 12, 'b' ), newResult );
}

TEST_P( StoppedAtEveryInstruction, aRemovalIsDoneOrNot ) {
   expectBeforeOrAfter(
      [ & ] { writer->entryDel( chip3, key.data() ); }, std::string( 12, 'b' ), std::nullopt );
}

TEST_P( StoppedAtEveryInstruction, anAdditionIsDoneOrNot ) {
   writer->entryDel( chip3, key.data() );
   expectBeforeOrAfter( [ & ] { add( writer, chip3, key, newResult ); }, std::nullopt, newResult );
}

// A slot of each length that is copied in a way of its own. (One of 12 bytes whose key has less than
// 2 is the one whose result a kill can split.)
INSTANTIATE_TEST_SUITE_P( Geometries,
                          StoppedAtEveryInstruction,
                          testing::Values( Geometry{ .entries = 4, .key = 1, .result = 1 },
                                           Geometry{ .entries = 4, .key = 3, .result = 3 },
                                           Geometry{ .entries = 4, .key = 6, .result = 4 },
                                           Geometry{ .entries = 4, .key = 2, .result = 12 },
                                           Geometry{ .entries = 4, .key = 6, .result = 12 },
                                           Geometry{ .entries = 4, .key = 18, .result = 12 },
                                           Geometry{ .entries = 4, .key = 20, .result = 12 } ),
                          []( auto const& info ) {
                             return "key" + std::to_string( info.param.key ) + "result" +
                                    std::to_string( info.param.result );
                          } );

/// One operation of an endless history, the same for whoever asks for its number.
struct Operation {
   Brine::ChipId chip{ 0 };
   std::string key;
   std::string result;
   bool adds = false;

   explicit Operation( U64 number, Geometry geometry ) {
      std::minstd_rand random( static_cast<U32>( number * 2654435761U + 1 ) );
      random.discard( 3 );
      chip = Brine::ChipId( static_cast<U8>( random() % 3 ) );
      key = std::string( geometry.key, static_cast<char>( 'a' + random() % 12 ) );
      result = std::string( geometry.result, static_cast<char>( random() % 256 ) );
      adds = random() % 5 < 3;
   }
   void apply( Tessel::EmShadowTable& table ) const {
      if ( adds ) {
         table.entryIs( chip, key.data(), result.data() );
      } else {
         table.entryDel( chip, key.data() );
      }
   }
};

using Entries = std::map<std::pair<Brine::ChipId, std::string>, std::string>;

Entries applied( Entries entries, Operation const& operation, Geometry geometry ) {
   std::pair const pair( operation.chip, operation.key );
   if ( !operation.adds ) {
      entries.erase( pair );
   } else if ( entries.contains( pair ) || entries.size() < geometry.entries ) {
      entries[ pair ] = operation.result;
   }
   return entries;
}

Entries entriesOf( Table const& table ) {
   Entries entries;
   for ( EmTableEntry const& entry : table->entries() ) {
      entries[ { entry.chipId(), textOf( entry.key().bytes() ) } ] =
         textOf( entry.result().bytes() );
   }
   return entries;
}

/// What the agent has told about its history; outlives it.
struct Acknowledged {
   std::atomic<U64> begun{ 0 };
   std::atomic<U64> done{ 0 };
};

[[noreturn]] void runAgent( std::string const& name, Geometry geometry, Acknowledged& told ) {
   auto const manager = tableManagerFactory( "agent", VellumChunk::open( name ), 0, 2000 );
   auto const table =
      Corvo::dynamicPtr<EmShadowTable>( manager->manageEmShadow( "mac", helperOf( geometry ) ) );
   for ( U64 number = told.done;; ++number ) {
      Operation const operation( number, geometry );
      told.begun = number + 1;
      operation.apply( *table );
      told.done = number + 1;
   }
}

TEST( KilledAgent, comesBackWithWhatItAcknowledged ) {
   Geometry const geometry{ .entries = 25, .key = 20, .result = 12 };
   UniqueName const name;
   auto const chunk = VellumChunk::create( *name, 2000 );
   SharedPage<Acknowledged> told;
   std::mt19937 random( 7 );
   Entries entries;
   U64 known = 0;
   for ( U32 kill = 0; kill < 100; ++kill ) {
      pid_t const agent = ::fork();
      if ( agent == 0 ) {
         runAgent( *name, geometry, *told );
      }
      while ( told->begun <= known ) {
         ASSERT_EQ( ::waitpid( agent, nullptr, WNOHANG ), 0 ) << "the agent ended by itself";
      }
      timespec const delay{ .tv_sec = 0, .tv_nsec = static_cast<long>( random() % 1000000 ) };
      ::nanosleep( &delay, nullptr );
      ::kill( agent, SIGKILL );
      ::waitpid( agent, nullptr, 0 );

      for ( ; known < told->done; ++known ) {
         entries = applied( std::move( entries ), Operation( known, geometry ), geometry );
      }
      auto const manager = tableManagerFactory( "agent", chunk, 0, 2000 );
      auto const table =
         Corvo::dynamicPtr<EmShadowTable>( manager->manageEmShadow( "mac", helperOf( geometry ) ) );
      Entries const found = entriesOf( table );
      ASSERT_EQ( table->numUsedEntries(), found.size() );
      Entries const after =
         told->begun > known ? applied( entries, Operation( known, geometry ), geometry ) : entries;
      ASSERT_TRUE( found == entries || found == after ) << "kill " << kill;
   }
   EXPECT_GT( known, 100U );
}

} // namespace
