// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Csv.h"
#include "tools/tessel/HexText.h"
#include "tools/tessel/Tables.h"
#include "tools/tessel/Text.h"
#include "tools/tessel/Verbs.h"

#include <nlohmann/json.hpp>

namespace TesselTool {

namespace {

using Json = nlohmann::ordered_json;

U8 chipArgument( std::string_view text ) {
   auto const chip = parseChip( text );
   if ( !chip ) {
      throw Failure( joined( "chip ", inQuotes( text ), " is no number from 0 to 255" ),
                     ExitStatus::usage );
   }
   return *chip;
}

std::string bytesArgument( std::string_view what, std::string_view text, U32 length ) {
   std::string bytes( length, '\0' );
   std::string const problem = parseHex( text, bytes );
   if ( !problem.empty() ) {
      throw Failure( joined( what, ' ', inQuotes( text ), ' ', problem ), ExitStatus::usage );
   }
   return bytes;
}

/// The entry that the words of a command name.
struct NamedEntry {
   NamedEntry( Arguments const& arguments, PlannedTable const& table )
         : table( table ), chip( chipArgument( arguments.chip ) ),
           key( bytesArgument( "key", arguments.key, table.key ) ) {}

   Brine::ChipId chipId() const { return Brine::ChipId( chip ); }
   Json json() const { return { { "chip", chip }, { "key", hexOf( key ) } }; }

   PlannedTable const& table;
   U8 chip;
   std::string key;
};

[[noreturn]] void refuseAbsent( NamedEntry const& entry ) {
   bool const direct = entry.table.kind == TableKind::direct;
   throw Failure( joined( "table ",
                          inQuotes( entry.table.name ),
                          " has no entry for chip ",
                          U32{ entry.chip },
                          ", key ",
                          hexOf( entry.key ),
                          direct ? ": it is a direct table, which keeps none" : "" ) );
}

void printJson( Context const& context, Json const& json ) {
   context.out << json.dump() << '\n';
}

void printEntries( Tessel::EmShadowTable const& table, Context const& context ) {
   std::string line;
   bool first = true;
   for ( Tessel::EmTableEntry const& entry : table.entries() ) {
      if ( !entry.valid() ) {
         continue; // its agent has removed it since the walk began
      }
      auto const chip = entry.chipId().value();
      std::string_view const key( entry.key().bytes() );
      std::string_view const result( entry.result().bytes() );
      line.clear();
      if ( context.json ) {
         // By hand: a document of millions of entries is never held as a whole.
         line = joined( first ? "" : ",",
                        '\n',
                        R"({"chip":)",
                        U32{ chip },
                        R"(,"key":")",
                        hexOf( key ),
                        R"(","result":")",
                        hexOf( result ),
                        R"("})" );
      } else {
         appendCsvLine( line, chip, key, result );
      }
      context.out << line;
      first = false;
   }
}

/// Entries of the chip, or all of them, in every table.
U64 usedIn( Tessel::TableManager const& manager, Plan const& plan, std::optional<U8> chip ) {
   U64 used = 0;
   for ( PlannedTable const& planned : plan.tables ) {
      auto const table =
         Corvo::dynamicPtr<Tessel::EmShadowTable>( manager.managedTable( planned.name ) );
      if ( table ) {
         used += chip ? table->numUsedEntriesByChipId( Brine::ChipId( *chip ) )
                      : table->numUsedEntries();
      }
   }
   return used;
}

} // namespace

ExitStatus dump( Arguments const& arguments, Context const& context ) {
   Plan const plan = readPlan( arguments.plan );
   PlannedTable const& table = plannedTable( plan, arguments.table );
   auto const chunk = openForReading( plan );
   context.out << ( context.json ? "[" : "" );
   if ( table.kind == TableKind::exact ) {
      printEntries( *tableForReading( chunk, table ), context );
   }
   context.out << ( context.json ? "]\n" : "" );
   return ExitStatus::done;
}

ExitStatus lookup( Arguments const& arguments, Context const& context ) {
   Plan const plan = readPlan( arguments.plan );
   NamedEntry const entry( arguments, plannedTable( plan, arguments.table ) );
   auto const chunk = openForReading( plan );
   if ( entry.table.kind == TableKind::direct ) {
      refuseAbsent( entry );
   }
   auto const reader = Tessel::emShadowTableReaderFactory( tableForReading( chunk, entry.table ) );
   std::string result( entry.table.result, '\0' );
   if ( !reader->entry( entry.chipId(), entry.key.data(), result.data() ) ) {
      refuseAbsent( entry );
   }
   if ( context.json ) {
      Json json = entry.json();
      json[ "result" ] = hexOf( result );
      printJson( context, json );
   } else {
      context.out << hexOf( result ) << '\n';
   }
   return ExitStatus::done;
}

ExitStatus update( Arguments const& arguments, Context const& context ) {
   Plan const plan = readPlan( arguments.plan );
   NamedEntry const entry( arguments, plannedTable( plan, arguments.table ) );
   std::string const result = bytesArgument( "result", arguments.result, entry.table.result );
   if ( entry.table.kind == TableKind::direct ) {
      throw Failure( joined( "table ",
                             inQuotes( entry.table.name ),
                             " is a direct table, which keeps no entries: name an exact one" ) );
   }
   auto const manager = openForWriting( plan, IfMissing::create );
   auto const table = manager->managedTable( entry.table.name );
   if ( !table->entryIs( entry.chipId(), entry.key.data(), result.data() ) ) {
      throw Failure( joined( "table ",
                             inQuotes( entry.table.name ),
                             " is full with ",
                             counted( entry.table.entries, "entry", "entries" ),
                             ": delete some first" ) );
   }
   if ( context.json ) {
      Json json = entry.json();
      json[ "result" ] = hexOf( result );
      printJson( context, json );
   }
   return ExitStatus::done;
}

ExitStatus deleteEntry( Arguments const& arguments, Context const& context ) {
   Plan const plan = readPlan( arguments.plan );
   NamedEntry const entry( arguments, plannedTable( plan, arguments.table ) );
   auto const manager = openForWriting( plan, IfMissing::refuse );
   auto const table = manager->managedTable( entry.table.name );
   if ( !table->entryHas( entry.chipId(), entry.key.data() ) ) {
      refuseAbsent( entry );
   }
   table->entryDel( entry.chipId(), entry.key.data() );
   if ( context.json ) {
      printJson( context, entry.json() );
   }
   return ExitStatus::done;
}

ExitStatus clear( Arguments const& arguments, Context const& context ) {
   if ( arguments.hasTable == arguments.hasChip ) {
      throw Failure( "clear takes either a TABLE or --chip N", ExitStatus::usage );
   }
   Plan const plan = readPlan( arguments.plan );
   std::optional<U8> chip;
   if ( arguments.hasChip ) {
      chip = chipArgument( arguments.chip );
   } else {
      plannedTable( plan, arguments.table );
   }
   auto const manager = openForWriting( plan, IfMissing::refuse );
   U64 const before = usedIn( *manager, plan, chip );
   if ( chip ) {
      manager->deleteAll( Brine::ChipId( *chip ) );
   } else {
      manager->clearTable( arguments.table );
   }
   U64 const removed = before - usedIn( *manager, plan, chip );
   if ( context.json ) {
      printJson( context, { { "removed", removed } } );
   } else {
      context.out << "removed " << counted( removed, "entry", "entries" ) << '\n';
   }
   return ExitStatus::done;
}

} // namespace TesselTool
