// SPDX-License-Identifier: Apache-2.0
#pragma once

/// What the reading verbs look into: the tables of a plan, or those that a chunk's bytes tell of.
///
/// Threads: as SlotScan.h.

#include "tools/tessel/Frames.h"
#include "tools/tessel/Verbs.h"

#include <optional>
#include <vector>

namespace TesselTool {

struct InspectedTable {
   PlannedTable table{}; ///< of a frame without geometry: name, offset and shadowSize alone
   bool intact = true;   ///< as Frame::intact; of a planned table always
   /// Whether the slots are known, and within the chunk.
   bool hasSlots = true;
};

struct Inspection {
   Corvo::Ptr<Vellum::VellumChunk> chunk{}; ///< open for reading
   std::optional<Plan> plan{};
   std::vector<InspectedTable> tables{}; ///< all, or those of the name that was asked for
   std::vector<std::string> leftOut{};   ///< a line for each table that cannot be looked into

   /// Refused where a table was left out.
   ExitStatus status() const { return leftOut.empty() ? ExitStatus::done : ExitStatus::refused; }
};

/// Lengths of keys and results that stand on the command line.
struct Lengths {
   U32 key = 0;
   U32 result = 0;
};

/// Whether the word names a chunk; a file of the same name is a plan.
bool namesChunk( std::string const& word );

/// The lengths from --key and --result. Failure when only one is there, or one is past the limits.
std::optional<Lengths> lengthsIn( Arguments const& arguments );

/// The table that a frame stands for. It has slots when the lengths are known, fit its size, and
/// its range lies within the chunk.
InspectedTable tableOf( Frame const& frame, std::optional<Lengths> const& lengths, U32 chunkSize );

/// Opens what the command names. A planned table that does not lie within the chunk is left out.
/// Failure as openForReading, for a table that is not there, when none is left, and for lengths
/// beside a plan.
Inspection inspect( Arguments const& arguments );

/// As inspect; also what a chunk's bytes tell of is left out when it does not lie within the chunk
/// or is not made of slots of the lengths that are given.
Inspection inspectSlots( Arguments const& arguments );

/// One line on `err` for each table that was left out.
void printLeftOut( Inspection const& inspection, std::ostream& err );

} // namespace TesselTool
