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

/// Several, where several agents share the chunk.
std::vector<InspectedTable> namedIn( std::vector<InspectedTable> const& tables,
                                     std::string_view name,
                                     std::string_view chunk ) {
   std::vector<InspectedTable> found;
   std::vector<std::string_view> names;
   for ( InspectedTable const& inspected : tables ) {
      if ( inspected.table.name == name ) {
         found.push_back( inspected );
      }
      names.emplace_back( inspected.table.name );
   }
   if ( found.empty() ) {
      throw Failure( joined( "chunk ",
                             inQuotes( chunk ),
                             " has no table ",
                             inQuotes( name ),
                             suggestion( name, names, inQuotes ) ) );
   }
   return found;
}

/// Leaves out the tables of which `problem` says something; Failure, with advice, when no other is
/// left.
template<class Problem>
void leaveOut( Inspection& inspection, std::string_view advice, Problem problem ) {
   std::erase_if( inspection.tables, [ & ]( InspectedTable const& inspected ) {
      std::string const text = problem( inspected );
      if ( !text.empty() ) {
         inspection.leftOut.push_back( text );
      }
      return !text.empty();
   } );
   if ( inspection.tables.empty() && !inspection.leftOut.empty() ) {
      throw Failure( joined( inspection.leftOut.front(), ": ", advice ) );
   }
   for ( std::string& line : inspection.leftOut ) {
      line += ": it is left out";
   }
}

Inspection inspectPlan( Arguments const& arguments ) {
   Inspection inspection{ .plan = readPlan( arguments.plan ) };
   std::vector<PlannedTable> wanted = inspection.plan->tables;
   if ( arguments.someTable ) {
      wanted = { plannedTable( *inspection.plan, *arguments.someTable ) };
   }
   inspection.chunk = openForReading( inspection.plan->chunk );
   for ( PlannedTable& table : wanted ) {
      bool const exact = table.kind == TableKind::exact;
      inspection.tables.push_back( { .table = std::move( table ), .hasSlots = exact } );
   }
   leaveOut( inspection, cutAdvice, [ & ]( InspectedTable const& inspected ) {
      return cutText( *inspection.chunk, *inspection.plan, inspected.table );
   } );
   for ( InspectedTable const& inspected : inspection.tables ) {
      checkForReading( *inspection.chunk, inspected.table );
   }
   return inspection;
}

Inspection inspectChunk( Arguments const& arguments, std::optional<Lengths> const& lengths ) {
   Inspection inspection{ .chunk = openForReading( arguments.plan ) };
   for ( Frame const& frame : findFrames( *inspection.chunk ) ) {
      inspection.tables.push_back( tableOf( frame, lengths, inspection.chunk->size() ) );
   }
   if ( arguments.someTable ) {
      inspection.tables = namedIn( inspection.tables, *arguments.someTable, arguments.plan );
   }
   return inspection;
}

/// Why the table's slots cannot be looked at; empty when they can.
std::string problemOf( InspectedTable const& inspected, U32 chunkSize ) {
   PlannedTable const& table = inspected.table;
   if ( U64{ table.offset } + table.shadowSize > chunkSize ) {
      return joined( "table ",
                     inQuotes( table.name ),
                     " says that it has ",
                     table.shadowSize,
                     " bytes at offset ",
                     table.offset,
                     ", which do not fit into the chunk of ",
                     chunkSize,
                     " bytes" );
   }
   return inspected.hasSlots ? ""
                             : joined( "table ",
                                       inQuotes( table.name ),
                                       " of ",
                                       table.shadowSize,
                                       " bytes is not made of slots for keys of ",
                                       table.key,
                                       " bytes and results of ",
                                       table.result );
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
      constexpr std::string_view advice = "give other lengths, or see what tessel verify finds";
      leaveOut( inspection, advice, [ & ]( InspectedTable const& inspected ) {
         return problemOf( inspected, inspection.chunk->size() );
      } );
   }
   return inspection;
}

void printLeftOut( Inspection const& inspection, std::ostream& err ) {
   for ( std::string const& line : inspection.leftOut ) {
      printError( err, line );
   }
}

} // namespace TesselTool
