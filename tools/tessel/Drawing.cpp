// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/DrawingStyle.h"
#include "tools/tessel/Picture.h"
#include "tools/tessel/Text.h"

#include "Tessel/TableManager.h"

#include <algorithm>
#include <cmath>
#include <iomanip>

namespace TesselTool {

namespace {

// Pixels.
constexpr double margin = 32;
constexpr double width = 1024;
constexpr double inner = width - 2 * margin;
constexpr U32 columns = 128;
constexpr double pitch = inner / columns;
constexpr double cellSide = pitch - 1;
constexpr double barHeight = 36;
constexpr U32 legendColumns = 6;

/// A length as SVG has it, to a hundredth.
std::string px( double value ) {
   std::string text = joined( std::fixed, std::setprecision( 2 ), value );
   text.erase( text.find_last_not_of( '0' ) + 1 );
   return text.back() == '.' ? text.substr( 0, text.size() - 1 ) : text;
}

/// Text between tags and in quoted attributes.
std::string escaped( std::string_view text ) {
   std::string result;
   for ( char const c : text ) {
      switch ( c ) {
      case '&':
         result += "&amp;";
         break;
      case '<':
         result += "&lt;";
         break;
      case '>':
         result += "&gt;";
         break;
      case '"':
         result += "&quot;";
         break;
      default:
         result += c;
      }
   }
   return result;
}

std::string safe( std::string_view text ) {
   return escaped( printable( text ) );
}

std::string rect( double x, double y, double w, double h, std::string_view classes ) {
   return joined( "<rect x=\"",
                  px( x ),
                  "\" y=\"",
                  px( y ),
                  "\" width=\"",
                  px( w ),
                  "\" height=\"",
                  px( h ),
                  "\" class=\"",
                  classes,
                  "\"/>" );
}

std::string text( double x, double y, std::string_view classes, std::string const& content ) {
   return joined( "<text x=\"",
                  px( x ),
                  "\" y=\"",
                  px( y ),
                  "\" class=\"",
                  classes,
                  "\">",
                  content,
                  "</text>\n" );
}

/// A group that tells `title` when the pointer is over it.
std::string titled( std::string_view title, std::string const& content ) {
   return joined( "<g class=\"tip\"><title>", title, "</title>", content, "</g>\n" );
}

std::string chipClass( U8 chip ) {
   return joined( 'c', chip % chipColours.size() );
}

std::string chipStyle() {
   std::string style;
   for ( std::size_t i = 0; i < chipColours.size(); ++i ) {
      style += joined( ".c", i, " { fill: ", webColour( chipColours[ i ] ), "; }\n" );
   }
   return style;
}

std::string shareText( Picture const& picture ) {
   double const entries = std::max<double>( picture.table.entries, 1 );
   return joined(
      std::fixed, std::setprecision( 1 ), 100 * picture.occupancy.used / entries, " %" );
}

// ------------------------------------------------------------------------- the chunk to scale

class ChunkBar {
 public:
   ChunkBar( Drawing const& drawing, double y ) : drawing_( drawing ), y_( y ) {}

   std::string text() const {
      std::string bar = titled( joined( "chunk ",
                                        safe( drawing_.chunk ),
                                        "\nbytes 0 to ",
                                        grouped( U64{ drawing_.chunkSize } - 1 ) ),
                                rect( margin, y_, inner, barHeight, "unused" ) );
      for ( Picture const& picture : drawing_.tables ) {
         if ( picture.table.kind == TableKind::exact ) {
            bar += frame( picture );
         }
      }
      return bar + scale();
   }

 private:
   double at( U64 offset ) const {
      return margin + inner * static_cast<double>( offset ) / drawing_.chunkSize;
   }

