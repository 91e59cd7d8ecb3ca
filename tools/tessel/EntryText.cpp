// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/EntryText.h"

#include "tools/tessel/Csv.h"
#include "tools/tessel/HexText.h"
#include "tools/tessel/Text.h"

namespace TesselTool {

namespace {

void addText( JsonObject& json, std::string_view name, ByteFormat format, std::string_view bytes ) {
   if ( format != ByteFormat::hex ) {
      json.text( name, textOf( format, bytes ) );
   }
}

} // namespace

U8 chipArgument( std::string_view text ) {
   auto const chip = parseChip( text );
   if ( !chip ) {
      throw Failure( joined( "chip ", inQuotes( text ), " is no number from 0 to 255" ),
                     ExitStatus::usage );
   }
   return *chip;
}

std::string
bytesArgument( std::string_view what, std::string_view text, ByteFormat format, U32 length ) {
   std::string bytes( length, '\0' );
   std::string const problem = parseBytes( format, text, bytes );
   if ( !problem.empty() ) {
      throw Failure( joined( what, ' ', inQuotes( text ), ' ', problem ), ExitStatus::usage );
   }
   return bytes;
}

NamedEntry::NamedEntry( Arguments const& arguments, PlannedTable const& table )
      : table( table ), chip( chipArgument( arguments.chip ) ),
        key( bytesArgument( "key", arguments.key, table.keyFormat, table.key ) ) {}

JsonObject entryJson( PlannedTable const& table, U8 chip, std::string_view key ) {
   JsonObject json;
   json.number( "chip", chip ).text( "key", hexOf( key ) );
   addText( json, "keyText", table.keyFormat, key );
   return json;
}

JsonObject
entryJson( PlannedTable const& table, U8 chip, std::string_view key, std::string_view result ) {
   JsonObject json = entryJson( table, chip, key );
   json.text( "result", hexOf( result ) );
   addText( json, "resultText", table.resultFormat, result );
   return json;
}

void refuseDirect( PlannedTable const& table ) {
   if ( table.kind == TableKind::direct ) {
      throw Failure( joined( "table ",
                             inQuotes( table.name ),
                             " is a direct table, which keeps no entries: name an exact one" ) );
   }
}

} // namespace TesselTool
