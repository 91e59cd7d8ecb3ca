// SPDX-License-Identifier: Apache-2.0
#pragma once

/// What changes in tables from one look to the next.
///
/// Threads: plain values; looking reads the chunk as SlotScan.h says.

#include "tools/tessel/Inspection.h"
#include "tools/tessel/SlotScan.h"
#include "tools/tessel/Style.h"

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace TesselTool {

struct Change {
   U32 used = 0;
   U64 added = 0;   ///< slots that have got another chip or key since the look before
   U64 removed = 0; ///< slots whose chip and key have gone since
};

/// The slots of one table at the last look. What comes and goes between two looks is not seen, and
/// neither is a rewritten result.
class TableWatch {
 public:
   struct Seen {
      Change all{};
      std::map<U8, Change> byChip{}; ///< chips with entries or changes
   };

   /// Looks again. The first look, and one at a table of another size, has no changes.
   Seen look( Vellum::VellumChunk const& chunk, PlannedTable const& table );

 private:
   std::vector<U64> slots_; ///< a mark for chip and key; 0 where there is no entry
};

struct SeenTable {
   PlannedTable table{};
   TableWatch::Seen seen{};
};

/// One look at all tables.
struct Look {
   std::string title{};
   std::vector<SeenTable> tables{};
   double seconds = 0;                 ///< since the look before; 0: this is the first
   std::vector<std::string> leftOut{}; ///< a line for each table that cannot be looked into
};

/// In lines, for people; without what was left out.
std::vector<std::string> linesOf( Look const& look, Style style );
std::string jsonOf( Look const& look );

} // namespace TesselTool
