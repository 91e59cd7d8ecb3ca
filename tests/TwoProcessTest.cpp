// SPDX-License-Identifier: Apache-2.0
#include "support/Asked.h"
#include "support/Contract.h"
#include "support/Stepping.h"
#include "support/Tables.h"
#include "support/Tool.h"
#include "tools/tessel/HexText.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <iostream>
#include <list>
#include <random>
#include <set>

#include <sys/syscall.h>

namespace {

using namespace TestSupport;
using namespace Tessel;
using Vellum::VellumChunk;
using namespace std::string_literals;

/// A process that reads again and again, stopped wherever the test likes.
class InterruptedReading {
 public:
   /// `read` writes at most 64 bytes.
   explicit InterruptedReading( std::function<void( char* )> const& read )
         : child_( [ & ] { read( got_->data() ); } ) {
      for ( ; traced() && child_.step(); ++instructions_ ) {}
   }

   bool traced() const { return child_.traced(); }
   /// How many instructions one reading takes.
   U32 instructions() const { return instructions_; }
   /// At most to the end of the reading.
   void steps( U32 count ) {
      for ( ; count > 0 && !isOver_; --count ) {
         isOver_ = !child_.step();
      }
   }
   bool runsTo( U64 call ) {
      isOver_ = !child_.runTo( call );
      return !isOver_;
   }
   bool isOver() const { return isOver_; }
   /// What has been read; the next step begins another reading.
   std::string finishes( std::size_t length ) {
      if ( !isOver_ ) {
         child_.finish();
      }
      isOver_ = false;
      return { got_->data(), length };
   }

 private:
   SharedPage<std::array<char, 64>> got_;
   SteppedChild child_;
   U32 instructions_ = 0;
   bool isOver_ = false;
};

/// Bytes of which no other version has any four at the same place.
std::string contentOf( U32 version, U32 length ) {
   std::string content;
   while ( content.size() < length ) {
      content.append( reinterpret_cast<char const*>( &version ), sizeof version );
   }
   return content;
}

/// What readings get when writes come between their instructions: between all of them, then fewer.
void expectOneOfThoseWritten( InterruptedReading& reading,
                              std::function<void( std::string const& )> const& write,
                              std::function<std::string( U32 )> const& imageOf ) {
   if ( !reading.traced() ) {
      GTEST_SKIP() << "no process may be traced here";
   }
   U32 const instructions = reading.instructions();
   EXPECT_GT( instructions, 20U );
   constexpr U32 gaps = 7;
   U32 const readings = gaps + 5'000 / instructions;
   std::minstd_rand random( 1 );
   U32 version = 1;
   for ( U32 i = 0; i < readings; ++i ) {
      std::set<std::string> written;
      auto const writeNext = [ & ] {
         std::string const image = imageOf( version++ );
         write( image );
         written.insert( image );
      };
      writeNext();
      U32 const longestGap = 1U << 2 * ( i % gaps );
      for ( U32 taken = 0; taken < 2 * instructions && !reading.isOver(); ) {
         U32 const gap = 1 + static_cast<U32>( random() ) % longestGap;
         reading.steps( gap );
         writeNext();
         taken += gap;
      }
      std::string const got = reading.finishes( imageOf( 0 ).size() );
      ASSERT_TRUE( written.contains( got ) )
         << "writes up to " << longestGap
         << " instructions apart: " << testing::PrintToString( got );
   }
}

class InterruptedReader : public testing::Test {
 protected:
   static constexpr U32 offset = 50; // crosses a cache line
   static std::string imageOf( U32 length, char byte ) {
      return "\1\3kk" + std::string( length - 4, byte );
   }

