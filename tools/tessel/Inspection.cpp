// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Inspection.h"

#include "tools/tessel/SlotScan.h"
#include "tools/tessel/Tables.h"
#include "tools/tessel/Text.h"

#include <algorithm>
#include <charconv>
#include <filesystem>

namespace TesselTool {

namespace {

U32 lengthIn( std::string_view option, std::string const& text, U32 limit ) {
   U32 length = 0;
   char const* const end = text.data() + text.size();
   auto const [ stop, error ] = std::from_chars( text.data(), end, length );
   if ( error != std::errc() || stop != end || length > limit ) {
      throw Failure( joined( option, ' ', inQuotes( text ), " is no number from 0 to ", limit ),
                     ExitStatus::usage );
   }
   return length;
}

InspectedTable const& namedIn( std::vector<InspectedTable> const& tables,
                               std::string_view name,
                               std::string_view chunk ) {
   std::vector<std::string_view> names;
   for ( InspectedTable const& inspected : tables ) {
      if ( inspected.table.name == name ) {
         return inspected;
      }
      names.emplace_back( inspected.table.name );
   }
   throw Failure( joined( "chunk ",
                          inQuotes( chunk ),
                          " has no table ",
                          inQuotes( name ),
                          suggestion( name, names, inQuotes ) ) );
}

Inspection inspectPlan( Arguments const& arguments ) {
   Inspection inspection{ .plan = readPlan( arguments.plan ) };
   std::vector<PlannedTable> wanted = inspection.plan->tables;
   if ( arguments.someTable ) {
      wanted = { plannedTable( *inspection.plan, *arguments.someTable ) };
   }
   inspection.chunk = openForReading( *inspection.plan );
   for ( PlannedTable& table : wanted ) {
      bool const exact = table.kind == TableKind::exact;
      inspection.tables.push_back( { .table = std::move( table ), .hasSlots = exact } );
   }
   return inspection;
}

Inspection inspectChunk( Arguments const& arguments, std::optional<Lengths> const& lengths ) {
   Inspection inspection{ .chunk = openForReading( arguments.plan ) };
   for ( Frame const& frame : findFrames( *inspection.chunk ) ) {
      inspection.tables.push_back( tableOf( frame, lengths, inspection.chunk->size() ) );
   }
   if ( arguments.someTable ) {
      inspection.tables = { namedIn( inspection.tables, *arguments.someTable, arguments.plan ) };
   }
   return inspection;
}

/// A frame whose end is not in the chunk does not keep one from looking into the others.
void leaveOutCut( Inspection& inspection ) {
   U32 const size = inspection.chunk->size();
   std::erase_if( inspection.tables, [ & ]( InspectedTable const& inspected ) {
      PlannedTable const& table = inspected.table;
      bool const cut = U64{ table.offset } + table.shadowSize > size;
      if ( cut ) {
         inspection.leftOut.push_back( joined( "table ",
                                               inQuotes( table.name ),
                                               " says that it has ",
                                               table.shadowSize,
                                               " bytes at offset ",
                                               table.offset,
                                               ", which do not fit into the chunk of ",
                                               size,
                                               " bytes: it is left out" ) );
      }
      return cut;
   } );
   if ( inspection.tables.empty() && !inspection.leftOut.empty() ) {
      throw Failure( inspection.leftOut.front() );
   }
}

void checkSlots( std::vector<InspectedTable> const& tables ) {
   for ( InspectedTable const& inspected : tables ) {
      if ( !inspected.hasSlots ) {
         throw Failure( joined( "table ",
                                inQuotes( inspected.table.name ),
                                " of ",
                                inspected.table.shadowSize,
                                " bytes is not made of slots for such keys and results: give other "
                                "lengths, or name another table" ) );
      }
   }
}

} // namespace

bool namesChunk( std::string const& word ) {
   if ( word.rfind( '/' ) != 0 ) { // more slashes are a file's path
      return false;
   }
   std::error_code none;
   auto const status = std::filesystem::status( word, none );
   return !std::filesystem::exists( status ) || std::filesystem::is_directory( status );
}

std::optional<Lengths> lengthsIn( Arguments const& arguments ) {
   if ( !arguments.keyLength && !arguments.resultLength ) {
      return std::nullopt;
   }
   if ( !arguments.keyLength || !arguments.resultLength ) {
      throw Failure( "--key N and --result N, lengths in bytes, come together", ExitStatus::usage );
   }
   return Lengths{ .key = lengthIn( "--key", *arguments.keyLength, Tessel::MAX_KEY_LENGTH_IN_BYTE ),
                   .result = lengthIn(
                      "--result", *arguments.resultLength, Tessel::MAX_RESULT_LENGTH_IN_BYTE ) };
}

InspectedTable tableOf( Frame const& frame, std::optional<Lengths> const& lengths, U32 chunkSize ) {
   InspectedTable inspected{
      .table = { .name = frame.name, .offset = frame.offset, .shadowSize = frame.shadowSize },
      .intact = frame.intact,
      .hasSlots = false
   };
   if ( lengths && U64{ frame.offset } + frame.shadowSize <= chunkSize ) {
      U32 const bytes = slotBytes( lengths->key, lengths->result );
      inspected.hasSlots = frame.shadowSize % bytes == 0;
      inspected.table.key = lengths->key;
      inspected.table.result = lengths->result;
      inspected.table.entries = frame.shadowSize / bytes;
   }
   return inspected;
}

Inspection inspect( Arguments const& arguments ) {
   auto const lengths = lengthsIn( arguments );
   if ( namesChunk( arguments.plan ) ) {
      return inspectChunk( arguments, lengths );
   }
   if ( lengths ) {
      throw Failure( "--key and --result are for a chunk: the plan says its tables' lengths",
                     ExitStatus::usage );
   }
   return inspectPlan( arguments );
}

Inspection inspectSlots( Arguments const& arguments ) {
   Inspection inspection = inspect( arguments );
   if ( !inspection.plan && !arguments.keyLength ) {
      throw Failure(
         joined( "chunk ",
                 inQuotes( arguments.plan ),
                 " does not say how long its keys and results are: give a plan instead, "
                 "or --key N and --result N" ),
         ExitStatus::usage );
   }
   if ( !inspection.plan ) {
      leaveOutCut( inspection );
      checkSlots( inspection.tables );
   }
   return inspection;
}

} // namespace TesselTool
