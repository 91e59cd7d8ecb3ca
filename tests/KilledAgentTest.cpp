// SPDX-License-Identifier: Apache-2.0
#include "support/Asked.h"
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

/// A full table, of more slots than a word of its bitmap has.
class StoppedWhileItClears : public testing::Test {
 protected:
   void SetUp() override {
      for ( char slot = 0; slot < static_cast<char>( slots ); ++slot ) {
         add( table, chip3, std::string( 6, static_cast<char>( '!' + slot ) ), "result" );
      }
   }

   static constexpr U32 slots = 70;
   static constexpr U32 length = 16;
   UniqueName const name;
   Chunk const chunk = VellumChunk::create( *name, slots* length );
   Table const table = tableOver( chunk, { .entries = slots, .key = 6, .result = 6 } );
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

TEST_P( StoppedAtEveryInstruction, aRewriteOfASlotThatACallerGaveToAnotherKeyIsDoneOrNot ) {
   std::string const other( GetParam().key, 'x' );
   writer->freeIndexBmp()->setBit( 1 );
   add( writer, chip5, other, newResult );
   writer->entryDel( chip5, other.data() );
   expectBeforeOrAfter( [ & ] { add( writer, chip3, key, newResult ); }, std::nullopt, newResult );
}

TEST_F( StoppedWhileItClears, everyImageIsWholeOrGone ) {
   std::string const full = allBytes( chunk );
   std::string last;
   U32 states = 0;
   auto const look = [ & ] {
      std::string const bytes = allBytes( chunk );
      states += bytes == std::exchange( last, bytes ) ? 0 : 1;
      for ( std::size_t image = 0; image < full.size(); image += length ) {
         bool const gone = bytes[ image ] == 0;
         ASSERT_TRUE( gone || bytes.substr( image, length ) == full.substr( image, length ) );
      }
   };
   if ( !stepThrough( [ & ] { table->clearTable(); }, look ) ) {
      GTEST_SKIP() << "no process may be traced here";
   }
   EXPECT_GT( states, slots );
   EXPECT_EQ( last, std::string( full.size(), '\0' ) );
}

// A slot of each length that is copied in a way of its own. (One of 12 bytes whose key has less than
// 2 is the one whose result a kill can split.)
INSTANTIATE_TEST_SUITE_P( Geometries,
                          StoppedAtEveryInstruction,
                          testing::Values( Geometry{ .entries = 4, .key = 1, .result = 1 },
                                           Geometry{ .entries = 4, .key = 3, .result = 3 },
                                           Geometry{ .entries = 4, .key = 6, .result = 4 },
                                           Geometry{ .entries = 4, .key = 7, .result = 8 },
                                           Geometry{ .entries = 4, .key = 2, .result = 12 },
                                           Geometry{ .entries = 4, .key = 6, .result = 12 },
                                           Geometry{ .entries = 4, .key = 18, .result = 12 },
                                           Geometry{ .entries = 4, .key = 20, .result = 12 } ),
                          []( auto const& info ) {
                             return "key" + std::to_string( info.param.key ) + "result" +
                                    std::to_string( info.param.result );
                          } );

/// One operation of an endless history, the same for whoever asks for its number: most of one entry, some
/// of several in one call, a few of all of a chip or of the table.
struct Operation {
   Brine::ChipId chip{ 0 };
   std::vector<std::string> keys;
   std::string result;
   enum class Kind { add, del, delChip, clear } kind = Kind::add;

   explicit Operation( U64 number, Geometry geometry ) {
      std::minstd_rand random( static_cast<U32>( number * 2654435761U + 1 ) );
      random.discard( 3 );
      chip = Brine::ChipId( static_cast<U8>( random() % 3 ) );
      auto const first = static_cast<char>( 'a' + random() % 12 );
      U32 const kinds = static_cast<U32>( random() % 40 );
      kind = kinds == 0   ? Kind::clear
             : kinds == 1 ? Kind::delChip
             : kinds < 24 ? Kind::add
                          : Kind::del;
      for ( int i = 0; i < ( kinds % 4 == 0 ? 4 : 1 ); ++i ) {
         keys.emplace_back( geometry.key, static_cast<char>( first + i ) );
      }
      result = std::string( geometry.result, static_cast<char>( random() % 256 ) );
   }

