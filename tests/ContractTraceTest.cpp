// SPDX-License-Identifier: Apache-2.0
#include "Weft/Contract.h"
#include "Weft/Trace.h"
#include "support/Contract.h"
#include "support/Heap.h"
#include "support/Traces.h"

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr Weft::SassertHelper sassert{ "ContractTraceTest" };
Weft::TraceHelper const trace{ "ContractTraceTest" };

constexpr U32 evenLine = __LINE__ + 2;
void wantEven( U32 number ) {
   sassert( number % 2 == 0, "even( number )", "Number ", number, " is odd" );
}

constexpr U32 quietLine = __LINE__ + 2;
void wantNothing( bool holds ) {
   sassert( holds, "holds" );
}

constexpr U32 greetLine = __LINE__ + 2;
void greet( std::string const& name ) {
   trace( 7, "hello ", name, ' ', 42 );
}

/// A piece of a message that knows how often it was formatted.
struct Counting {
   int* count;
   friend std::ostream& operator<<( std::ostream& stream, Counting const& piece ) {
      ++*piece.count;
      return stream << "counted";
   }
};

/// Takes what is written to std::clog.
class ClogText {
 public:
   ClogText() : former_( std::clog.rdbuf( text_.rdbuf() ) ) {}
   ~ClogText() { std::clog.rdbuf( former_ ); }
   ClogText( ClogText const& ) = delete;
   ClogText& operator=( ClogText const& ) = delete;
   std::string text() const { return text_.str(); }

 private:
   std::ostringstream text_;
   std::streambuf* former_;
};

} // namespace

TEST( ContractTest, aCheckThatHoldsDoesNothingAndFormatsNothing ) {
   int formatted = 0;
   EXPECT_FALSE(
      TestSupport::contractFailure( [ & ] { sassert( true, "true", Counting{ &formatted } ); } ) );
   EXPECT_EQ( formatted, 0 );
}

TEST( ContractTest, aRaisedFailureCarriesTheWholeTextAndEachOfItsParts ) {
   auto const failure = TestSupport::contractFailure( [] { wantEven( 3 ); } );
   ASSERT_TRUE( failure );
   EXPECT_EQ( failure->condition(), "even( number )" );
   EXPECT_EQ( failure->message(), "Number 3 is odd" );
   EXPECT_EQ( failure->module(), "ContractTraceTest" );
   EXPECT_EQ( failure->operation(), "wantEven" );
   EXPECT_EQ( failure->what(),
              "\"Number 3 is odd\", condition even( number ) failed in ContractTraceTest:" +
                 std::to_string( evenLine ) + ", wantEven" );
}

TEST( ContractTest, aFailureWithoutAMessageSaysSoByAnEmptyOne ) {
   auto const failure = TestSupport::contractFailure( [] { wantNothing( false ); } );
   ASSERT_TRUE( failure );
   EXPECT_EQ( failure->message(), "" );
   EXPECT_EQ( failure->what(),
              "condition holds failed in ContractTraceTest:" + std::to_string( quietLine ) +
                 ", wantNothing" );
}

TEST( ContractTest, aRaisedFailureLeavesTheContractStreamSilent ) {
   std::ostringstream stream;
   Weft::contractStreamIs( stream );
   EXPECT_EQ( TestSupport::failedCondition( [] { wantEven( 1 ); } ), "even( number )" );
   Weft::contractStreamIs( std::cerr );
   EXPECT_EQ( stream.str(), "" );
}

TEST( ContractDeathTest, byDefaultAFailedCheckWritesItsTextAndEndsTheProcess ) {
   EXPECT_EXIT( wantEven( 5 ),
                testing::KilledBySignal( SIGABRT ),
                "^\"Number 5 is odd\", condition even\\( number \\) failed in ContractTraceTest:" +
                   std::to_string( evenLine ) + ", wantEven\n$" );
}

TEST( ContractDeathTest, theTextGoesToTheStreamThatWasGiven ) {
   EXPECT_EXIT(
      {
         std::ostream other( std::cerr.rdbuf() );
         other << "other: ";
         std::cerr.rdbuf( nullptr );
         Weft::contractStreamIs( other );
         wantNothing( false );
      },
      testing::KilledBySignal( SIGABRT ),
      "^other: condition holds failed" );
}

TEST( TraceTest, everyLevelIsOffAtTheStartAndSwitchedByItsOwnBit ) {
   auto& handle = Weft::traceHandle( "TraceTestLevels" );
   EXPECT_EQ( handle.name(), "TraceTestLevels" );
   EXPECT_EQ( handle.levelMask(), 0U );
   for ( U32 level = 0; level < 64; ++level ) {
      EXPECT_FALSE( handle.enabled( level ) );
      handle.levelMaskIs( U64{ 1 } << level );
      for ( U32 other = 0; other < 130; ++other ) {
         EXPECT_EQ( handle.enabled( other ), other == level ) << other << " with bit " << level;
      }
      handle.levelMaskIs( 0 );
   }
}

TEST( TraceTest, aFacilityIsOneObjectHoweverOftenAndUnderWhateverTextItIsAskedFor ) {
   auto& handle = Weft::traceHandle( std::string( "TraceTest" ) + "Once" );
   EXPECT_EQ( &handle, &Weft::traceHandle( "TraceTestOnce" ) );
   EXPECT_NE( &handle, &Weft::traceHandle( "TraceTestOther" ) );
   EXPECT_EQ( handle.name(), "TraceTestOnce" );

   Weft::traceHandle( "ContractTraceTest" ).levelMaskIs( 1 << 5 );
   EXPECT_TRUE( trace.enabled( 5 ) );
   EXPECT_TRUE( trace.enabled() );
   Weft::traceHandle( "ContractTraceTest" ).levelMaskIs( 0 );
   EXPECT_FALSE( trace.enabled() );
}

