// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Whether the bytes of a chunk's tables are as the library writes them.
///
/// Threads: as SlotScan.h. A writer that is at work in another process meanwhile is no problem:
/// what looks wrong is looked at again before it is reported.

#include "tools/tessel/Frames.h"

#include <functional>

namespace TesselTool {

using ReportProblem = std::function<void( FrameProblem const& )>;

/// Lets a writer go on for a moment.
void pauseBriefly();

/// Reports what is wrong with the slots of an exact table whose range lies within the chunk: a
/// valid byte other than 0 and 1, padding that is not zero, a free slot that is not all zero, and an
/// entry that another slot holds, too; in the order of the slots.
/// `pause` comes before each further look at what looks wrong.
void verifySlots( Vellum::VellumChunk const& chunk,
                  PlannedTable const& table,
                  ReportProblem const& report,
                  std::function<void()> const& pause = pauseBriefly );

} // namespace TesselTool
