// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Columns.h"
#include "tools/tessel/Inspection.h"
#include "tools/tessel/Json.h"
#include "tools/tessel/SlotScan.h"
#include "tools/tessel/Text.h"

#include <iomanip>
#include <ostream>

namespace TesselTool {

namespace {

using Align = Columns::Align;

struct Row {
   InspectedTable const& inspected;
   Occupancy occupancy{};

   PlannedTable const& table() const { return inspected.table; }
};

std::string jsonOf( Row const& row, bool planned ) {
   PlannedTable const& table = row.table();
   JsonObject json;
   json.text( "name", table.name );
   if ( planned ) {
      json.text( "kind", nameOf( table.kind ) );
   }
   if ( planned || row.inspected.hasSlots ) {
      json.number( "entries", table.entries )
         .number( "key", table.key )
         .number( "result", table.result );
   }
   json.number( "offset", table.offset ).number( "shadowSize", table.shadowSize );
   if ( !planned ) {
      json.flag( "intact", row.inspected.intact );
   }
   if ( planned || row.inspected.hasSlots ) {
      json.number( "used", row.occupancy.used ).json( "chips", chipsJson( row.occupancy ) );
   }
   return json.text();
}

void printJson( Context const& context, std::vector<Row> const& rows, bool planned ) {
   std::vector<std::string> tables;
   tables.reserve( rows.size() );
   for ( Row const& row : rows ) {
      tables.push_back( jsonOf( row, planned ) );
   }
   context.out << JsonObject().json( "tables", jsonList( tables ) ).text() << '\n';
}

std::string fullness( Row const& row ) {
   if ( !row.inspected.hasSlots || row.table().entries == 0 ) {
      return "-";
   }
   double const share = 100.0 * row.occupancy.used / row.table().entries;
   return joined( std::fixed, std::setprecision( 1 ), share, " %" );
}

std::string chipList( Row const& row ) {
   std::string list;
   for ( auto const& [ chip, used ] : row.occupancy.byChip ) {
      list += joined( list.empty() ? "" : "  ", U32{ chip }, ": ", grouped( used ) );
   }
   return list.empty() ? "-" : list;
}

void printPlan( std::ostream& out, Plan const& plan, U32 chunkSize, std::vector<Row> const& rows ) {
   out << "agent " << inQuotes( plan.agent ) << ", chunk " << printable( plan.chunk ) << ", "
       << counted( chunkSize, "byte", "bytes" );
   if ( chunkSize != plan.size ) {
      out << " (planned: " << grouped( plan.size ) << ')';
   }
   out << ", " << counted( rows.size(), "table", "tables" ) << '\n';
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
   for ( Row const& row : rows ) {
      columns.rowIs( { printable( row.table().name ),
                       std::string( nameOf( row.table().kind ) ),
                       grouped( row.table().entries ),
                       std::to_string( row.table().key ),
                       std::to_string( row.table().result ),
                       std::to_string( row.table().offset ),
                       grouped( row.table().shadowSize ),
                       grouped( row.occupancy.used ),
                       fullness( row ),
                       chipList( row ) } );
   }
   if ( !rows.empty() ) {
      columns.print( out );
   }
}

void printChunk( std::ostream& out,
                 Vellum::VellumChunk const& chunk,
                 std::vector<Row> const& rows ) {
   out << "chunk " << printable( chunk.name() ) << ", " << counted( chunk.size(), "byte", "bytes" )
       << ", " << counted( rows.size(), "table", "tables" );
   if ( rows.empty() ) {
      out << ": " << unframedText( chunk );
   }
   out << '\n';
   std::vector<Columns::Heading> headings{
      { "table" }, { "offset", Align::right }, { "bytes", Align::right }, { "frame" }
   };
   bool const anySlots = std::any_of(
      rows.begin(), rows.end(), []( Row const& row ) { return row.inspected.hasSlots; } );
   if ( anySlots ) {
      headings.insert( headings.end(),
                       { { "entries", Align::right },
                         { "used", Align::right },
                         { "full", Align::right },
                         { "entries by chip" } } );
   }
   Columns columns( std::move( headings ) );
   for ( Row const& row : rows ) {
      std::vector<std::string> texts{ printable( row.table().name ),
                                      std::to_string( row.table().offset ),
                                      grouped( row.table().shadowSize ),
                                      row.inspected.intact ? "intact" : "damaged" };
      if ( anySlots ) {
         bool const known = row.inspected.hasSlots;
         texts.insert( texts.end(),
                       { known ? grouped( row.table().entries ) : "-",
                         known ? grouped( row.occupancy.used ) : "-",
                         fullness( row ),
                         chipList( row ) } );
      }
      columns.rowIs( std::move( texts ) );
   }
   if ( !rows.empty() ) {
      columns.print( out );
   }
}

} // namespace

ExitStatus show( Arguments const& arguments, Context const& context ) {
   Inspection const inspection = inspect( arguments );
   std::vector<Row> rows;
   for ( InspectedTable const& inspected : inspection.tables ) {
      rows.push_back( { .inspected = inspected } );
      if ( inspected.hasSlots ) {
         rows.back().occupancy = occupancyOf( *inspection.chunk, inspected.table );
      }
   }
   if ( context.json ) {
      printJson( context, rows, inspection.plan.has_value() );
   } else if ( inspection.plan ) {
      printPlan( context.out, *inspection.plan, inspection.chunk->size(), rows );
   } else {
      printChunk( context.out, *inspection.chunk, rows );
   }
   printLeftOut( inspection, context.err );
   return inspection.status();
}

} // namespace TesselTool