   void apply( Tessel::EmShadowTable& table ) const {
      std::vector<EmPairAndResult> pairs;
      std::vector<EmPair> bare;
      for ( std::string const& key : keys ) {
         pairs.push_back( { chip, key.data(), result.data() } );
         bare.push_back( { chip, key.data() } );
      }
      if ( kind == Kind::clear ) {
         table.clearTable();
      } else if ( kind == Kind::delChip ) {
         table.deleteAll( chip );
      } else if ( kind == Kind::add ) {
         keys.size() > 1 ? (void)table.entryIsBulk( pairs )
                         : (void)table.entryIs( chip, keys[ 0 ].data(), result.data() );
      } else {
         keys.size() > 1 ? (void)table.entryDelBulk( bare )
                         : table.entryDel( chip, keys[ 0 ].data() );
      }
   }
};

using Entries = std::map<std::pair<Brine::ChipId, std::string>, std::string>;

void apply( Operation const& operation, Entries& entries, Geometry geometry ) {
   using Kind = Operation::Kind;
   std::erase_if( entries, [ & ]( auto const& entry ) {
      return operation.kind == Kind::clear ||
             ( operation.kind == Kind::delChip && entry.first.first == operation.chip );
   } );
   for ( std::string const& key : operation.keys ) {
      std::pair const pair( operation.chip, key );
      if ( operation.kind == Kind::del ) {
         entries.erase( pair );
      } else if ( operation.kind == Kind::add &&
                  ( entries.contains( pair ) || entries.size() < geometry.entries ) ) {
         entries[ pair ] = operation.result;
      }
   }
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

/// Agents over one chunk, one after the other, each killed at its work.
class KilledAgents {
 public:
   KilledAgents( Geometry geometry, U32 seed )
         : geometry_( geometry ), start_( seed % 61 ), random_( seed ),
           chunk_( VellumChunk::create( *name_, start_ + size ) ) {}

   /// Kills one that works at full speed, at some time.
   void killAtSomeTime() {
      pid_t const agent = ::fork();
      if ( agent == 0 ) {
         for ( std::optional<Agent> running;; ) {
            workOn( running );
         }
      }
      // The first one may also be killed on its way through its manage call.
      while ( std::exchange( started_, true ) && told_->done <= known_ ) {
         ASSERT_EQ( ::waitpid( agent, nullptr, WNOHANG ), 0 ) << "the agent ended by itself";
      }
      timespec const delay{ .tv_sec = 0, .tv_nsec = static_cast<long>( random_() % 500000 ) };
      ::nanosleep( &delay, nullptr );
      ::kill( agent, SIGKILL );
      ::waitpid( agent, nullptr, 0 );
   }

   /// Kills one after some whole operations and some instructions. False where no process may be
   /// traced.
   bool killAtSomeInstruction() {
      std::optional<Agent> running; // in the child
      SteppedChild child( [ & ] { workOn( running ); } );
      for ( U64 whole = random_() % 8; child.traced() && whole > 0; --whole ) {
         child.finish();
      }
      U64 const most = 50U << random_() % 7; // one operation takes some hundred, or many more
      for ( U64 steps = random_() % most; child.traced() && steps > 0; --steps ) {
         child.step();
      }
      return child.traced();
   }

   /// What a restarted agent finds is what its predecessors have acknowledged, and each entry of the
   /// operation in flight as before it or as after.
   void expectNothingLost() {
      for ( ; known_ < told_->done; ++known_ ) {
         apply( Operation( known_, geometry_ ), entries_, geometry_ );
      }
      Table const table = managed( chunk_ );
      Entries const found = entriesOf( table );
      ASSERT_EQ( table->numUsedEntries(), found.size() );
      Entries after = entries_;
      if ( told_->begun > known_ ) {
         apply( Operation( known_, geometry_ ), after, geometry_ );
      }
      Entries all = entries_;
      all.insert( after.begin(), after.end() );
      all.insert( found.begin(), found.end() );
      for ( auto const& [ pair, ignored ] : all ) {
         auto const as = resultIn( found, pair );
         ASSERT_TRUE( as == resultIn( entries_, pair ) || as == resultIn( after, pair ) ||
                      isSplit( as, resultIn( entries_, pair ), resultIn( after, pair ) ) )
            << pair.second;
      }
   }
   U64 acknowledged() const { return known_; }

 private:
   static constexpr U32 size = 44 + 25 * 36 + 8;

   struct Agent {
      Table table;
      U64 next;
      Operation operation;
   };

   /// One operation; the first one starts the agent.
   void workOn( std::optional<Agent>& agent ) const {
      if ( !agent ) {
         U64 const next = told_->done;
         agent.emplace(
            managed( VellumChunk::open( *name_ ) ), next, Operation( next, geometry_ ) );
         return;
      }
      told_->begun = agent->next + 1;
      agent->operation.apply( *agent->table );
      told_->done = ++agent->next;
      agent->operation = Operation( agent->next, geometry_ );
   }

   Table managed( Chunk const& chunk ) const {
      return Corvo::dynamicPtr<EmShadowTable>(
         tableManagerFactory( "agent", chunk, start_, size )
            ->manageEmShadow( "mac", helperOf( geometry_ ) ) );
   }

   using Result = std::optional<std::string>;
   static Result resultIn( Entries const& entries, Entries::key_type const& pair ) {
      auto const at = entries.find( pair );
      return at == entries.end() ? Result() : Result( at->second );
   }

   /// Whether a result in flight is made of both, in a geometry whose results no single store covers
   /// (docs/guarantees.md).
   bool isSplit( Result const& found, Result const& before, Result const& after ) const {
      U32 const used = 2 + geometry_.key + geometry_.result;
      if ( used < 9 || used > 12 || geometry_.key > 1 || geometry_.result == 8 || !found ||
           !before || !after ) {
         return false;
      }
      for ( std::size_t i = 0; i < found->size(); ++i ) {
         if ( ( *found )[ i ] != ( *before )[ i ] && ( *found )[ i ] != ( *after )[ i ] ) {
            return false;
         }
      }
      return true;
   }

   Geometry geometry_;
   U32 start_; ///< at every distance from a multiple of 16
   std::mt19937 random_;
   UniqueName name_;
   Chunk chunk_;
   SharedPage<Acknowledged> told_;
   Entries entries_;
   U64 known_ = 0;
   bool started_ = false;
};

// TESSEL_TEST_KILLS asks for more: then every geometry has its turn.
TEST( KilledAgent, comesBackWithWhatItAcknowledgedInEveryGeometry ) {
   constexpr U32 geometries = 21 * 13;
   U64 const kills = asked( "TESSEL_TEST_KILLS", 300 );
   U32 const stride = kills < 10 * geometries ? 8 : 1;
   U64 const each = ( kills * stride + geometries - 1 ) / geometries;
   U64 acknowledged = 0;
   bool traced = true;
   for ( U32 i = 0; i < geometries; i += stride ) {
      Geometry const geometry{ .entries = 25, .key = i % 21, .result = i % 13 };
      KilledAgents agents( geometry, i );
      for ( U64 kill = 0; kill < each; ++kill ) {
         traced = traced && ( kill % 2 == 0 || agents.killAtSomeInstruction() );
         if ( kill % 2 == 0 || !traced ) {
            agents.killAtSomeTime();
         }
         agents.expectNothingLost();
         ASSERT_FALSE( HasFatalFailure() ) << "kill " << kill << ", key of " << geometry.key
                                           << " bytes, result of " << geometry.result;
      }
      acknowledged += agents.acknowledged();
   }
   EXPECT_GT( acknowledged, kills );
   RecordProperty( "acknowledged", std::to_string( acknowledged ) );
}

} // namespace