TEST( TraceTest, aLineCarriesItsPlaceBesideItsMessage ) {
   std::vector<std::string> lines;
   auto const former = Weft::traceSinkIs( [ & ]( Weft::TraceLine const& line ) {
      std::ostringstream text;
      std::string_view const file = line.file.substr( line.file.rfind( '/' ) + 1 );
      text << line.facility << '|' << line.level << '|' << file << '|' << line.line << '|'
           << line.operation << '|' << line.message;
      lines.push_back( text.str() );
   } );
   Weft::traceHandle( "ContractTraceTest" ).levelMaskIs( 1 << 7 );
   greet( "you" );
   Weft::traceHandle( "ContractTraceTest" ).levelMaskIs( 0 );
   greet( "nobody" );
   Weft::traceSinkIs( former );

   std::vector<std::string> const expected{ "ContractTraceTest|7|ContractTraceTest.cpp|" +
                                            std::to_string( greetLine ) + "|greet|hello you 42" };
   EXPECT_EQ( lines, expected );
}

TEST( TraceTest, aLineIsFormattedOnlyWhenItsLevelIsOn ) {
   int formatted = 0;
   TestSupport::TraceRecorder recorder( "ContractTraceTest", 1 << 3 );
   trace( 2, Counting{ &formatted } );
   trace( 4, Counting{ &formatted } );
   EXPECT_EQ( formatted, 0 );
   trace( 3, Counting{ &formatted } );
   EXPECT_EQ( formatted, 1 );
   EXPECT_EQ( recorder.take(), std::vector<std::string>{ "counted" } );
}

TEST( TraceTest, exchangingTheSinkReturnsTheFormerOne ) {
   std::string text;
   auto const sinkTo = [ & ]( char const* name ) {
      return [ &text, name ]( Weft::TraceLine const& line ) {
         text.append( name ).append( line.message ).append( ";" );
      };
   };
   Weft::traceHandle( "ContractTraceTest" ).levelMaskIs( 1 );
   auto const original = Weft::traceSinkIs( sinkTo( "first " ) );
   trace( 0, "a" );
   auto const first = Weft::traceSinkIs( sinkTo( "second " ) );
   trace( 0, "b" );
   Weft::traceSinkIs( first );
   trace( 0, "c" );
   Weft::traceHandle( "ContractTraceTest" ).levelMaskIs( 0 );
   Weft::traceSinkIs( original );
   EXPECT_EQ( text, "first a;second b;first c;" );
}

TEST( TraceTest, anEmptySinkStandsForOneThatWritesToClog ) {
   ClogText const clog;
   auto const former = Weft::traceSinkIs( nullptr );
   Weft::traceHandle( "ContractTraceTest" ).levelMaskIs( 1 << 7 );
   greet( "clog" );
   Weft::traceHandle( "ContractTraceTest" ).levelMaskIs( 0 );
   Weft::traceSinkIs( former );
   EXPECT_EQ( clog.text().find( "ContractTraceTest 7 " ), 0U );
   EXPECT_NE( clog.text().find( " greet: hello clog 42\n" ), std::string::npos );
}

TEST( TraceTest, aSinkThatThrowsLosesTheLineAndNothingElse ) {
   auto const former =
      Weft::traceSinkIs( []( Weft::TraceLine const& ) { throw std::runtime_error( "full" ); } );
   Weft::traceHandle( "ContractTraceTest" ).levelMaskIs( 1 << 7 );
   EXPECT_NO_THROW( greet( "nobody" ) );
   std::vector<std::string> messages;
   Weft::traceSinkIs(
      [ & ]( Weft::TraceLine const& line ) { messages.emplace_back( line.message ); } );
   greet( "again" );
   Weft::traceHandle( "ContractTraceTest" ).levelMaskIs( 0 );
   Weft::traceSinkIs( former );
   EXPECT_EQ( messages, std::vector<std::string>{ "hello again 42" } );
}

TEST( TraceTest, aLineForWhichThereIsNoMemoryIsLostAndNothingElse ) {
   TestSupport::TraceRecorder recorder( "ContractTraceTest" );
   std::string const longName( 200, 'x' );
   U64 lost = 0;
   for ( bool complete = false; !complete; ) {
      TestSupport::FailAllocation const failing( lost );
      trace( 0, longName.c_str() );
      complete = !failing.happened();
      EXPECT_EQ( recorder.take().size(), complete ? 1U : 0U );
      ++lost;
   }
   EXPECT_GT( lost, 1U );
}

TEST( TraceTest, linesOfSeveralThreadsReachTheSinkOneAtATime ) {
   TestSupport::TraceRecorder const recorder( "ContractTraceTest", 1 );
   std::array<std::thread, 4> threads;
   for ( std::thread& thread : threads ) {
      thread = std::thread( [] {
         for ( int line = 0; line < 250; ++line ) {
            trace( 0, "line ", line );
         }
      } );
   }
   for ( std::thread& thread : threads ) {
      thread.join();
   }
   EXPECT_EQ( recorder.messages().size(), 1000U );
}
