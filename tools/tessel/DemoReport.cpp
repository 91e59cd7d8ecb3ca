// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/DemoReport.h"

#include "tools/tessel/Text.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <iomanip>
#include <ostream>

#include <unistd.h>

namespace TesselTool {

namespace {

constexpr std::string_view bold = "1";
constexpr std::string_view green = "32";
constexpr std::string_view red = "1;31";

std::string environment( char const* name ) {
   // NOLINTNEXTLINE(concurrency-mt-unsafe): the tool has one thread
   char const* const value = std::getenv( name );
   return value ? value : "";
}

bool localeIsUtf8() {
   for ( char const* const name : { "LC_ALL", "LC_CTYPE", "LANG" } ) {
      std::string value = environment( name );
      if ( !value.empty() ) {
         std::transform( value.begin(), value.end(), value.begin(), []( unsigned char c ) {
            return static_cast<char>( std::tolower( c ) );
         } );
         return value.find( "utf-8" ) != std::string::npos ||
                value.find( "utf8" ) != std::string::npos;
      }
   }
   return false;
}

} // namespace

Style styleOfTerminal() {
   bool const colour = ::isatty( STDOUT_FILENO ) == 1 && environment( "NO_COLOR" ).empty() &&
                       environment( "TERM" ) != "dumb";
   return { .colour = colour, .unicode = localeIsUtf8() };
}

std::string bar( U64 value, U64 full, U32 width, bool unicode ) {
   constexpr std::array<std::string_view, 8> partOfCell{ "░", "▏", "▎", "▍", "▌", "▋", "▊", "▉" };
   U64 const eighths = full == 0 ? 0 : std::min( value, full ) * width * 8 / full;
   std::string text;
   for ( U64 cell = 0; cell < width; ++cell ) {
      U64 const filled = std::min<U64>( eighths - std::min( eighths, cell * 8 ), 8 );
      if ( unicode ) {
         text += filled == 8 ? "█" : partOfCell[ filled ];
      } else {
         text += filled >= 4 ? '#' : '.';
      }
   }
   return text;
}

std::string Stopwatch::text() const {
   double const milliseconds = elapsed().count() * 1000;
   return joined( std::fixed, std::setprecision( 1 ), milliseconds, " ms" );
}

std::string Stopwatch::rateOf( U64 count ) const {
   double const seconds = std::max( elapsed().count(), 1e-9 );
   return grouped( static_cast<U64>( std::llround( static_cast<double>( count ) / seconds ) ) );
}

void DemoReport::title( std::string_view text ) {
   out_ << coloured( text, bold ) << '\n';
}

void DemoReport::step( U32 number, std::string_view text ) {
   out_ << '\n' << coloured( joined( number, "  ", text ), bold ) << '\n' << std::flush;
}

void DemoReport::line( std::string_view text ) {
   out_ << "     " << text << '\n';
}

void DemoReport::proof( bool holds, std::string_view claim ) {
   allHeld_ = allHeld_ && holds;
   line( joined( mark( holds ), ' ', claim, holds ? "" : ": this does NOT hold" ) );
}

void DemoReport::barLine( std::string_view label, U64 value, U64 full ) {
   constexpr U32 width = 32;
   line( joined( label, "  ", bar( value, full, width, style_.unicode ), "  ", grouped( value ) ) );
}

void DemoReport::verdict( bool good, std::string_view text ) {
   out_ << '\n' << mark( good ) << ' ' << coloured( text, good ? bold : red ) << '\n';
}

void DemoReport::flush() {
   out_.flush();
}

std::string DemoReport::coloured( std::string_view text, std::string_view code ) const {
   return style_.colour ? joined( "\x1b[", code, 'm', text, "\x1b[0m" ) : std::string( text );
}

std::string DemoReport::mark( bool good ) const {
   if ( style_.unicode ) {
      return good ? coloured( "✓", green ) : coloured( "✗", red );
   }
   return good ? coloured( "ok", green ) : coloured( "FAILED", red );
}

} // namespace TesselTool
