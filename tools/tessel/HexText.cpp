// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/HexText.h"

#include "tools/tessel/Text.h"

namespace TesselTool {

namespace {

constexpr int noDigit = -1;

constexpr int digitValue( char c ) {
   if ( c >= '0' && c <= '9' ) {
      return c - '0';
   }
   if ( c >= 'a' && c <= 'f' ) {
      return c - 'a' + 10;
   }
   return c >= 'A' && c <= 'F' ? c - 'A' + 10 : noDigit;
}

constexpr bool separates( char c ) {
   return c == ':' || c == '.';
}

std::string complaintAbout( std::string_view text ) {
   char const c = text.front();
   if ( separates( c ) ) {
      return joined( "has a ", inQuotes( text.substr( 0, 1 ) ), " that is not between two bytes" );
   }
   if ( digitValue( c ) == noDigit ) {
      return joined( "has ", inQuotes( text.substr( 0, 1 ) ), ", which is no hex digit" );
   }
   if ( text.size() > 1 && digitValue( text[ 1 ] ) == noDigit && !separates( text[ 1 ] ) ) {
      return joined( "has ", inQuotes( text.substr( 1, 1 ) ), ", which is no hex digit" );
   }
   return "has half a byte: two hex digits make one";
}

std::string lengthComplaint( std::size_t has, std::size_t needed ) {
   return joined( "has ",
                  counted( has, "byte", "bytes" ),
                  ", ",
                  needed,
                  needed == 1 ? " is needed" : " are needed" );
}

} // namespace

void appendHex( std::string& text, std::string_view bytes ) {
   constexpr std::string_view digits = "0123456789abcdef";
   for ( char const c : bytes ) {
      auto const byte = static_cast<unsigned char>( c );
      text += digits[ byte >> 4U ];
      text += digits[ byte & 0xFU ];
   }
}

std::string hexOf( std::string_view bytes ) {
   std::string text;
   text.reserve( 2 * bytes.size() );
   appendHex( text, bytes );
   return text;
}

std::string parseHex( std::string_view text, std::span<char> target ) {
   std::size_t count = 0;
   while ( !text.empty() ) {
      int const high = digitValue( text[ 0 ] );
      int const low = text.size() > 1 ? digitValue( text[ 1 ] ) : noDigit;
      if ( high == noDigit || low == noDigit ) {
         return complaintAbout( text );
      }
      if ( count < target.size() ) {
         target[ count ] = static_cast<char>( high * 16 + low );
      }
      ++count;
      text.remove_prefix( 2 );
      if ( text.size() > 1 && separates( text[ 0 ] ) && !separates( text[ 1 ] ) ) {
         text.remove_prefix( 1 );
      }
   }
   return count == target.size() ? std::string() : lengthComplaint( count, target.size() );
}

} // namespace TesselTool
