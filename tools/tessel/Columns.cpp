// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Columns.h"

#include <algorithm>
#include <ostream>

namespace TesselTool {

namespace {

/// Characters of UTF-8 text, each taken to be one column wide.
std::size_t widthOf( std::string const& text ) {
   return static_cast<std::size_t>( std::count_if( text.begin(), text.end(), []( char c ) {
      return ( static_cast<unsigned char>( c ) & 0xC0U ) != 0x80U;
   } ) );
}

} // namespace

Columns::Columns( std::vector<Heading> headings ) {
   std::vector<std::string> first;
   for ( Heading& heading : headings ) {
      aligns_.push_back( heading.align );
      first.push_back( std::move( heading.text ) );
   }
   rows_.push_back( std::move( first ) );
}

void Columns::rowIs( std::vector<std::string> row ) {
   rows_.push_back( std::move( row ) );
}

void Columns::print( std::ostream& out ) const {
   std::vector<std::size_t> widths( aligns_.size() );
   for ( auto const& row : rows_ ) {
      for ( std::size_t i = 0; i < row.size(); ++i ) {
         widths[ i ] = std::max( widths[ i ], widthOf( row[ i ] ) );
      }
   }
   for ( auto const& row : rows_ ) {
      std::string line;
      for ( std::size_t i = 0; i < row.size(); ++i ) {
         std::string const fill( widths[ i ] - widthOf( row[ i ] ), ' ' );
         line += i == 0 ? "" : "  ";
         line += aligns_[ i ] == Align::left ? row[ i ] + fill : fill + row[ i ];
      }
      line.erase( line.find_last_not_of( ' ' ) + 1 );
      out << line << '\n';
   }
}

} // namespace TesselTool
