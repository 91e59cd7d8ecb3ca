// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Watch.h"

#include "tools/tessel/Columns.h"
#include "tools/tessel/Json.h"
#include "tools/tessel/Text.h"

#include <cmath>
#include <iomanip>
#include <sstream>

namespace TesselTool {

namespace {

/// A hash of the pair around its chip; never 0.
U64 markOf( Slot const& slot ) {
   constexpr U64 hashBits = ~U64{ 0x1FF };
   return ( std::hash<std::string_view>()( slot.key() ) & hashBits ) | U64{ slot.chip() } << 1 | 1;
}

U8 chipOf( U64 mark ) {
   return static_cast<U8>( mark >> 1 );
}

std::string perSecond( U64 count, double seconds ) {
   if ( seconds <= 0 ) {
      return "-";
   }
   double const rate = static_cast<double>( count ) / seconds;
   constexpr double large = 100; // where a digit behind the point says nothing
   return rate < large ? joined( std::fixed, std::setprecision( 1 ), rate )
                       : grouped( static_cast<U64>( std::llround( rate ) ) );
}

std::string share( U32 used, U32 entries ) {
   return entries == 0 ? "-"
                       : joined( std::fixed, std::setprecision( 1 ), 100.0 * used / entries, " %" );
}

void addRow( Columns& columns,
             std::string const& table,
             std::string const& chip,
             Change const& change,
             Look const& look,
             U32 entries,
             std::string const& drawn ) {
   columns.rowIs( { table,
                    chip,
                    grouped( change.used ),
                    share( change.used, entries ),
                    perSecond( change.added, look.seconds ),
                    perSecond( change.removed, look.seconds ),
                    drawn } );
}

void addTable( Columns& columns, SeenTable const& seen, Look const& look, Style style ) {
   constexpr U32 width = 24;
   PlannedTable const& table = seen.table;
   if ( table.kind == TableKind::direct ) {
      columns.rowIs( { printable( table.name ), "direct", "-", "-", "-", "-", "" } );
      return;
   }
   auto const draw = [ & ]( Change const& change ) {
      return bar( change.used, table.entries, width, style.unicode );
   };
   Change const& all = seen.seen.all;
   addRow( columns, printable( table.name ), "all", all, look, table.entries, draw( all ) );
   for ( auto const& [ chip, change ] : seen.seen.byChip ) {
      addRow( columns,
              "",
              std::to_string( chip ),
              change,
              look,
              table.entries,
              coloured( style, draw( change ), chipColour( chip ) ) );
   }
}

JsonObject jsonOf( Change const& change ) {
   JsonObject json;
   json.number( "used", change.used )
      .number( "added", change.added )
      .number( "removed", change.removed );
   return json;
}

std::string jsonOf( SeenTable const& seen ) {
   JsonObject chips;
   for ( auto const& [ chip, change ] : seen.seen.byChip ) {
      chips.json( std::to_string( chip ), jsonOf( change ).text() );
   }
   return JsonObject()
      .text( "name", seen.table.name )
      .number( "entries", seen.table.entries )
      .number( "used", seen.seen.all.used )
      .number( "added", seen.seen.all.added )
      .number( "removed", seen.seen.all.removed )
      .json( "chips", chips.text() )
      .text();
}

} // namespace

TableWatch::Seen TableWatch::look( Vellum::VellumChunk const& chunk, PlannedTable const& table ) {
   Seen seen;
   std::vector<U64> now( table.kind == TableKind::exact ? table.entries : 0 );
   forEachEntry( chunk, table, [ & ]( Slot const& slot ) {
      now[ slot.index() ] = markOf( slot );
      ++seen.all.used;
      ++seen.byChip[ slot.chip() ].used;
   } );
   bool const comparable = slots_.size() == now.size();
   for ( std::size_t i = 0; comparable && i < now.size(); ++i ) {
      if ( slots_[ i ] == now[ i ] ) {
         continue;
      }
      if ( slots_[ i ] != 0 ) {
         ++seen.all.removed;
         ++seen.byChip[ chipOf( slots_[ i ] ) ].removed;
      }
      if ( now[ i ] != 0 ) {
         ++seen.all.added;
         ++seen.byChip[ chipOf( now[ i ] ) ].added;
      }
   }
   slots_ = std::move( now );
   return seen;
}

std::vector<std::string> linesOf( Look const& look, Style style ) {
   using Align = Columns::Align;
   Columns columns( { { "table" },
                      { "chip" },
                      { "used", Align::right },
                      { "full", Align::right },
                      { "added/s", Align::right },
                      { "removed/s", Align::right },
                      { "" } } );
   for ( SeenTable const& seen : look.tables ) {
      addTable( columns, seen, look, style );
   }
   std::stringstream text;
   columns.print( text );
   std::vector<std::string> lines{ coloured( style, look.title, "1" ), "" };
   for ( std::string line; std::getline( text, line ); ) {
      lines.push_back( std::move( line ) );
   }
   return lines;
}

std::string jsonOf( Look const& look ) {
   std::vector<std::string> tables;
   for ( SeenTable const& seen : look.tables ) {
      tables.push_back( jsonOf( seen ) );
   }
   return JsonObject()
      .fraction( "seconds", look.seconds )
      .json( "tables", jsonList( tables ) )
      .text();
}

} // namespace TesselTool
