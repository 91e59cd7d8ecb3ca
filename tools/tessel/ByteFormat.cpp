// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/ByteFormat.h"

#include "tools/tessel/HexText.h"
#include "tools/tessel/Text.h"

#include <algorithm>
#include <array>
#include <charconv>

#include <arpa/inet.h>

namespace TesselTool {

namespace {

constexpr std::array<std::string_view, 5> names{ "hex", "mac", "ipv4", "ipv6", "uint" };

U64 numberIn( std::string_view bytes ) {
   U64 number = 0;
   for ( char const c : bytes ) {
      number = number << 8 | static_cast<unsigned char>( c );
   }
   return number;
}

U64 largestIn( std::size_t bytes ) {
   return bytes >= sizeof( U64 ) ? ~U64{ 0 } : ( U64{ 1 } << ( 8 * bytes ) ) - 1;
}

void appendSeparated( std::string& text, std::string_view bytes ) {
   for ( std::size_t i = 0; i < bytes.size(); ++i ) {
      if ( i > 0 ) {
         text += ':';
      }
      appendHex( text, bytes.substr( i, 1 ) );
   }
}

void appendAddress( std::string& text, int family, std::string_view bytes ) {
   std::array<char, INET6_ADDRSTRLEN> room{};
   text += ::inet_ntop( family, bytes.data(), room.data(), room.size() );
}

std::string parseNumber( std::string_view text, std::span<char> target ) {
   if ( text.find_first_of( ":." ) != std::string_view::npos ) {
      std::string const problem = parseHex( text, target );
      return problem.empty() ? problem : joined( "is no uint: as bytes it ", problem );
   }
   bool const isHex = text.starts_with( "0x" ) || text.starts_with( "0X" );
   if ( !isHex && text.size() > 1 && text[ 0 ] == '0' ) {
      return joined( "begins with a 0: a decimal number does not, and hex is 0x", text );
   }
   std::string_view const digits = text.substr( isHex ? 2 : 0 );
   U64 number = 0;
   char const* const end = digits.data() + digits.size();
   auto const [ stop, error ] = std::from_chars( digits.data(), end, number, isHex ? 16 : 10 );
   bool const isNumber = stop == end && !digits.empty() && error != std::errc::invalid_argument;
   if ( !isNumber ) {
      return "is no whole number: decimal digits, or hex digits behind 0x";
   }
   if ( error != std::errc() || number > largestIn( target.size() ) ) {
      return joined( "passes ", largestIn( target.size() ), ", the largest number here" );
   }
   for ( std::size_t i = target.size(); i > 0; --i ) {
      target[ i - 1 ] = static_cast<char>( number & 0xFFU );
      number >>= 8;
   }
   return {};
}

bool isAddress( int family, std::string_view text, std::span<char> target ) {
   return ::inet_pton( family, std::string( text ).c_str(), target.data() ) == 1;
}

} // namespace

std::span<std::string_view const> byteFormatNames() {
   return names;
}

std::string_view nameOf( ByteFormat format ) {
   return names[ static_cast<std::size_t>( format ) ];
}

std::optional<ByteFormat> byteFormatOf( std::string_view name ) {
   auto const* const found = std::find( names.begin(), names.end(), name );
   return found == names.end() ? std::nullopt
                               : std::optional( static_cast<ByteFormat>( found - names.begin() ) );
}

std::string lengthProblem( ByteFormat format, U32 bytes ) {
   switch ( format ) {
   case ByteFormat::hex:
      return {};
   case ByteFormat::mac:
      return bytes == 6 || bytes == 8 ? "" : joined( "takes 6 or 8 bytes, not ", bytes );
   case ByteFormat::ipv4:
      return bytes == 4 ? "" : joined( "takes 4 bytes, not ", bytes );
   case ByteFormat::ipv6:
      return bytes == 16 ? "" : joined( "takes 16 bytes, not ", bytes );
   case ByteFormat::uint:
      return bytes >= 1 && bytes <= 8 ? "" : joined( "takes 1 to 8 bytes, not ", bytes );
   }
   return {};
}

void appendText( std::string& text, ByteFormat format, std::string_view bytes ) {
   switch ( format ) {
   case ByteFormat::hex:
      return appendHex( text, bytes );
   case ByteFormat::mac:
      return appendSeparated( text, bytes );
   case ByteFormat::ipv4:
      return appendAddress( text, AF_INET, bytes );
   case ByteFormat::ipv6:
      return appendAddress( text, AF_INET6, bytes );
   case ByteFormat::uint:
      text += std::to_string( numberIn( bytes ) );
   }
}

std::string textOf( ByteFormat format, std::string_view bytes ) {
   std::string text;
   appendText( text, format, bytes );
   return text;
}

std::size_t widestText( ByteFormat format, U32 bytes ) {
   switch ( format ) {
   case ByteFormat::mac:
      return std::size_t{ 3 } * bytes - 1;
   case ByteFormat::ipv4:
      return INET_ADDRSTRLEN - 1;
   case ByteFormat::ipv6:
      return INET6_ADDRSTRLEN - 1;
   case ByteFormat::uint:
      return std::to_string( largestIn( bytes ) ).size();
   case ByteFormat::hex:
      break;
   }
   return std::size_t{ 2 } * bytes;
}

std::string parseBytes( ByteFormat format, std::string_view text, std::span<char> target ) {
   bool const hasDot = text.find( '.' ) != std::string_view::npos;
   if ( format == ByteFormat::uint ) {
      return parseNumber( text, target );
   }
   if ( format == ByteFormat::ipv4 && hasDot ) {
      return isAddress( AF_INET, text, target ) ? "" : "is no IPv4 address, such as 192.0.2.1";
   }
   if ( format == ByteFormat::ipv6 && isAddress( AF_INET6, text, target ) ) {
      return {};
   }
   std::string problem = parseHex( text, target );
   return problem.empty() || format == ByteFormat::hex
             ? problem
             : joined( "is no ", nameOf( format ), ": as hex it ", problem );
}

} // namespace TesselTool