   std::string frame( Picture const& picture ) const {
      PlannedTable const& table = picture.table;
      U64 const begin = U64{ table.offset } - sizeof( Tessel::EmTableHeader );
      U64 const end = U64{ table.offset } + table.shadowSize + sizeof( Tessel::EmTableTrailer );
      double const left = at( begin );
      double const wide = std::max( at( std::min<U64>( end, drawing_.chunkSize ) ) - left, 1.5 );
      double const used =
         wide * picture.occupancy.used / std::max<double>( picture.table.entries, 1 );
      std::string const title = joined( safe( table.name ),
                                        "\nheader at ",
                                        grouped( begin ),
                                        ", slots at ",
                                        grouped( table.offset ),
                                        ", trailer at ",
                                        grouped( U64{ table.offset } + table.shadowSize ),
                                        "\n",
                                        grouped( end - begin ),
                                        " bytes, ",
                                        shareText( picture ),
                                        " of the slots used" );
      std::string drawn = rect( left, y_, wide, barHeight, "range" ) +
                          rect( left, y_ + barHeight - 6, used, 6, "filled" ) +
                          rect( left, y_, 1, barHeight, "frame" );
      constexpr double letter = 7.2;
      if ( wide > letter * static_cast<double>( table.name.size() ) + 14 ) {
         drawn += TesselTool::text( left + 8, y_ + 20, "onbar", safe( table.name ) );
      }
      return titled( title, drawn );
   }

   std::string scale() const {
      constexpr U32 ticks = 4;
      std::string drawn;
      for ( U32 i = 0; i <= ticks; ++i ) {
         U64 const offset = U64{ drawing_.chunkSize } * i / ticks;
         std::string_view const anchor = i == 0 ? "tick" : i == ticks ? "tick end" : "tick mid";
         drawn +=
            rect( std::min( at( offset ), margin + inner - 1 ), y_ + barHeight, 1, 4, "axis" );
         drawn += TesselTool::text( at( offset ), y_ + barHeight + 18, anchor, grouped( offset ) );
      }
      return drawn;
   }

   Drawing const& drawing_;
   double y_;
};

// ------------------------------------------------------------------------- a table

class TableDrawing {
 public:
   TableDrawing( Picture const& picture, double y ) : picture_( picture ), y_( y ) {}

   /// Draws from the top down; y() is where the next thing goes.
   std::string text() {
      PlannedTable const& table = picture_.table;
      std::string drawn = TesselTool::text( margin, y_ + 18, "name", safe( table.name ) );
      drawn += TesselTool::text( margin, y_ + 38, "meta", meta() );
      y_ += 52;
      if ( table.kind == TableKind::exact ) {
         drawn += chips();
         drawn += grid();
      }
      return drawn;
   }
   double y() const { return y_; }

 private:
   std::string meta() const {
      PlannedTable const& table = picture_.table;
      if ( table.kind == TableKind::direct ) {
         return joined( "direct, ",
                        counted( table.entries, "entry", "entries" ),
                        ", keeps none of them in the chunk" );
      }
      return joined( grouped( picture_.occupancy.used ),
                     " of ",
                     counted( table.entries, "slot", "slots" ),
                     " used, ",
                     shareText( picture_ ),
                     " · key ",
                     counted( table.key, "byte", "bytes" ),
                     " · result ",
                     counted( table.result, "byte", "bytes" ),
                     " · slots at offset ",
                     grouped( table.offset ),
                     picture_.slotsPerCell == 1
                        ? std::string( " · one slot to a square" )
                        : joined( " · ", grouped( picture_.slotsPerCell ), " slots to a square" ) );
   }

   /// How many each chip has, as one bar and in words.
   std::string chips() {
      std::string drawn = rect( margin, y_, inner, 8, "free" );
      double left = margin;
      U32 place = 0;
      for ( auto const& [ chip, used ] : picture_.occupancy.byChip ) {
         double const wide = inner * used / picture_.table.entries;
         drawn += titled( joined( "chip ", U32{ chip }, ": ", grouped( used ) ),
                          rect( left, y_, wide, 8, chipClass( chip ) ) );
         left += wide;
         U32 const row = place / legendColumns;
         double const x = margin + inner / legendColumns * ( place % legendColumns );
         double const y = y_ + 20 + 20 * row;
         drawn += rect( x, y, 10, 10, chipClass( chip ) );
         drawn += TesselTool::text(
            x + 15, y + 9, "legend", joined( "chip ", U32{ chip }, " · ", grouped( used ) ) );
         ++place;
      }
      y_ += 20 + 20 * std::ceil( static_cast<double>( place ) / legendColumns );
      return drawn;
   }

