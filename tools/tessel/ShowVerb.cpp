// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Columns.h"
#include "tools/tessel/Frames.h"
#include "tools/tessel/Tables.h"
#include "tools/tessel/Text.h"
#include "tools/tessel/Verbs.h"

#include <nlohmann/json.hpp>

#include <filesystem>
#include <iomanip>
#include <map>

namespace TesselTool {

namespace {

using Json = nlohmann::ordered_json;
using Align = Columns::Align;

struct Occupancy {
   PlannedTable table;
   U32 used = 0;
   std::map<U32, U32> byChip{}; ///< chips with entries
};

Occupancy occupancyOf( Corvo::Ptr<Vellum::VellumChunk> const& chunk, PlannedTable const& planned ) {
   Occupancy occupancy{ .table = planned };
   if ( planned.kind == TableKind::direct ) {
      return occupancy;
   }
   auto const table = tableForReading( chunk, planned );
   occupancy.used = table->numUsedEntries();
   for ( U32 chip = table->numUsedEntriesByChipIdNext( 0 ); chip < 256;
         chip = table->numUsedEntriesByChipIdNext( chip + 1 ) ) {
      occupancy.byChip[ chip ] =
         table->numUsedEntriesByChipId( Brine::ChipId( static_cast<U8>( chip ) ) );
   }
   return occupancy;
}

Json jsonOf( Occupancy const& occupancy ) {
   Json chips = Json::object();
   for ( auto const& [ chip, used ] : occupancy.byChip ) {
      chips[ std::to_string( chip ) ] = used;
   }
   PlannedTable const& table = occupancy.table;
   return { { "name", table.name },
            { "kind", nameOf( table.kind ) },
            { "entries", table.entries },
            { "key", table.key },
            { "result", table.result },
            { "offset", table.offset },
            { "shadowSize", table.shadowSize },
            { "used", occupancy.used },
            { "chips", chips } };
}

Json jsonOf( Frame const& frame ) {
   return { { "name", frame.name },
            { "offset", frame.offset },
            { "shadowSize", frame.shadowSize },
            { "intact", frame.intact } };
}

template<class Row>
void printJson( Context const& context, std::vector<Row> const& rows ) {
   Json tables = Json::array();
   for ( Row const& row : rows ) {
      tables.push_back( jsonOf( row ) );
   }
   // A name found in a chunk may be any bytes.
   context.out << Json{ { "tables", tables } }.dump(
                     -1, ' ', false, Json::error_handler_t::replace )
               << '\n';
}

std::string fullness( Occupancy const& occupancy ) {
   if ( occupancy.table.kind == TableKind::direct || occupancy.table.entries == 0 ) {
      return "-";
   }
   double const share = 100.0 * occupancy.used / occupancy.table.entries;
   return joined( std::fixed, std::setprecision( 1 ), share, " %" );
}

std::string chipList( Occupancy const& occupancy ) {
   std::string list;
   for ( auto const& [ chip, used ] : occupancy.byChip ) {
      list += joined( list.empty() ? "" : "  ", chip, ": ", grouped( used ) );
   }
   return list.empty() ? "-" : list;
}

void print( Context const& context, Plan const& plan, std::vector<Occupancy> const& rows ) {
   context.out << "agent " << inQuotes( plan.agent ) << ", chunk " << printable( plan.chunk )
               << ", " << grouped( plan.size ) << " bytes, "
               << counted( rows.size(), "table", "tables" ) << '\n';
   Columns columns( { { "table" },
                      { "kind" },
                      { "entries", Align::right },
                      { "key", Align::right },
                      { "result", Align::right },
                      { "offset", Align::right },
                      { "bytes", Align::right },
                      { "used", Align::right },
                      { "full", Align::right },
                      { "entries by chip" } } );
   for ( Occupancy const& row : rows ) {
      columns.rowIs( { printable( row.table.name ),
                       std::string( nameOf( row.table.kind ) ),
                       grouped( row.table.entries ),
                       std::to_string( row.table.key ),
                       std::to_string( row.table.result ),
                       std::to_string( row.table.offset ),
                       grouped( row.table.shadowSize ),
                       grouped( row.used ),
                       fullness( row ),
                       chipList( row ) } );
   }
   if ( !rows.empty() ) {
      columns.print( context.out );
   }
}

void print( Context const& context,
            Vellum::VellumChunk const& chunk,
            std::vector<Frame> const& frames ) {
   context.out << "chunk " << printable( chunk.name() ) << ", " << grouped( chunk.size() )
               << " bytes, " << counted( frames.size(), "table", "tables" ) << '\n';
   Columns columns(
      { { "table" }, { "offset", Align::right }, { "bytes", Align::right }, { "frame" } } );
   for ( Frame const& frame : frames ) {
      columns.rowIs( { printable( frame.name ),
                       std::to_string( frame.offset ),
                       grouped( frame.shadowSize ),
                       frame.intact ? "intact" : "damaged" } );
   }
   if ( !frames.empty() ) {
      columns.print( context.out );
   }
}

ExitStatus showPlan( Plan const& plan, Context const& context ) {
   auto const chunk = openForReading( plan );
   std::vector<Occupancy> rows;
   for ( PlannedTable const& table : plan.tables ) {
      rows.push_back( occupancyOf( chunk, table ) );
   }
   if ( context.json ) {
      printJson( context, rows );
   } else {
      print( context, plan, rows );
   }
   return ExitStatus::done;
}

ExitStatus showChunk( std::string const& name, Context const& context ) {
   auto const chunk = openForReading( name );
   std::vector<Frame> const frames = findFrames( *chunk );
   if ( context.json ) {
      printJson( context, frames );
   } else {
      print( context, *chunk, frames );
   }
   return ExitStatus::done;
}

/// Whether the word names a file; a folder of the same name as a chunk is none.
bool isFile( std::string const& name ) {
   std::error_code none;
   auto const status = std::filesystem::status( name, none );
   return std::filesystem::exists( status ) && !std::filesystem::is_directory( status );
}

} // namespace

ExitStatus show( Arguments const& arguments, Context const& context ) {
   bool const maybeChunk = arguments.plan.rfind( '/' ) == 0; // more slashes are a file's path
   if ( maybeChunk && !isFile( arguments.plan ) ) {
      return showChunk( arguments.plan, context );
   }
   return showPlan( readPlan( arguments.plan ), context );
}

} // namespace TesselTool
