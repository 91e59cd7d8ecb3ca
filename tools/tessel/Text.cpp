// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Text.h"

#include <algorithm>
#include <array>
#include <numeric>
#include <utility>
#include <vector>

namespace TesselTool {

namespace {

struct Character {
   char32_t value = 0;
   std::size_t bytes = 0; ///< 0: no well-formed UTF-8 character
};

constexpr bool continues( char byte ) {
   return ( static_cast<unsigned char>( byte ) & 0xC0U ) == 0x80U;
}

std::size_t bytesAfter( unsigned char first ) {
   if ( first < 0x80 ) {
      return 0;
   }
   if ( first >= 0xC2 && first < 0xE0 ) {
      return 1;
   }
   if ( first >= 0xE0 && first < 0xF0 ) {
      return 2;
   }
   return first >= 0xF0 && first < 0xF5 ? 3 : std::string_view::npos;
}

bool isShortest( Character character ) {
   constexpr std::array<char32_t, 5> lowest{ 0, 0, 0x80, 0x800, 0x10000 };
   bool const surrogate = character.value >= 0xD800 && character.value < 0xE000;
   return character.value >= lowest[ character.bytes ] && character.value < 0x110000 && !surrogate;
}

/// The character at the front of the text, which is not empty.
Character firstCharacter( std::string_view text ) {
   auto const first = static_cast<unsigned char>( text.front() );
   std::size_t const more = bytesAfter( first );
   if ( more == std::string_view::npos || more >= text.size() ) {
      return {};
   }
   Character character{ .value = first, .bytes = 1 + more };
   if ( more > 0 ) {
      character.value = first & ( 0x3FU >> more );
   }
   for ( char const byte : text.substr( 1, more ) ) {
      if ( !continues( byte ) ) {
         return {};
      }
      character.value = character.value << 6 | ( static_cast<unsigned char>( byte ) & 0x3FU );
   }
   return isShortest( character ) ? character : Character{};
}

/// Controls, and what is invisible or turns the direction of writing.
bool hidesItself( char32_t c ) {
   return c < 0x20 || ( c >= 0x7F && c < 0xA0 ) || c == 0xAD || ( c >= 0x200B && c < 0x2010 ) ||
          ( c >= 0x2028 && c < 0x2030 ) || ( c >= 0x2060 && c < 0x2070 ) || c == 0xFEFF ||
          ( c >= 0xE000 && c < 0xF900 ) || ( c & 0xFFFE ) == 0xFFFE || c >= 0xE0000;
}

void appendEscaped( std::string& line, std::string_view bytes ) {
   constexpr std::string_view digits = "0123456789abcdef";
   for ( char const c : bytes ) {
      auto const byte = static_cast<unsigned char>( c );
      line.append( { '\\', 'x', digits[ byte >> 4U ], digits[ byte & 0xFU ] } );
   }
}

std::string inSmallLetters( std::string_view text ) {
   std::string small( text );
   for ( char& c : small ) {
      c = c >= 'A' && c <= 'Z' ? static_cast<char>( c - 'A' + 'a' ) : c;
   }
   return small;
}

std::size_t distance( std::string_view a, std::string_view b ) {
   std::vector<std::size_t> row( b.size() + 1 );
   std::iota( row.begin(), row.end(), std::size_t{ 0 } );
   for ( std::size_t i = 0; i < a.size(); ++i ) {
      std::size_t diagonal = std::exchange( row[ 0 ], i + 1 );
      for ( std::size_t j = 0; j < b.size(); ++j ) {
         std::size_t const changed = diagonal + ( a[ i ] == b[ j ] ? 0 : 1 );
         diagonal = row[ j + 1 ];
         row[ j + 1 ] = std::min( { changed, row[ j ] + 1, diagonal + 1 } );
      }
   }
   return row.back();
}

} // namespace

std::string printable( std::string_view text ) {
   std::string line;
   line.reserve( text.size() );
   while ( !text.empty() ) {
      Character const character = firstCharacter( text );
      std::size_t const bytes = std::max<std::size_t>( character.bytes, 1 );
      if ( character.bytes == 0 || hidesItself( character.value ) ) {
         appendEscaped( line, text.substr( 0, bytes ) );
      } else {
         line.append( text.substr( 0, bytes ) );
      }
      text.remove_prefix( bytes );
   }
   return line;
}

std::string inQuotes( std::string_view text ) {
   constexpr std::size_t longest = 64;
   if ( text.size() <= longest ) {
      return '"' + printable( text ) + '"';
   }
   std::size_t end = longest;
   while ( end > 0 && continues( text[ end ] ) ) {
      --end;
   }
   return '"' + printable( text.substr( 0, end ) ) + "…\"";
}

std::string shellWord( std::string_view text ) {
   constexpr std::string_view plain =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-";
   if ( text.find_first_not_of( plain ) == std::string_view::npos ) {
      return std::string( text );
   }
   std::string word( "'" );
   for ( char const c : text ) {
      word += c == '\'' ? "'\\''" : std::string( 1, c );
   }
   return printable( word + '\'' );
}

std::string_view nearest( std::string_view wanted, std::span<std::string_view const> names ) {
   constexpr std::size_t longest = 64; // the work grows with the product of the lengths
   std::string const folded = inSmallLetters( wanted.substr( 0, longest ) );
   std::size_t fewest =
      std::min( folded.size(), std::max<std::size_t>( folded.size() / 3, 2 ) + 1 );
   std::string_view found;
   for ( std::string_view const name : names ) {
      std::string const other = inSmallLetters( name );
      if ( !folded.empty() && other.starts_with( folded ) ) {
         return name;
      }
      if ( std::size_t const changes = distance( folded, other ); changes < fewest ) {
         fewest = changes;
         found = name;
      }
   }
   return found;
}

std::string suggestion( std::string_view wanted,
                        std::span<std::string_view const> names,
                        std::string ( *shown )( std::string_view ) ) {
   constexpr std::size_t most = 8;
   if ( names.empty() ) {
      return "; it has none at all";
   }
   if ( std::string_view const near = nearest( wanted, names ); !near.empty() ) {
      return "; the nearest is " + shown( near );
   }
   std::string list;
   for ( std::string_view const name : names.first( std::min( names.size(), most ) ) ) {
      list += joined( list.empty() ? "; there is " : ", ", shown( name ) );
   }
   return names.size() > most ? joined( list, " and ", names.size() - most, " more" ) : list;
}

std::string grouped( U64 number ) {
   std::string digits = std::to_string( number );
   for ( std::size_t at = digits.size(); at > 3; at -= 3 ) {
      digits.insert( at - 3, 1, ',' );
   }
   return digits;
}

std::string counted( U64 count, std::string_view one, std::string_view many ) {
   return joined( grouped( count ), ' ', count == 1 ? one : many );
}

} // namespace TesselTool