   UniqueName const name;
   Chunk const chunk = VellumChunk::create( *name, 200 );
};

TEST_F( InterruptedReader, getsOneWholeImage ) {
   for ( U32 const length : { 12, 16, 20, 24, 36 } ) {
      InterruptedReading reading( [ & ]( char* to ) { chunk->read( offset, to, length ); } );
      auto const write = [ & ]( std::string const& image ) {
         chunk->write( offset, image.data(), length );
      };
      bool const comesAndGoes = length == 20;
      expectOneOfThoseWritten( reading, write, [ & ]( U32 version ) {
         return comesAndGoes && version % 3 == 0 ? std::string( length, '\0' )
                                                 : "\1\3kk" + contentOf( version, length - 4 );
      } );
   }
}

TEST_F( InterruptedReader, ofATableGetsOneWholeResult ) {
   Geometry const geometry{ .entries = 1, .key = 6, .result = 12 };
   auto const writer = tableOver( chunk, geometry, offset );
   auto const write = [ & ]( std::string const& result ) {
      add( writer, chip3, "key6by", result );
   };
   write( std::string( 12, 'b' ) );
   auto const table = tableOver( chunk, geometry, offset );
   InterruptedReading reading( [ & ]( char* to ) { table->entry( chip3, "key6by", to ); } );
   expectOneOfThoseWritten(
      reading, write, []( U32 version ) { return contentOf( version, 12 ); } );
}

class InterruptedReaderOfAMark : public InterruptedReader {
 protected:
   void SetUp() override {
      if ( !reading.traced() ) {
         GTEST_SKIP() << "no process may be traced here";
      }
      putAsItIs( "\xff\3kkaaaaaabbbbbb" );
   }
   void put( std::string const& image ) const {
      chunk->write( offset, image.data(), static_cast<U32>( image.size() ) );
   }
   /// Without the care of a whole image.
   void putAsItIs( std::string const& image ) const {
      for ( U32 i = 0; i < image.size(); ++i ) {
         chunk->write( offset + i, &image[ i ], 1 );
      }
   }

