// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/EntryText.h"
#include "tools/tessel/Tables.h"
#include "tools/tessel/Text.h"

#include <optional>
#include <ostream>

namespace TesselTool {

namespace {

[[noreturn]] void refuseAbsent( NamedEntry const& entry ) {
   bool const direct = entry.table.kind == TableKind::direct;
   throw Failure( joined( "table ",
                          inQuotes( entry.table.name ),
                          " has no entry for chip ",
                          U32{ entry.chip },
                          ", key ",
                          entry.keyText(),
                          direct ? ": it is a direct table, which keeps none" : "" ) );
}

void printJson( Context const& context, JsonObject const& json ) {
   context.out << json.text() << '\n';
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

ExitStatus lookup( Arguments const& arguments, Context const& context ) {
   Plan const plan = readPlan( arguments.plan );
   NamedEntry const entry( arguments, plannedTable( plan, arguments.table ) );
   auto const chunk = openForReading( plan, entry.table );
   if ( entry.table.kind == TableKind::direct ) {
      refuseAbsent( entry );
   }
   auto const reader = Tessel::emShadowTableReaderFactory( tableForReading( chunk, entry.table ) );
   std::string result( entry.table.result, '\0' );
   if ( !reader->entry( entry.chipId(), entry.key.data(), result.data() ) ) {
      refuseAbsent( entry );
   }
   if ( context.json ) {
      printJson( context, entryJson( entry.table, entry.chip, entry.key, result ) );
   } else {
      context.out << textOf( entry.table.resultFormat, result ) << '\n';
   }
   return ExitStatus::done;
}

ExitStatus update( Arguments const& arguments, Context const& context ) {
   Plan const plan = readPlan( arguments.plan );
   NamedEntry const entry( arguments, plannedTable( plan, arguments.table ) );
   std::string const result =
      bytesArgument( "result", arguments.result, entry.table.resultFormat, entry.table.result );
   refuseDirect( entry.table );
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
      printJson( context, entryJson( entry.table, entry.chip, entry.key, result ) );
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
      printJson( context, entryJson( entry.table, entry.chip, entry.key ) );
   }
   return ExitStatus::done;
}

ExitStatus clear( Arguments const& arguments, Context const& context ) {
   if ( arguments.someTable.has_value() == arguments.someChip.has_value() ) {
      throw Failure( "clear takes either a TABLE or --chip N", ExitStatus::usage );
   }
   Plan const plan = readPlan( arguments.plan );
   std::optional<U8> chip;
   if ( arguments.someChip ) {
      chip = chipArgument( *arguments.someChip );
   } else {
      plannedTable( plan, *arguments.someTable );
   }
   auto const manager = openForWriting( plan, IfMissing::refuse );
   U64 const before = usedIn( *manager, plan, chip );
   if ( chip ) {
      manager->deleteAll( Brine::ChipId( *chip ) );
   } else {
      manager->clearTable( *arguments.someTable );
   }
   U64 const removed = before - usedIn( *manager, plan, chip );
   if ( context.json ) {
      printJson( context, JsonObject().number( "removed", removed ) );
   } else {
      context.out << "removed " << counted( removed, "entry", "entries" ) << '\n';
   }
   return ExitStatus::done;
}

} // namespace TesselTool
