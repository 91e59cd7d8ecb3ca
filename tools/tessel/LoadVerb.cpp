// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Csv.h"
#include "tools/tessel/Tables.h"
#include "tools/tessel/Text.h"
#include "tools/tessel/Verbs.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iostream>

#include <unistd.h>

namespace TesselTool {

namespace {

using Json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

struct Counts {
   U64 added = 0;
   U64 replaced = 0;
   U64 refused = 0; ///< new entries that met a full table
   U64 bad = 0;     ///< lines
};

/// One line that is written again and again on a terminal, once a load has taken half a second.
class Progress {
 public:
   Progress( std::ostream& err, U64 total )
         : err_( err ), total_( total ), shown_( ::isatty( STDERR_FILENO ) == 1 ) {}
   Progress( Progress const& ) = delete;
   Progress& operator=( Progress const& ) = delete;
   ~Progress() {
      if ( drawn_ ) {
         err_ << "\r\x1b[K" << std::flush;
      }
   }

   void doneIs( U64 done ) {
      constexpr U64 between = 4096; // looking at the clock takes as long as an entry
      if ( !shown_ || done % between != 0 || Clock::now() < next_ ) {
         return;
      }
      next_ = Clock::now() + std::chrono::milliseconds( 100 );
      drawn_ = true;
      err_ << '\r' << grouped( done ) << " of " << grouped( total_ ) << " entries, "
           << done * 100 / total_ << " %" << std::flush;
   }

 private:
   std::ostream& err_;
   U64 total_;
   bool shown_;
   bool drawn_ = false;
   Clock::time_point next_ = Clock::now() + std::chrono::milliseconds( 500 );
};

CsvInput readFrom( std::istream& stream, std::string const& name, PlannedTable const& table ) {
   CsvInput input = readCsv( stream, table.key, table.result );
   if ( stream.bad() ) {
      throw Failure( joined( name, ": cannot be read to its end; nothing was loaded" ) );
   }
   return input;
}

CsvInput readInput( std::string const& file, PlannedTable const& table ) {
   if ( file == "-" ) {
      return readFrom( std::cin, "standard input", table );
   }
   std::ifstream stream( file, std::ios::binary );
   if ( !stream ) {
      throw Failure(
         joined( file, ": cannot be opened: ", std::generic_category().message( errno ) ) );
   }
   return readFrom( stream, file, table );
}

void printBadLines( CsvInput const& input, std::string const& file, std::ostream& err ) {
   std::string const name = file == "-" ? "standard input" : file;
   for ( BadLine const& bad : input.firstBad ) {
      printError( err, joined( name, ':', bad.number, ": ", bad.problem ) );
   }
   if ( input.badLines > input.firstBad.size() ) {
      printError( err,
                  joined( name,
                          ": and ",
                          counted( input.badLines - input.firstBad.size(),
                                   "more bad line",
                                   "more bad lines" ) ) );
   }
}

void apply( CsvEntry const& entry, Tessel::ManagedTableBase& table, Counts& counts ) {
   Brine::ChipId const chip( entry.chip );
   std::array<char, Tessel::MAX_RESULT_LENGTH_IN_BYTE> present{};
   bool const there = table.entry( chip, entry.key.data(), present.data() );
   // An entry that is there already is not rewritten, so that its readers need not wait.
   if ( there && present == entry.result ) {
      ++counts.replaced;
   } else if ( !table.entryIs( chip, entry.key.data(), entry.result.data() ) ) {
      ++counts.refused;
   } else {
      ++( there ? counts.replaced : counts.added );
   }
}

void loadEntries( Plan const& plan,
                  PlannedTable const& planned,
                  std::vector<CsvEntry> const& entries,
                  Counts& counts,
                  std::ostream& err ) {
   auto const manager = openForWriting( plan, IfMissing::create );
   auto const table = manager->managedTable( planned.name );
   Progress progress( err, entries.size() );
   U64 done = 0;
   for ( CsvEntry const& entry : entries ) {
      apply( entry, *table, counts );
      progress.doneIs( ++done );
   }
}

void printCounts( Counts const& counts, bool keptGoing, Context const& context ) {
   if ( context.json ) {
      context.out << Json{
         { "loaded", counts.added + counts.replaced },
         { "added", counts.added },
         { "replaced", counts.replaced },
         { "refused", counts.refused },
         { "bad", counts.bad }
      }.dump() << '\n';
      return;
   }
   context.out << grouped( counts.added ) << " added, " << grouped( counts.replaced )
               << " replaced, " << grouped( counts.refused ) << " refused (table full), "
               << counted( counts.bad, "bad line", "bad lines" )
               << ( counts.bad > 0 && !keptGoing
                       ? ": nothing loaded, --keep-going loads the good lines\n"
                       : "\n" );
}

} // namespace

ExitStatus load( Arguments const& arguments, Context const& context ) {
   Plan const plan = readPlan( arguments.plan );
   PlannedTable const& table = plannedTable( plan, arguments.table );
   if ( table.kind == TableKind::direct ) {
      throw Failure( joined( "table ",
                             inQuotes( table.name ),
                             " is a direct table, which keeps no entries: name an exact one" ) );
   }
   CsvInput const input = readInput( arguments.file, table );
   printBadLines( input, arguments.file, context.err );
   Counts counts{ .bad = input.badLines };
   if ( counts.bad == 0 || arguments.keepGoing ) {
      loadEntries( plan, table, input.entries, counts, context.err );
   }
   printCounts( counts, arguments.keepGoing, context );
   if ( counts.refused > 0 ) {
      printError( context.err,
                  joined( "table ",
                          inQuotes( table.name ),
                          " is full with ",
                          counted( table.entries, "entry", "entries" ),
                          ": ",
                          counted( counts.refused, "entry was", "entries were" ),
                          " refused; delete some first" ) );
   }
   return counts.bad + counts.refused > 0 ? ExitStatus::refused : ExitStatus::done;
}

} // namespace TesselTool
