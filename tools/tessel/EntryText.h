// SPDX-License-Identifier: Apache-2.0
#pragma once

/// One entry of a table in words: from a command line, and as JSON.
///
/// Threads: plain values.

#include "Brine/ChipId.h"
#include "tools/tessel/Json.h"
#include "tools/tessel/Plan.h"
#include "tools/tessel/Verbs.h"

namespace TesselTool {

/// The chip's number. Failure when the text is none.
U8 chipArgument( std::string_view text );

/// `length` bytes in the format. Failure, with `what` they are, when the text is none.
std::string
bytesArgument( std::string_view what, std::string_view text, ByteFormat format, U32 length );

/// The entry that the words of a command name. The table outlives it.
struct NamedEntry {
   NamedEntry( Arguments const& arguments, PlannedTable const& table );

   Brine::ChipId chipId() const { return Brine::ChipId( chip ); }
   std::string keyText() const { return textOf( table.keyFormat, key ); }

   PlannedTable const& table;
   U8 chip;
   std::string key;
};

// "chip", "key", "result" in bare hex; where the plan has another format for them, also "keyText"
// and "resultText".

JsonObject entryJson( PlannedTable const& table, U8 chip, std::string_view key );
JsonObject
entryJson( PlannedTable const& table, U8 chip, std::string_view key, std::string_view result );

/// Failure: the table is direct and keeps no entries.
void refuseDirect( PlannedTable const& table );

} // namespace TesselTool
