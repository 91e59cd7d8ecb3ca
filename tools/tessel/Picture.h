// SPDX-License-Identifier: Apache-2.0
#pragma once

/// A table's slots as a picture shows them: cells of equally many slots, in slot order.
///
/// Threads: plain values; taking one reads the chunk as SlotScan.h says.

#include "tools/tessel/Inspection.h"
#include "tools/tessel/SlotScan.h"
#include "tools/tessel/Style.h"

#include <iosfwd>
#include <map>
#include <string>
#include <vector>

namespace TesselTool {

struct Cell {
   U32 used = 0;
   std::map<U8, U32> byChip{};
   std::vector<std::string> entries{}; ///< the first of them in words, where they were asked for

   /// The chip with the most entries here, the lowest of several; 0 where none has any.
   U8 mainChip() const;
};

struct Picture {
   PlannedTable table{};
   Occupancy occupancy{};
   U32 slotsPerCell = 1;
   std::vector<Cell> cells{};

   U32 slotsIn( std::size_t cell ) const;
};

struct PictureSize {
   U32 cells = 1;          ///< at most so many
   U32 entriesPerCell = 0; ///< in words
};

/// The table as it is now; without cells where it has no slots. The slots of a cell are a power of
/// two.
Picture pictureOf( Vellum::VellumChunk const& chunk,
                   InspectedTable const& inspected,
                   PictureSize const& size );

/// For a terminal: per table a heading, a bar for each chip, and rows of cells.
void printPicture( std::ostream& out,
                   Picture const& picture,
                   Style style,
                   TerminalSize const& terminal );

/// Cells that fit into `rows` rows of the terminal's width.
U32 cellsFor( TerminalSize const& terminal, U32 rows );

/// What a drawing shows: the chunk to scale, and below it every table.
struct Drawing {
   std::string chunk;
   std::string agent{}; ///< empty when it is not known
   U32 chunkSize = 0;
   std::vector<Picture> tables{};
};

inline constexpr PictureSize drawingSize{ .cells = 4096, .entriesPerCell = 16 };

/// A picture by itself; what lies under the pointer is told by its titles.
std::string svgOf( Drawing const& drawing );
/// A page by itself around the same picture: it tells slot and key of what lies under the pointer,
/// and opens at PAGE#TABLE/SLOT.
std::string htmlOf( Drawing const& drawing );

} // namespace TesselTool
