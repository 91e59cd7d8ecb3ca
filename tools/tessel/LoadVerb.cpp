// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Csv.h"
#include "tools/tessel/EntryText.h"
#include "tools/tessel/InputBuffer.h"
#include "tools/tessel/Interrupts.h"
#include "tools/tessel/Progress.h"
#include "tools/tessel/Tables.h"
#include "tools/tessel/Text.h"

#include <istream>
#include <span>
#include <string_view>
#include <system_error>

namespace TesselTool {

namespace {

using Entries = std::span<CsvEntry const>;

struct Counts {
   U64 added = 0;
   U64 replaced = 0;
   U64 refused = 0; ///< new entries that met a full table
   U64 bad = 0;     ///< lines
};

CsvInput readInput( InputBuffer& buffer, PlannedTable const& table, std::ostream& err ) {
   CsvFormats const formats{ .key = table.keyFormat, .result = table.resultFormat };
   std::istream stream( &buffer );
   Progress progress( err, readingBytes, buffer.size() );
   buffer.progressIs( &progress );
   CsvInput input = readCsv( stream, table.key, table.result, formats );
   CatchInterrupts::check();
   if ( buffer.error() != 0 ) {
      throw Failure( joined( buffer.name(),
                             ": cannot be read to its end: ",
                             std::generic_category().message( buffer.error() ),
                             "; nothing was loaded" ) );
   }
   return input;
}

CsvInput
readOrSayNothingLoaded( std::string const& file, PlannedTable const& table, std::ostream& err ) {
   InputBuffer buffer( file );
   CatchInterrupts const catching; // a second signal must not cut off what is said of the first
   try {
      return readInput( buffer, table, err );
   } catch ( Interrupted const& ) {
      printError( err, "interrupted while the input was read: nothing was loaded" );
      throw;
   }
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

/// Entries of different pairs, one after another, for the calls that take many at once.
class Block {
 public:
   static constexpr std::size_t capacity = 512;

   Block( Tessel::EmShadowTable& table, PlannedTable const& planned )
         : table_( table ), keyBytes_( planned.key ) {}

   /// Takes as many of the first entries as are of different pairs; returns how many.
   std::size_t take( Entries entries ) {
      count_ = 0;
      places_.fill( 0 );
      while ( count_ < std::min( capacity, entries.size() ) && isNew( entries, count_ ) ) {
         ++count_;
      }
      entries_ = entries.first( count_ );
      return count_;
   }

   void apply( Counts& counts ) {
      present_.fill( {} );
      lookups_.clear();
      for ( std::size_t i = 0; i < count_; ++i ) {
         CsvEntry const& entry = entries_[ i ];
         lookups_.push_back(
            { Brine::ChipId( entry.chip ), entry.key.data(), present_[ i ].data() } );
      }
      Answers there{};
      table_.entryBulk( lookups_, std::span( there ).first( count_ ) );
      write( there, counts );
   }

 private:
   using Answers = std::array<bool, capacity>;

   /// An entry that is there already is not rewritten, so that its readers need not wait.
   void write( Answers const& there, Counts& counts ) {
      changes_.clear();
      Answers replaces{};
      for ( std::size_t i = 0; i < count_; ++i ) {
         CsvEntry const& entry = entries_[ i ];
         if ( there[ i ] && present_[ i ] == entry.result ) {
            ++counts.replaced;
         } else {
            replaces[ changes_.size() ] = there[ i ];
            changes_.push_back(
               { Brine::ChipId( entry.chip ), entry.key.data(), entry.result.data() } );
         }
      }
      Answers held{};
      table_.entryIsBulk( changes_, std::span( held ).first( changes_.size() ) );
      for ( std::size_t i = 0; i < changes_.size(); ++i ) {
         ++( !held[ i ] ? counts.refused : replaces[ i ] ? counts.replaced : counts.added );
      }
   }

   static bool samePair( CsvEntry const& a, CsvEntry const& b ) {
      return a.chip == b.chip && a.key == b.key;
   }
   /// Whether none of the entries before the one at `at` is of its pair. Remembers it.
   bool isNew( Entries entries, std::size_t at ) {
      CsvEntry const& entry = entries[ at ];
      std::string_view const key( entry.key.data(), keyBytes_ );
      std::size_t place = ( std::hash<std::string_view>()( key ) + entry.chip ) % places_.size();
      while ( places_[ place ] != 0 ) {
         if ( samePair( entries[ places_[ place ] - 1U ], entry ) ) {
            return false;
         }
         place = ( place + 1 ) % places_.size();
      }
      places_[ place ] = static_cast<U16>( at + 1 );
      return true;
   }

   Tessel::EmShadowTable& table_;
   U32 keyBytes_;
   Entries entries_;
   std::size_t count_ = 0;
   std::array<decltype( CsvEntry::result ), capacity> present_{};
   std::vector<Tessel::EmPairAndBuffer> lookups_;
   std::vector<Tessel::EmPairAndResult> changes_;
   std::array<U16, 2 * capacity> places_{}; ///< by hash: one more than an entry's index
};

void loadEntries( Plan const& plan,
                  PlannedTable const& planned,
                  Entries entries,
                  Counts& counts,
                  std::ostream& err ) {
   auto const manager = openForWriting( plan, IfMissing::create );
   auto const table =
      Corvo::dynamicPtr<Tessel::EmShadowTable>( manager->managedTable( planned.name ) );
   Progress progress( err, loadingEntries, entries.size() );
   Block block( *table, planned );
   for ( std::size_t done = 0; done < entries.size(); progress.doneIs( done ) ) {
      CatchInterrupts::check();
      done += block.take( entries.subspan( done ) );
      block.apply( counts );
   }
}

/// Interrupted, it says how far it came: every entry so far is whole.
void loadOrSayHowFar( Plan const& plan,
                      PlannedTable const& planned,
                      Entries entries,
                      Counts& counts,
                      std::ostream& err ) {
   CatchInterrupts const catching; // as above
   try {
      loadEntries( plan, planned, entries, counts, err );
   } catch ( Interrupted const& ) {
      printError( err,
                  joined( "interrupted: ",
                          grouped( counts.added + counts.replaced ),
                          " of ",
                          counted( entries.size(), "entry is", "entries are" ),
                          " loaded, each of them whole; load the same again for the rest" ) );
      throw;
   }
}

void printCounts( Counts const& counts, bool keptGoing, Context const& context ) {
   if ( context.json ) {
      context.out << JsonObject()
                        .number( "loaded", counts.added + counts.replaced )
                        .number( "added", counts.added )
                        .number( "replaced", counts.replaced )
                        .number( "refused", counts.refused )
                        .number( "bad", counts.bad )
                        .text()
                  << '\n';
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
   refuseDirect( table );
   CsvInput const input = readOrSayNothingLoaded( arguments.file, table, context.err );
   printBadLines( input, arguments.file, context.err );
   Counts counts{ .bad = input.badLines };
   bool const wanted = counts.bad == 0 || arguments.keepGoing;
   // Nothing to add makes no chunk, but is refused as anything else is by one of another plan.
   if ( wanted && ( !input.entries.empty() || isThere( plan.chunk ) ) ) {
      loadOrSayHowFar( plan, table, input.entries, counts, context.err );
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
