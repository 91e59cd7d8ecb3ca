// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/DemoReport.h"

#include "tools/tessel/Text.h"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <ostream>

namespace TesselTool {

namespace {

constexpr std::string_view bold = "1";
constexpr std::string_view green = "32";
constexpr std::string_view red = "1;31";

} // namespace

std::string Stopwatch::text() const {
   double const milliseconds = elapsed().count() * 1000;
   return joined( std::fixed, std::setprecision( 1 ), milliseconds, " ms" );
}

std::string Stopwatch::rateOf( U64 count ) const {
   double const seconds = std::max( elapsed().count(), 1e-9 );
   return grouped( static_cast<U64>( std::llround( static_cast<double>( count ) / seconds ) ) );
}

void DemoReport::title( std::string_view text ) {
   if ( json_ ) {
      out_ << "{\"title\":" << jsonText( text ) << ",\"items\":[";
      return;
   }
   out_ << coloured( style_, text, bold ) << '\n';
}

void DemoReport::step( U32 number, std::string_view text ) {
   if ( json_ ) {
      item( JsonObject().number( "step", number ).text( "text", text ) );
      return;
   }
   out_ << '\n' << coloured( style_, joined( number, "  ", text ), bold ) << '\n' << std::flush;
}

void DemoReport::line( std::string_view text ) {
   if ( json_ ) {
      item( JsonObject().text( "line", text ) );
      return;
   }
   out_ << "     " << text << '\n';
}

void DemoReport::proof( bool holds, std::string_view claim ) {
   allHeld_ = allHeld_ && holds;
   if ( json_ ) {
      item( JsonObject().text( "proof", claim ).flag( "holds", holds ) );
      return;
   }
   line( joined( mark( holds ), ' ', claim, holds ? "" : ": this does NOT hold" ) );
}

void DemoReport::barLine( std::string_view label, U64 value, U64 full ) {
   constexpr U32 width = 32;
   if ( json_ ) {
      item( JsonObject().text( "bar", label ).number( "value", value ).number( "full", full ) );
      return;
   }
   line( joined( label, "  ", bar( value, full, width, style_.unicode ), "  ", grouped( value ) ) );
}

void DemoReport::verdict( bool good, std::string_view text ) {
   if ( json_ ) {
      out_ << "],\"verdict\":" << jsonText( text ) << ",\"held\":" << ( good ? "true" : "false" )
           << "}\n";
      return;
   }
   out_ << '\n' << mark( good ) << ' ' << coloured( style_, text, good ? bold : red ) << '\n';
}

void DemoReport::item( JsonObject const& item ) {
   out_ << ( anyItem_ ? ",\n" : "\n" ) << item.text();
   anyItem_ = true;
}

void DemoReport::failed( std::string_view why ) {
   if ( json_ ) {
      verdict( false, why );
      flush();
   }
}

void DemoReport::flush() {
   out_.flush();
}

std::string DemoReport::mark( bool good ) const {
   if ( style_.unicode ) {
      return good ? coloured( style_, "✓", green ) : coloured( style_, "✗", red );
   }
   return good ? coloured( style_, "ok", green ) : coloured( style_, "FAILED", red );
}

} // namespace TesselTool
