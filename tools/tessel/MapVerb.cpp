// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Json.h"
#include "tools/tessel/Picture.h"
#include "tools/tessel/Text.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace TesselTool {

namespace {

using Pictures = std::vector<Picture>;

Pictures picturesOf( Inspection const& inspection, PictureSize const& size ) {
   Pictures pictures;
   for ( InspectedTable const& inspected : inspection.tables ) {
      pictures.push_back( pictureOf( *inspection.chunk, inspected, size ) );
   }
   return pictures;
}

void printJson( Context const& context, Pictures const& pictures ) {
   std::vector<std::string> tables;
   for ( Picture const& picture : pictures ) {
      std::vector<std::string> cells;
      for ( Cell const& cell : picture.cells ) {
         cells.push_back( std::to_string( cell.used ) );
      }
      tables.push_back( JsonObject()
                           .text( "name", picture.table.name )
                           .number( "entries", picture.table.entries )
                           .number( "used", picture.occupancy.used )
                           .json( "chips", chipsJson( picture.occupancy ) )
                           .number( "slotsPerCell", picture.slotsPerCell )
                           .json( "cells", jsonList( cells ) )
                           .text() );
   }
   context.out << JsonObject().json( "tables", jsonList( tables ) ).text() << '\n';
}

void printPictures( Context const& context,
                    Vellum::VellumChunk const& chunk,
                    Pictures const& pictures ) {
   if ( pictures.empty() ) {
      context.out << "chunk " << printable( chunk.name() ) << ": nothing to draw, "
                  << unframedText( chunk ) << '\n';
   }
   Style const style = styleOfTerminal();
   TerminalSize const terminal = terminalSize();
   std::string_view before;
   for ( Picture const& picture : pictures ) {
      context.out << before;
      printPicture( context.out, picture, style, terminal );
      before = "\n";
   }
}

void writeFile( std::string const& path, std::string const& text ) {
   std::ofstream file( path, std::ios::binary );
   file << text << std::flush;
   if ( !file ) {
      throw Failure(
         joined( path, ": cannot be written: ", std::generic_category().message( errno ) ) );
   }
}

/// Whether the file is a page; a picture by itself otherwise.
bool isPage( std::string const& file ) {
   std::string const ending = std::filesystem::path( file ).extension().string();
   if ( ending != ".svg" && ending != ".html" ) {
      throw Failure( joined( "--out ", inQuotes( file ), " ends neither in .svg nor in .html" ),
                     ExitStatus::usage );
   }
   return ending == ".html";
}

void draw( Inspection const& inspection,
           std::string const& file,
           bool asPage,
           Context const& context ) {
   Drawing const drawing{ .chunk = inspection.chunk->name(),
                          .agent = inspection.plan ? inspection.plan->agent : "",
                          .chunkSize = inspection.chunk->size(),
                          .tables = picturesOf( inspection, drawingSize ) };
   writeFile( file, asPage ? htmlOf( drawing ) : svgOf( drawing ) );
   if ( context.json ) {
      context.out << JsonObject().text( "file", file ).text() << '\n';
   } else {
      context.out << "wrote " << printable( file ) << '\n';
   }
}

} // namespace

ExitStatus map( Arguments const& arguments, Context const& context ) {
   bool const asPage = arguments.out && isPage( *arguments.out );
   Inspection const inspection = inspectSlots( arguments );
   if ( arguments.out ) {
      draw( inspection, *arguments.out, asPage, context );
   } else if ( context.json ) {
      constexpr PictureSize size{ .cells = 1024 }; // whatever the terminal
      printJson( context, picturesOf( inspection, size ) );
   } else {
      constexpr U32 rows = 16;
      printPictures( context,
                     *inspection.chunk,
                     picturesOf( inspection, { .cells = cellsFor( terminalSize(), rows ) } ) );
   }
   printLeftOut( inspection, context.err );
   return inspection.status();
}

} // namespace TesselTool