   Table const table = [ this ] {
      put( imageOf( 16, 'b' ) );
      return tableOver( chunk, { .entries = 1, .key = 2, .result = 12 }, offset );
   }();
   InterruptedReading reading{ [ this ]( char* to ) { table->entry( chip3, "kk", to ); } };
};

TEST_F( InterruptedReaderOfAMark, waitsWhileItChanges ) {
   U32 const someTries = reading.instructions() / 4;
   for ( U32 changes = 0; changes < 2 * Vellum::patience; ++changes ) {
      auto const changed = static_cast<char>( changes );
      chunk->write( offset + 12, &changed, 1 );
      reading.steps( someTries );
      ASSERT_FALSE( reading.isOver() ) << "after " << changes << " changes";
   }
   put( imageOf( 16, 'a' ) );
   EXPECT_EQ( reading.finishes( 12 ), std::string( 12, 'a' ) );
}

TEST_F( InterruptedReaderOfAMark, waitsAnewWhenItChanges ) {
   for ( char const changed : { 'c', 'd', 'e' } ) {
      ASSERT_TRUE( reading.runsTo( SYS_membarrier ) ) << "it has waited";
      chunk->write( offset + 12, &changed, 1 );
   }
   put( imageOf( 16, 'a' ) );
   EXPECT_EQ( reading.finishes( 12 ), std::string( 12, 'a' ) );
}

TEST_F( InterruptedReaderOfAMark, hasAllStoresFinishedBeforeItBelievesTheMark ) {
   ASSERT_TRUE( reading.runsTo( SYS_membarrier ) );
   putAsItIs( "\xff\3kkaaaaaaaaaaaa" ); // the other half of a store of its writer
   EXPECT_EQ( reading.finishes( 12 ), std::string( 12, 'a' ) );
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

/// What the processes of one test tell each other.
struct Traffic {
   std::atomic<bool> stopped{ false };
   std::atomic<U64> written{ 0 };
   std::atomic<U64> found{ 0 };
   std::atomic<U64> walked{ 0 };
   std::atomic<U64> foreign{ 0 };
};

/// One process's view of a table in a chunk, and its choice of (chip, key) pairs.
class Peer {
 public:
   struct Place {
      std::string chunk;
      Geometry geometry;
      U32 offset = 0;
      U32 keys = 2;
   };

   Peer( Place const& place, VellumChunk::Access access, U32 seed )
         : place_( place ), random_( seed ), chunk_( VellumChunk::open( place.chunk, access ) ) {}

   /// Adds, rewrites, deletes, and now and then clears and fills the table, until it is stopped.
   void write( Traffic& traffic ) {
      Table const table = newTable();
      U32 const result = place_.geometry.result;
      for ( U32 i = 0; !traffic.stopped; ++i ) {
         if ( i % 1024 == 0 ) {
            table->clearTable();
            fill( *table, i );
         }
         choose();
         if ( random_() % 8 != 0 ) {
            add( table, chip_, key_, resultFor( chip_, key_, i & 0xff, result ) );
         } else {
            table->entryDel( chip_, key_.data() );
         }
         traffic.written.store( i + 1, std::memory_order_relaxed );
      }
   }

   /// Looks up and walks in every way there is until it is stopped.
   void read( Traffic& traffic ) {
      while ( !traffic.stopped ) {
         Table const table = newTable();
         lookUpIn( table, traffic );
         lookUpInBulk( *table, traffic );
         for ( EmTableEntry const& entry : table->entries() ) {
            if ( entry.valid() ) {
               walked( traffic, entry.chipId(), entry.key().bytes(), entry.result().bytes() );
            }
         }
         for ( auto const& at : table->ManagedTableBase::entries() ) {
            if ( !at.key_py().empty() ) {
               walked( traffic, at.chipId(), at.key_py(), at.result_py() );
            }
         }
      }
   }

   void choose() {
      chip_ = Brine::ChipId( static_cast<U8>( random_() % 2 ) );
      key_ = std::string( place_.geometry.key, static_cast<char>( random_() % place_.keys ) );
   }
   Brine::ChipId chip() const { return chip_; }
   std::string const& key() const { return key_; }

 private:
   void fill( EmShadowTable& table, U32 version ) const {
      std::vector<std::array<std::string, 2>> entries;
      for ( U32 i = 0; i < 2 * place_.keys; ++i ) {
         std::string const key( place_.geometry.key, static_cast<char>( i / 2 ) );
         Brine::ChipId const chip( static_cast<U8>( i % 2 ) );
         entries.push_back(
            { key, resultFor( chip, key, version & 0xff, place_.geometry.result ) } );
      }
      std::vector<EmPairAndResult> pairs;
      for ( auto const& [ key, result ] : entries ) {
         Brine::ChipId const chip( static_cast<U8>( pairs.size() % 2 ) );
         pairs.push_back( { chip, key.data(), result.data() } );
      }
      table.entryIsBulk( pairs );
   }

   Table newTable() const { return tableOver( chunk_, place_.geometry, place_.offset ); }

   void lookUpIn( Table const& table, Traffic& traffic ) {
      auto const reader = emShadowTableReaderFactory( table );
      for ( U32 i = 0; i < 300; ++i ) {
         choose();
         std::string result( place_.geometry.result, '\0' );
         bool const found =
            i % 4 == 0 ? !( result = textOf( reader->entry_py( chip_, bytesOf( key_ ) ) ) ).empty()
                       : reader->entry( chip_, key_.data(), result.data() );
         if ( found ) {
            ++traffic.found;
            traffic.foreign += belongs( chip_, key_, result ) ? 0 : 1;
         }
      }
   }

   /// A table object refuses an image that another process has changed; what it answered before holds.
   void lookUpInBulk( EmShadowTable const& table, Traffic& traffic ) {
      constexpr std::size_t count = 40;
      std::vector<std::pair<Brine::ChipId, std::string>> pairs;
      std::vector<std::string> results( count, std::string( place_.geometry.result, '\0' ) );
      std::vector<EmPairAndBuffer> asked;
      for ( std::size_t i = 0; i < count; ++i ) {
         choose();
         pairs.emplace_back( chip_, key_ );
      }
      for ( std::size_t i = 0; i < count; ++i ) {
         asked.push_back( { pairs[ i ].first, pairs[ i ].second.data(), results[ i ].data() } );
      }
      std::array<bool, count> answers{};
      (void)contractFailure( [ & ] { table.entryBulk( asked, answers ); } );
      for ( std::size_t i = 0; i < count; ++i ) {
         if ( answers[ i ] ) {
            ++traffic.found;
            traffic.foreign += belongs( pairs[ i ].first, pairs[ i ].second, results[ i ] ) ? 0 : 1;
         }
      }
   }

   static void walked( Traffic& traffic,
                       Brine::ChipId chip,
                       Corvo::Bytes const& key,
                       Corvo::Bytes const& result ) {
      ++traffic.walked;
      traffic.foreign += belongs( chip, textOf( key ), textOf( result ) ) ? 0 : 1;
   }

   Place place_;
   std::minstd_rand random_;
   Chunk chunk_;
   Brine::ChipId chip_{ 0 };
   std::string key_;
};

/// A process that does `work`; it goes with this object.
class Child {
 public:
   template<class Work>
   explicit Child( Work const& work ) : pid_( ::fork() ) {
      if ( pid_ == 0 ) {
         [ & ]() noexcept { work(); }();
         ::_exit( 0 );
      }
   }
   Child( Child const& ) = delete;
   Child& operator=( Child const& ) = delete;
   ~Child() {
      if ( pid_ != 0 ) {
         ::kill( pid_, SIGKILL );
         ::waitpid( pid_, nullptr, 0 );
      }
   }

   bool works() { return pid_ != 0 && !ended( WNOHANG ); }
   /// Waits for its end; whether that was a good one.
   bool endedWell() { return ended( 0 ) && status_ == 0; }

 private:
   bool ended( int options ) {
      if ( pid_ != 0 && ::waitpid( pid_, &status_, options ) == pid_ ) {
         pid_ = 0;
      }
      return pid_ == 0;
   }

   pid_t pid_;
   int status_ = 0;
};

/// Some time from now: a share of how long the processes of one test work, which is
/// TESSEL_TEST_SECONDS, for whoever wants more.
std::chrono::steady_clock::time_point afterShare( U64 shares ) {
   auto const wanted = std::chrono::seconds( asked( "TESSEL_TEST_SECONDS", 3 ) );
   return std::chrono::steady_clock::now() + std::chrono::nanoseconds( wanted ) / shares;
}

bool isOver( std::chrono::steady_clock::time_point end ) {
   return std::chrono::steady_clock::now() >= end;
}

// TESSEL_TEST_READS asks for so many results found.
TEST( TwoReaders, besideAWriterNeverMeetAForeignOrATornResult ) {
   std::array const geometries{ Geometry{ .entries = 4, .key = 20, .result = 12 },
                                Geometry{ .entries = 4, .key = 14, .result = 12 },
                                Geometry{ .entries = 3, .key = 2, .result = 12 },
                                Geometry{ .entries = 3, .key = 6, .result = 4 },
                                // Large enough for bulk calls to fetch ahead.
                                Geometry{ .entries = 12'000, .key = 8, .result = 8 },
                                Geometry{ .entries = 3, .key = 5, .result = 3 },
                                Geometry{ .entries = 3, .key = 4, .result = 2 } };
   U64 const reads = asked( "TESSEL_TEST_READS", 1 ) / geometries.size() + 1;
   U32 seed = 1;
   for ( Geometry const geometry : geometries ) {
      UniqueName const name;
      auto const chunk = VellumChunk::create( *name, 64 + 36 * geometry.entries );
      SharedPage<Traffic> traffic;
      // The result of the first slot crosses a cache line in its middle.
      U32 const offset = 64 - 2 - geometry.key - geometry.result / 2;
      // Of a large table, whole words of the bitmap are cleared at once.
      U32 const keys = geometry.entries > 1000 ? 100 : 2;
      Peer::Place const place{
         .chunk = *name, .geometry = geometry, .offset = offset, .keys = keys
      };
      auto const read = [ & ]( U32 readersSeed ) {
         Peer( place, VellumChunk::Access::readOnly, readersSeed ).read( *traffic );
      };
      std::list<Child> processes;
      for ( U32 reader = 0; reader < 2 + seed % 2; ++reader ) {
         processes.emplace_back( [ & ] { read( 11 + reader ); } );
      }
      processes.emplace_back(
         [ & ] { Peer( place, VellumChunk::Access::readWrite, seed ).write( *traffic ); } );
      auto const end = afterShare( geometries.size() );
      while ( !isOver( end ) || traffic->found < reads || traffic->walked == 0 ) {
         ::usleep( 1000 );
         ASSERT_TRUE( std::ranges::all_of( processes, &Child::works ) ) << geometry.key;
      }
      traffic->stopped = true;
      EXPECT_TRUE( std::ranges::all_of( processes, &Child::endedWell ) );
      EXPECT_EQ( traffic->foreign, 0U );
      std::cout << "key of " << geometry.key << " bytes: " << traffic->written << " written, "
                << traffic->found << " found, " << traffic->walked << " walked, "
                << traffic->foreign << " foreign or torn\n";
      ++seed;
   }
}

/// The tool, asked again and again.
class AskedTool {
 public:
   AskedTool( ToolBench const& bench, std::string const& plan ) : bench_( bench ), plan_( plan ) {}

   void dump() {
      Answer const answer = bench_.run( { "dump", plan_, "mac" } );
      ASSERT_EQ( answer.status, 0 ) << answer.err;
      std::istringstream lines( answer.out );
      for ( std::string chip, key, result; std::getline( lines, chip, ',' ); ) {
         std::getline( lines, key, ',' );
         std::getline( lines, result );
         expectOwn(
            Brine::ChipId( static_cast<U8>( std::stoul( chip ) ) ), fromHex( key ), result );
      }
   }
   void lookUp( Brine::ChipId chip, std::string const& key ) {
      Answer const answer = bench_.run(
         { "lookup", plan_, "mac", std::to_string( chip.value() ), TesselTool::hexOf( key ) } );
      if ( answer.status == 0 ) {
         expectOwn( chip, key, answer.out.substr( 0, answer.out.size() - 1 ) );
      } else {
         EXPECT_NE( answer.err.find( "has no entry" ), std::string::npos ) << answer.err;
      }
   }
   void show( std::string const& shown ) {
      Answer const answer = bench_.run( { "show", shown } );
      EXPECT_EQ( answer.status, 0 ) << answer.err;
      EXPECT_NE( answer.out.find( "mac" ), std::string::npos );
   }
   U32 told() const { return told_; }

 private:
   static std::string fromHex( std::string const& text ) {
      std::string bytes( text.size() / 2, '\0' );
      EXPECT_EQ( TesselTool::parseHex( text, bytes ), "" );
      return bytes;
   }
   void expectOwn( Brine::ChipId chip, std::string const& key, std::string const& result ) {
      ++told_;
      EXPECT_TRUE( belongs( chip, key, fromHex( result ) ) )
         << chip << ',' << TesselTool::hexOf( key ) << ',' << result;
   }

   ToolBench const& bench_;
   std::string const& plan_;
   U32 told_ = 0;
};

TEST( TheTool, besideAWriterNeverTellsAForeignOrATornResult ) {
   ToolBench const bench;
   Peer::Place const place{ .chunk = bench.chunk(),
                            .geometry = { .entries = 64, .key = 20, .result = 12 },
                            .offset = sizeof( EmTableHeader ),
                            .keys = 25 };
   std::string const plan = bench.planFile(
      R"({ "name": "mac", "kind": "exact", "entries": 64, "key": 20, "result": 12 })" );
   std::string const line = "0," + std::string( 40, '0' ) + ',' + std::string( 24, '0' );
   ASSERT_EQ( bench.run( { "load", plan, "mac", "-" }, line ).status, 0 ) << "makes the chunk";
   ASSERT_EQ( bench.run( { "clear", plan, "mac" } ).status, 0 );
   SharedPage<Traffic> traffic;
   Child agent( [ & ] { Peer( place, VellumChunk::Access::readWrite, 1 ).write( *traffic ); } );
   Peer chooser( place, VellumChunk::Access::readOnly, 2 );
   AskedTool tool( bench, plan );
   auto const end = afterShare( 3 );
   while ( !isOver( end ) || tool.told() == 0 ) {
      ASSERT_TRUE( agent.works() );
      tool.dump();
      for ( U32 i = 0; i < 3; ++i ) {
         chooser.choose();
         tool.lookUp( chooser.chip(), chooser.key() );
      }
      tool.show( plan );
      tool.show( bench.chunk() );
   }
   traffic->stopped = true;
   EXPECT_TRUE( agent.endedWell() );
}

} // namespace
