// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Csv.h"
#include "tools/tessel/EntryText.h"
#include "tools/tessel/Inspection.h"
#include "tools/tessel/SlotScan.h"
#include "tools/tessel/Text.h"

#include <array>
#include <iomanip>
#include <ostream>

namespace TesselTool {

namespace {

enum class Form { csv, json, table };

Form formOf( Arguments const& arguments, Context const& context ) {
   constexpr std::array<std::string_view, 3> names{ "csv", "json", "table" };
   if ( !arguments.form ) {
      return context.json ? Form::json : Form::csv;
   }
   auto const* const found = std::find( names.begin(), names.end(), *arguments.form );
   if ( found == names.end() ) {
      throw Failure( joined( "--as ",
                             inQuotes( *arguments.form ),
                             " is no form",
                             suggestion( *arguments.form, names ) ),
                     ExitStatus::usage );
   }
   auto const form = static_cast<Form>( found - names.begin() );
   if ( context.json && form != Form::json ) {
      throw Failure( joined( "--json and --as ", *found, " contradict each other: leave one out" ),
                     ExitStatus::usage );
   }
   return form;
}

void printCsv( Inspection const& inspection, PlannedTable const& table, std::ostream& out ) {
   CsvFormats const formats{ .key = table.keyFormat, .result = table.resultFormat };
   std::string line;
   forEachEntry( *inspection.chunk, table, [ & ]( Slot const& slot ) {
      line.clear();
      appendCsvLine( line, slot.chip(), slot.key(), slot.result(), formats );
      out << line;
   } );
}

/// A document of millions of entries is never held as a whole.
void printJson( Inspection const& inspection, PlannedTable const& table, std::ostream& out ) {
   std::string_view before = "[\n";
   forEachEntry( *inspection.chunk, table, [ & ]( Slot const& slot ) {
      out << before << entryJson( table, slot.chip(), slot.key(), slot.result() ).text();
      before = ",\n";
   } );
   out << ( before == "[\n" ? "[]\n" : "]\n" );
}

/// As wide as the widest entry there could be, so that nothing is read twice.
void printTable( Inspection const& inspection, PlannedTable const& table, std::ostream& out ) {
   auto const slotWidth =
      static_cast<int>( std::max( std::to_string( table.entries ).size(), std::size_t{ 4 } ) );
   auto const keyWidth =
      static_cast<int>( std::max( widestText( table.keyFormat, table.key ), std::size_t{ 3 } ) );
   auto const row = [ & ]( auto slot, auto chip, auto const& key, auto const& result ) {
      out << std::setw( slotWidth ) << slot << "  " << std::setw( 4 ) << chip << "  " << std::left
          << std::setw( result.empty() ? 0 : keyWidth ) << key << std::right
          << ( result.empty() ? "" : "  " ) << result << '\n';
   };
   row( "slot", "chip", "key", std::string_view( "result" ) );
   forEachEntry( *inspection.chunk, table, [ & ]( Slot const& slot ) {
      row( slot.index(),
           U32{ slot.chip() },
           textOf( table.keyFormat, slot.key() ),
           textOf( table.resultFormat, slot.result() ) );
   } );
}

} // namespace

ExitStatus dump( Arguments const& arguments, Context const& context ) {
   Form const form = formOf( arguments, context );
   Arguments wanted = arguments;
   wanted.someTable = arguments.table;
   Inspection const inspection = inspectSlots( wanted );
   if ( inspection.tables.size() > 1 ) {
      throw Failure( joined( "chunk ",
                             inQuotes( arguments.plan ),
                             " has ",
                             inspection.tables.size(),
                             " tables ",
                             inQuotes( arguments.table ),
                             ": give the plan of the agent whose table it is" ) );
   }
   PlannedTable const& table = inspection.tables.front().table;
   switch ( form ) {
   case Form::csv:
      printCsv( inspection, table, context.out );
      break;
   case Form::json:
      printJson( inspection, table, context.out );
      break;
   case Form::table:
      printTable( inspection, table, context.out );
   }
   return ExitStatus::done;
}

} // namespace TesselTool
