// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Csv.h"

#include "tools/tessel/Text.h"

#include <charconv>
#include <istream>
#include <span>

namespace TesselTool {

namespace {

constexpr std::size_t longestLine = 4096;

std::string_view trimmed( std::string_view text ) {
   constexpr std::string_view blanks = " \t\r";
   auto const first = text.find_first_not_of( blanks );
   if ( first == std::string_view::npos ) {
      return {};
   }
   return text.substr( first, text.find_last_not_of( blanks ) - first + 1 );
}

/// The lines of a stream, of which each is cut to one byte more than is allowed.
class Lines {
 public:
   explicit Lines( std::istream& stream ) : stream_( stream ) {}

   bool next( std::string& line ) {
      line.clear();
      for ( bool any = false;; any = true ) {
         if ( rest_.empty() && !fill() ) {
            return any;
         }
         auto const end = rest_.find( '\n' );
         take( line, rest_.substr( 0, end ) );
         if ( end != std::string_view::npos ) {
            rest_.remove_prefix( end + 1 );
            return true;
         }
         rest_ = {};
      }
   }

 private:
   bool fill() {
      stream_.read( block_.data(), static_cast<std::streamsize>( block_.size() ) );
      rest_ = std::string_view( block_.data(), static_cast<std::size_t>( stream_.gcount() ) );
      return !rest_.empty();
   }
   static void take( std::string& line, std::string_view piece ) {
      line.append( piece.substr( 0, longestLine + 1 - line.size() ) );
   }

   std::istream& stream_;
   std::array<char, 65536> block_{};
   std::string_view rest_; ///< of block_, not looked at yet
};

struct Fields {
   std::array<std::string_view, 3> field;
   std::size_t count = 0;
};

Fields split( std::string_view line ) {
   Fields fields;
   for ( bool more = true; more; ++fields.count ) {
      auto const comma = line.find( ',' );
      more = comma != std::string_view::npos;
      if ( fields.count < fields.field.size() ) {
         fields.field[ fields.count ] = trimmed( line.substr( 0, comma ) );
      }
      line.remove_prefix( more ? comma + 1 : line.size() );
   }
   return fields;
}

/// What the fields of a line have to hold.
struct LineShape {
   U32 keyBytes;
   U32 resultBytes;
   CsvFormats formats;
};

/// What is wrong with a line; empty when it has become `entry`.
std::string problemOf( std::string_view line, LineShape const& shape, CsvEntry& entry ) {
   auto const [ field, count ] = split( line );
   if ( count != field.size() ) {
      return joined(
         "has ", counted( count, "field", "fields" ), ", 3 are needed: chip,key,result" );
   }
   auto const chip = parseChip( field[ 0 ] );
   if ( !chip ) {
      return joined( "chip ", inQuotes( field[ 0 ] ), " is no number from 0 to 255" );
   }
   entry.chip = *chip;
   std::string problem =
      parseBytes( shape.formats.key, field[ 1 ], std::span( entry.key ).first( shape.keyBytes ) );
   if ( !problem.empty() ) {
      return joined( "key ", inQuotes( field[ 1 ] ), ' ', problem );
   }
   problem = parseBytes(
      shape.formats.result, field[ 2 ], std::span( entry.result ).first( shape.resultBytes ) );
   return problem.empty() ? problem : joined( "result ", inQuotes( field[ 2 ] ), ' ', problem );
}

std::string_view withoutByteOrderMark( std::string_view line ) {
   constexpr std::string_view mark = "\xEF\xBB\xBF";
   return line.substr( line.starts_with( mark ) ? mark.size() : 0 );
}

} // namespace

std::optional<U8> parseChip( std::string_view text ) {
   U8 chip = 0;
   char const* const end = text.data() + text.size();
   auto const [ stop, error ] = std::from_chars( text.data(), end, chip );
   return error == std::errc() && stop == end ? std::optional( chip ) : std::nullopt;
}

CsvInput readCsv( std::istream& stream, U32 keyBytes, U32 resultBytes, CsvFormats const& formats ) {
   LineShape const shape{ keyBytes, resultBytes, formats };
   CsvInput input;
   Lines lines( stream );
   std::string line;
   for ( U64 number = 1; lines.next( line ); ++number ) {
      std::string_view const whole = number == 1 ? withoutByteOrderMark( line ) : line;
      auto const comment = whole.find( '#' );
      std::string_view const content = trimmed( whole.substr( 0, comment ) );
      bool const cut = line.size() > longestLine && comment == std::string_view::npos;
      if ( content.empty() && !cut ) {
         continue;
      }
      CsvEntry entry;
      std::string problem = cut ? joined( "is longer than ", longestLine, " bytes" )
                                : problemOf( content, shape, entry );
      if ( problem.empty() ) {
         input.entries.push_back( entry );
      } else if ( ++input.badLines <= CsvInput::shownBadLines ) {
         input.firstBad.push_back( { .number = number, .problem = std::move( problem ) } );
      }
   }
   return input;
}

void appendCsvLine( std::string& text,
                    U8 chip,
                    std::string_view key,
                    std::string_view result,
                    CsvFormats const& formats ) {
   text += std::to_string( chip );
   text += ',';
   appendText( text, formats.key, key );
   text += ',';
   appendText( text, formats.result, result );
   text += '\n';
}

} // namespace TesselTool
