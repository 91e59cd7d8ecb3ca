// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Screen.h"
#include "tools/tessel/Text.h"
#include "tools/tessel/Watch.h"

#include <charconv>
#include <cmath>
#include <ctime>
#include <iomanip>
#include <limits>
#include <ostream>

#include <unistd.h>

namespace TesselTool {

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

template<class Number>
Number numberIn( std::string_view option,
                 std::optional<std::string> const& text,
                 Number otherwise,
                 Number least,
                 Number most ) {
   if ( !text ) {
      return otherwise;
   }
   Number number{};
   char const* const end = text->data() + text->size();
   auto const [ stop, error ] = std::from_chars( text->data(), end, number );
   if ( error != std::errc() || stop != end || !( number >= least && number <= most ) ) {
      throw Failure(
         joined( option, ' ', inQuotes( *text ), " is no number from ", least, " to ", most ),
         ExitStatus::usage );
   }
   return number;
}

std::string timeOfDay() {
   std::time_t const now = std::time( nullptr );
   std::tm parts{};
   ::localtime_r( &now, &parts );
   return joined( std::put_time( &parts, "%H:%M:%S" ) );
}

class Watch {
 public:
   Watch( Arguments const& arguments, Context const& context )
         : arguments_( arguments ), context_( context ),
           interval_( numberIn( "--interval", arguments.interval, 1.0, 0.05, 3600.0 ) ),
           left_( numberIn( "--count",
                            arguments.count,
                            std::numeric_limits<U64>::max(),
                            U64{ 1 },
                            std::numeric_limits<U64>::max() ) ) {}

   ExitStatus run() {
      Look const look = lookNow();
      // A count asks for something to keep, which the other page of a terminal is not.
      if ( context_.json || arguments_.count || !Screen::isThere() ) {
         runInLines( look );
      } else {
         runOnScreen( look );
      }
      return status_;
   }

 private:
   /// Opens the chunk anew: its agent may have made another one.
   Look lookNow() {
      Inspection const inspection = inspectSlots( arguments_ );
      auto const now = Clock::now();
      Look look{ .title = joined( "chunk ",
                                  printable( inspection.chunk->name() ),
                                  "  ",
                                  timeOfDay(),
                                  "  every ",
                                  interval_.count(),
                                  " s" ),
                 .seconds = last_ ? Seconds( now - *last_ ).count() : 0,
                 .leftOut = inspection.leftOut };
      for ( InspectedTable const& inspected : inspection.tables ) {
         PlannedTable const& table = inspected.table;
         look.tables.push_back(
            { table, watches_[ table.offset ].look( *inspection.chunk, table ) } );
      }
      status_ = inspection.status();
      last_ = now;
      return look;
   }

   /// A screen has one place for everything.
   std::vector<std::string> allLinesOf( Look const& look ) const {
      std::vector<std::string> lines = linesOf( look, style_ );
      for ( std::string const& line : look.leftOut ) {
         lines.push_back( printable( line ) );
      }
      return lines;
   }

   /// As lookNow; on a screen, a chunk that is missing for now is waited for.
   std::vector<std::string> linesNow() {
      try {
         return allLinesOf( lookNow() );
      } catch ( Failure const& failure ) {
         watches_.clear();
         last_.reset();
         return { printable( failure.what() ), "", "Waiting for it." };
      }
   }

   void print( Look const& look ) {
      if ( context_.json ) {
         context_.out << jsonOf( look ) << '\n';
      } else {
         for ( std::string const& line : linesOf( look, style_ ) ) {
            context_.out << line << '\n';
         }
         context_.out << '\n';
      }
      context_.out.flush();
      for ( std::string const& line : look.leftOut ) {
         printError( context_.err, line );
      }
   }

   void runInLines( Look const& first ) {
      SignalWait const waiting;
      print( first );
      while ( --left_ > 0 ) {
         auto const deadline =
            Clock::now() + std::chrono::duration_cast<Clock::duration>( interval_ );
         while ( Clock::now() < deadline ) {
            if ( waiting.wait( deadline, false ) == SignalWait::Event::stop ) {
               SignalWait::stopHere();
            }
         }
         print( lookNow() );
      }
   }

   void runOnScreen( Look const& first ) {
      SignalWait const waiting;
      Screen screen;
      std::vector<std::string> lines = allLinesOf( first );
      for ( ;; ) {
         lines.insert( lines.end(), { "", "q ends" } );
         Screen::show( lines );
         if ( !waitOnScreen( waiting, screen, lines ) ) {
            return;
         }
         lines = linesNow();
      }
   }

   /// Until the next look is due; false when that is not wanted.
   bool waitOnScreen( SignalWait const& waiting,
                      Screen& screen,
                      std::vector<std::string> const& lines ) const {
      auto const deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>( interval_ );
      for ( ;; ) {
         switch ( waiting.wait( deadline, true ) ) {
         case SignalWait::Event::time:
            return true;
         case SignalWait::Event::input:
            if ( endIsTyped() ) {
               return false;
            }
            break;
         case SignalWait::Event::stop:
            screen.leave();
            SignalWait::stopHere();
            [[fallthrough]];
         case SignalWait::Event::resume:
            screen.enter();
            [[fallthrough]];
         case SignalWait::Event::size:
            Screen::show( lines );
         }
      }
   }

   /// Also when there is nobody any more who could type.
   static bool endIsTyped() {
      std::array<char, 64> keys{};
      ssize_t const count = ::read( STDIN_FILENO, keys.data(), keys.size() );
      return count <= 0 || std::string_view( keys.data(), static_cast<std::size_t>( count ) )
                                 .find_first_of( "qQ" ) != std::string_view::npos;
   }

   Arguments const& arguments_;
   Context const& context_;
   Seconds interval_;
   U64 left_; ///< looks
   Style style_ = styleOfTerminal();
   std::map<U32, TableWatch> watches_{};  ///< by offset: agents that share a chunk may share names
   ExitStatus status_ = ExitStatus::done; ///< of the last look
   std::optional<Clock::time_point> last_{};
};

} // namespace

ExitStatus watch( Arguments const& arguments, Context const& context ) {
   return Watch( arguments, context ).run();
}

} // namespace TesselTool
