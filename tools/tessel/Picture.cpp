// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Picture.h"

#include "tools/tessel/Text.h"

#include <algorithm>
#include <array>
#include <bit>
#include <iomanip>
#include <ostream>

namespace TesselTool {

namespace {

constexpr U32 labelWidth = 11; ///< of the slot number in front of a row, with a blank behind it
constexpr U32 chipWidth = 14;  ///< of what stands in front of a chip's bar

std::string entryText( PlannedTable const& table, Slot const& slot ) {
   return joined( "slot ",
                  grouped( slot.index() ),
                  "  chip ",
                  U32{ slot.chip() },
                  "  ",
                  textOf( table.keyFormat, slot.key() ),
                  table.result == 0 ? "" : " → ",
                  textOf( table.resultFormat, slot.result() ) );
}

// ------------------------------------------------------------------------- in a terminal

/// How full a cell is; where it can only be told in ASCII, whose it is.
std::string cellText( Picture const& picture, std::size_t index, Style style ) {
   constexpr std::array<std::string_view, 9> levels{ "·", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█" };
   Cell const& cell = picture.cells[ index ];
   if ( style.unicode ) {
      U32 const slots = picture.slotsIn( index );
      U64 const level = ( U64{ cell.used } * 8 + slots - 1 ) / slots;
      return std::string( levels[ std::min<U64>( level, 8 ) ] );
   }
   return std::string( 1, cell.used == 0 ? '.' : chipLetter( cell.mainChip() ) );
}

std::string cellInColour( Picture const& picture, std::size_t index, Style style ) {
   Cell const& cell = picture.cells[ index ];
   std::string const text = cellText( picture, index, style );
   return cell.used == 0 ? coloured( style, text, "2" )
                         : coloured( style, text, chipColour( cell.mainChip() ) );
}

/// What the terminal has beside the widest number.
U32 barWidth( Picture const& picture, TerminalSize const& terminal ) {
   constexpr U32 fewest = 4;
   constexpr U32 most = 24;
   auto const number = static_cast<U32>( grouped( picture.occupancy.used ).size() );
   U32 const others = chipWidth + 2 + number;
   return std::clamp( terminal.columns - std::min( terminal.columns, others ), fewest, most );
}

void printChips( std::ostream& out,
                 Picture const& picture,
                 Style style,
                 TerminalSize const& terminal ) {
   U32 const width = barWidth( picture, terminal );
   for ( auto const& [ chip, used ] : picture.occupancy.byChip ) {
      std::string const letter =
         style.unicode ? std::string( "■" ) : std::string( 1, chipLetter( chip ) );
      out << "  " << coloured( style, letter, chipColour( chip ) ) << " chip " << std::left
          << std::setw( 3 ) << U32{ chip } << std::right << "  "
          << coloured( style,
                       bar( used, picture.table.entries, width, style.unicode ),
                       chipColour( chip ) )
          << "  " << grouped( used ) << '\n';
   }
}

U32 cellsPerRow( TerminalSize const& terminal ) {
   constexpr U32 fewest = 4;
   constexpr U32 most = 128;
   U32 const room = std::min( terminal.columns, most + labelWidth );
   return std::bit_floor( std::max( room, fewest + labelWidth ) - labelWidth );
}

/// The cells behind the last one that holds an entry.
std::size_t cellsInUse( Picture const& picture ) {
   auto const last = std::find_if( picture.cells.rbegin(),
                                   picture.cells.rend(),
                                   []( Cell const& cell ) { return cell.used > 0; } );
   return static_cast<std::size_t>( std::distance( last, picture.cells.rend() ) );
}

std::string rowLabel( Picture const& picture, std::size_t cell ) {
   return joined( std::setw( labelWidth - 1 ), grouped( cell * picture.slotsPerCell ), ' ' );
}

/// Rows of nothing but free slots at the end are one line.
void printCells( std::ostream& out,
                 Picture const& picture,
                 Style style,
                 TerminalSize const& terminal ) {
   U32 const perRow = cellsPerRow( terminal );
   std::size_t const all = picture.cells.size();
   std::size_t const drawn = ( cellsInUse( picture ) + perRow - 1 ) / perRow * perRow;
   for ( std::size_t i = 0; i < std::min( drawn, all ); ++i ) {
      if ( i % perRow == 0 ) {
         out << ( i == 0 ? "" : "\n" ) << rowLabel( picture, i );
      }
      out << cellInColour( picture, i, style );
   }
   out << ( drawn == 0 ? "" : "\n" );
   if ( drawn < all ) {
      out << rowLabel( picture, drawn ) << "to " << grouped( U64{ picture.table.entries } - 1 )
          << ": free\n";
   }
}

} // namespace

U8 Cell::mainChip() const {
   auto const most =
      std::max_element( byChip.begin(), byChip.end(), []( auto const& a, auto const& b ) {
         return a.second < b.second;
      } );
   return most == byChip.end() ? U8{ 0 } : most->first;
}

U32 Picture::slotsIn( std::size_t cell ) const {
   U64 const first = U64{ slotsPerCell } * cell;
   return static_cast<U32>( std::min<U64>( slotsPerCell, table.entries - first ) );
}

Picture pictureOf( Vellum::VellumChunk const& chunk,
                   InspectedTable const& inspected,
                   PictureSize const& size ) {
   Picture picture{ .table = inspected.table };
   if ( !inspected.hasSlots ) {
      return picture;
   }
   while ( U64{ picture.slotsPerCell } * size.cells < picture.table.entries ) {
      picture.slotsPerCell *= 2;
   }
   U64 const perCell = picture.slotsPerCell;
   picture.cells.resize( ( picture.table.entries + perCell - 1 ) / perCell );
   forEachEntry( chunk, picture.table, [ & ]( Slot const& slot ) {
      Cell& cell = picture.cells[ slot.index() / perCell ];
      ++cell.used;
      ++cell.byChip[ slot.chip() ];
      ++picture.occupancy.used;
      ++picture.occupancy.byChip[ slot.chip() ];
      if ( cell.entries.size() < size.entriesPerCell ) {
         cell.entries.push_back( entryText( picture.table, slot ) );
      }
   } );
   return picture;
}

U32 cellsFor( TerminalSize const& terminal, U32 rows ) {
   return cellsPerRow( terminal ) * rows;
}

void printPicture( std::ostream& out,
                   Picture const& picture,
                   Style style,
                   TerminalSize const& terminal ) {
   PlannedTable const& table = picture.table;
   out << coloured( style, printable( table.name ), "1" );
   if ( table.kind == TableKind::direct ) {
      out << "  direct, keeps no entries in the chunk\n";
      return;
   }
   double const share = table.entries == 0 ? 0 : 100.0 * picture.occupancy.used / table.entries;
   out << "  " << grouped( picture.occupancy.used ) << " of "
       << counted( table.entries, "slot", "slots" ) << " used, "
       << joined( std::fixed, std::setprecision( 1 ), share ) << " %";
   if ( picture.slotsPerCell > 1 ) {
      out << ", " << grouped( picture.slotsPerCell ) << " to a character";
   }
   out << '\n';
   printChips( out, picture, style, terminal );
   printCells( out, picture, style, terminal );
}

} // namespace TesselTool