   std::string grid() {
      std::string drawn = joined( R"(<g class="grid" data-table=")",
                                  safe( picture_.table.name ),
                                  R"(" data-slots=")",
                                  picture_.slotsPerCell,
                                  "\">\n" );
      for ( std::size_t i = 0; i < picture_.cells.size(); ++i ) {
         drawn += cell( i );
      }
      std::size_t const rows = ( picture_.cells.size() + columns - 1 ) / columns;
      y_ += 8 + pitch * static_cast<double>( rows );
      return drawn + "</g>\n";
   }

   /// A square, filled from below: a chip's share of its height for each.
   std::string cell( std::size_t index ) const {
      Cell const& cell = picture_.cells[ index ];
      std::size_t const row = index / columns;
      double const x = margin + pitch * static_cast<double>( index % columns );
      double const y = y_ + 4 + pitch * static_cast<double>( row );
      std::string drawn;
      if ( cell.used < picture_.slotsIn( index ) ) {
         drawn += rect( x, y, cellSide, cellSide, "free" );
      }
      double bottom = y + cellSide;
      for ( auto const& [ chip, used ] : cell.byChip ) {
         double const high = cellSide * used / picture_.slotsIn( index );
         bottom -= high;
         drawn += rect( x, bottom, cellSide, high, chipClass( chip ) );
      }
      return titled( cellTitle( index ), drawn );
   }

   std::string cellTitle( std::size_t index ) const {
      Cell const& cell = picture_.cells[ index ];
      U64 const first = U64{ picture_.slotsPerCell } * index;
      U32 const slots = picture_.slotsIn( index );
      std::string title = joined( safe( picture_.table.name ), " slot ", grouped( first ) );
      if ( slots > 1 ) {
         title += joined( " to ", grouped( first + slots - 1 ), ", ", cell.used, " used" );
      } else if ( cell.used == 0 ) {
         title += ", free";
      }
      for ( std::string const& entry : cell.entries ) {
         title += '\n' + escaped( entry );
      }
      if ( cell.used > cell.entries.size() ) {
         title += joined( "\nand ", grouped( cell.used - cell.entries.size() ), " more" );
      }
      return title;
   }

   Picture const& picture_;
   double y_;
};

std::string contentOf( Drawing const& drawing, double& y ) {
   std::string content = text( margin, 44, "title", "chunk " + safe( drawing.chunk ) );
   content += text( margin,
                    66,
                    "meta",
                    joined( drawing.agent.empty() ? "" : "agent " + safe( drawing.agent ) + " · ",
                            counted( drawing.chunkSize, "byte", "bytes" ),
                            " · ",
                            counted( drawing.tables.size(), "table", "tables" ) ) );
   content += ChunkBar( drawing, 84 ).text();
   y = 84 + barHeight + 44;
   for ( Picture const& picture : drawing.tables ) {
      TableDrawing table( picture, y );
      content += table.text();
      y = table.y() + 28;
   }
   return content;
}

std::string svgWith( Drawing const& drawing, std::string_view style ) {
   double height = 0;
   std::string const content = contentOf( drawing, height );
   return joined( R"(<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 )",
                  px( width ),
                  ' ',
                  px( height ),
                  "\" width=\"",
                  px( width ),
                  "\" height=\"",
                  px( height ),
                  "\" role=\"img\">\n",
                  style,
                  rect( 0, 0, width, height, "page" ),
                  '\n',
                  content,
                  "</svg>\n" );
}

} // namespace

std::string svgOf( Drawing const& drawing ) {
   return svgWith( drawing, joined( "<style>\n", drawingStyle, chipStyle(), "</style>\n" ) );
}

std::string htmlOf( Drawing const& drawing ) {
   return joined( "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
                  "<meta name=\"viewport\" content=\"width=device-width\">\n<title>",
                  safe( drawing.chunk ),
                  "</title>\n<style>\n",
                  drawingStyle,
                  chipStyle(),
                  pageStyle,
                  "</style></head>\n<body>\n",
                  svgWith( drawing, "" ),
                  "<div id=\"told\" hidden></div>\n<script>\n",
                  pageScript,
                  "</script>\n</body></html>\n" );
}

} // namespace TesselTool
