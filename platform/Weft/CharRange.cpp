// SPDX-License-Identifier: Apache-2.0
#include "Weft/CharRange.h"

#include <algorithm>
#include <charconv>
#include <optional>

namespace Weft {

namespace {

constexpr std::string_view spaces = " \t\r\n";
constexpr std::string_view hexDigits = "0123456789abcdef";

constexpr bool isNameChar( char c ) {
   return ( c >= 'a' && c <= 'z' ) || ( c >= 'A' && c <= 'Z' ) || ( c >= '0' && c <= '9' ) ||
          c == '_';
}

constexpr bool isPlainChar( char c ) {
   return c >= ' ' && c <= '~' && c != '"' && c != '\\';
}

std::optional<U32> digitOf( char c ) {
   char const lower = c >= 'A' && c <= 'F' ? static_cast<char>( c - 'A' + 'a' ) : c;
   auto const digit = hexDigits.find( lower );
   return digit == std::string_view::npos ? std::nullopt
                                          : std::optional( static_cast<U32>( digit ) );
}

/// The byte that the first two characters say.
std::optional<char> byteOf( std::string_view digits ) {
   if ( digits.size() < 2 ) {
      return std::nullopt;
   }
   auto const high = digitOf( digits[ 0 ] );
   auto const low = digitOf( digits[ 1 ] );
   return high && low ? std::optional( static_cast<char>( *high * 16 + *low ) ) : std::nullopt;
}

void appendHex( std::string& text, char byte ) {
   U8 const value = static_cast<U8>( byte );
   text += hexDigits[ value / 16 ];
   text += hexDigits[ value % 16 ];
}

/// The length of the name that `text` begins with, 0 when it begins with none.
std::size_t nameLength( std::string_view text ) {
   std::size_t length = 0;
   while ( length < text.size() && isNameChar( text[ length ] ) ) {
      ++length;
      bool const goesOn = text.substr( length, 2 ) == "::" && length + 2 < text.size() &&
                          isNameChar( text[ length + 2 ] );
      length += goesOn ? 2 : 0;
   }
   return length;
}

/// The length of the text in quotes that `text` begins with, all of it when the quotes stay open.
std::size_t quotedLength( std::string_view text ) {
   for ( std::size_t at = 1; at < text.size(); ++at ) {
      if ( text[ at ] == '"' ) {
         return at + 1;
      }
      at += text[ at ] == '\\' ? 1 : 0;
   }
   return text.size();
}

} // namespace

ParseError::ParseError( std::size_t offset, std::string_view problem )
      : std::invalid_argument( "at offset " + std::to_string( offset ) + ": " +
                               std::string( problem ) ),
        offset_( offset ) {}

bool CharRange::accept( std::string_view token ) {
   skipSpace();
   if ( !text_.starts_with( token ) ) {
      return false;
   }
   take( token.size() );
   return true;
}

void CharRange::expect( std::string_view token ) {
   if ( !accept( token ) ) {
      refuse( "expected " + quoted( token ) );
   }
}

void CharRange::end() const {
   if ( !text_.empty() ) {
      refuse( "characters left over" );
   }
}

std::string_view CharRange::takeName() {
   skipSpace();
   auto const length = nameLength( text_ );
   if ( length == 0 ) {
      refuse( "expected a name" );
   }
   return take( length );
}

U64 CharRange::takeNumber( U64 last ) {
   skipSpace();
   U64 number = 0;
   char const* const begin = text_.data();
   auto const [ end, error ] = std::from_chars( begin, begin + text_.size(), number );
   if ( end == begin ) {
      refuse( "expected a number" );
   }
   if ( error != std::errc() || number > last ) {
      refuse( "number past " + std::to_string( last ) );
   }
   take( static_cast<std::size_t>( end - begin ) );
   return number;
}

std::string CharRange::takeQuoted() {
   expect( "\"" );
   std::string result;
   while ( !text_.empty() && text_.front() != '"' ) {
      if ( text_.front() != '\\' ) {
         result += take( 1 );
         continue;
      }
      auto const byte = text_.substr( 0, 2 ) == "\\x" ? byteOf( text_.substr( 2 ) ) : std::nullopt;
      if ( !byte ) {
         refuse( "expected \\x and two hexadecimal digits" );
      }
      result += *byte;
      take( 4 );
   }
   expect( "\"" );
   return result;
}

std::string CharRange::takeHexadecimal() {
   expect( "0x" );
   std::string result;
   while ( !text_.empty() && digitOf( text_.front() ) ) {
      auto const byte = byteOf( text_ );
      if ( !byte ) {
         refuse( "expected two hexadecimal digits per byte" );
      }
      result += *byte;
      take( 2 );
   }
   return result;
}

CharRange CharRange::takePart() {
   skipSpace();
   std::size_t depth = 0;
   for ( std::size_t at = 0; at < text_.size(); ++at ) {
      char const c = text_[ at ];
      if ( depth == 0 && ( c == ',' || c == ')' ) ) {
         auto const part = text_.substr( 0, at );
         CharRange const range( part.substr( 0, part.find_last_not_of( spaces ) + 1 ), offset_ );
         take( at );
         return range;
      }
      if ( c == '"' ) {
         at += quotedLength( text_.substr( at ) ) - 1;
      }
      depth += c == '(' ? 1 : 0;
      depth -= c == ')' ? 1 : 0;
   }
   refuse( "expected ',' or ')' behind this" );
}

void CharRange::refuse( std::string_view problem ) const {
   throw ParseError( offset_, problem );
}

void CharRange::skipSpace() {
   take( std::min( text_.find_first_not_of( spaces ), text_.size() ) );
}

std::string_view CharRange::take( std::size_t length ) {
   auto const taken = text_.substr( 0, length );
   text_.remove_prefix( length );
   offset_ += length;
   return taken;
}

std::string quoted( std::string_view text ) {
   std::string result = "\"";
   for ( char const c : text ) {
      if ( isPlainChar( c ) ) {
         result += c;
      } else {
         result += "\\x";
         appendHex( result, c );
      }
   }
   return result += '"';
}

std::string hexadecimal( std::string_view bytes ) {
   std::string result = "0x";
   result.reserve( 2 + 2 * bytes.size() );
   for ( char const byte : bytes ) {
      appendHex( result, byte );
   }
   return result;
}

} // namespace Weft
