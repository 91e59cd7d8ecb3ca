// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Style.h"

#include "tools/tessel/HexText.h"
#include "tools/tessel/Text.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstdlib>

#include <sys/ioctl.h>
#include <unistd.h>

namespace TesselTool {

namespace {

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

U32 numberIn( std::string const& text, U32 otherwise ) {
   U32 number = 0;
   auto const [ stop, error ] = std::from_chars( text.data(), text.data() + text.size(), number );
   return error == std::errc() && *stop == '\0' && number > 0 ? number : otherwise;
}

} // namespace

Style styleOfTerminal() {
   bool const colour =
      ::isatty( STDOUT_FILENO ) == 1 && environment( "NO_COLOR" ).empty() && !terminalIsDumb();
   return { .colour = colour, .unicode = localeIsUtf8() };
}

bool terminalIsDumb() {
   return environment( "TERM" ) == "dumb";
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

TerminalSize terminalSize() {
   winsize size{};
   if ( ::ioctl( STDOUT_FILENO, TIOCGWINSZ, &size ) == 0 && size.ws_col > 0 && size.ws_row > 0 ) {
      return { .columns = size.ws_col, .rows = size.ws_row };
   }
   TerminalSize const usual;
   return { .columns = numberIn( environment( "COLUMNS" ), usual.columns ),
            .rows = numberIn( environment( "LINES" ), usual.rows ) };
}

std::string coloured( Style style, std::string_view text, std::string_view code ) {
   return style.colour ? joined( "\x1b[", code, 'm', text, "\x1b[0m" ) : std::string( text );
}

std::string chipColour( U8 chip ) {
   return joined( "38;5;", U32{ chipColours[ chip % chipColours.size() ] } );
}

std::string webColour( U8 colour ) {
   constexpr std::array<char, 6> levels{ '\x00', '\x5f', '\x87', '\xaf', '\xd7', '\xff' };
   U32 const place = colour - 16U; // in a cube of 6 levels of red, green and blue
   return '#' + hexOf( std::string{
                   levels[ place / 36 % 6 ], levels[ place / 6 % 6 ], levels[ place % 6 ] } );
}

char chipLetter( U8 chip ) {
   constexpr std::string_view letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
   return letters[ chip % letters.size() ];
}

} // namespace TesselTool
