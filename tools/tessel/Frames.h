// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The frames of exact-match tables in a chunk, by their bytes (Tessel/TableManager.h draws them).
///
/// Threads: a chunk is read; its writer may be at work in another process meanwhile.

#include "Vellum/VellumChunk.h"
#include "tools/tessel/Plan.h"

#include <string>
#include <vector>

namespace TesselTool {

struct Frame {
   std::string name;
   U32 offset = 0;      ///< of the table's own range, as the header says; the header is before it
   U32 shadowSize = 0;  ///< bytes of that range, as the header says
   bool intact = false; ///< the trailer stands behind the range
};

/// Every frame of the chunk, wherever it starts, by offset: a header whose fields agree with the
/// place where it stands. What looks like a frame within the range of an intact one is an entry's
/// bytes and no frame.
std::vector<Frame> findFrames( Vellum::VellumChunk const& chunk );

/// What a chunk without a frame holds, in words.
std::string_view unframedText( Vellum::VellumChunk const& chunk );

/// Something that stands where it should not, or does not where it should.
struct FrameProblem {
   U64 offset = 0;
   std::string table{};
   std::string problem{};
};

/// What is wrong with the frames by themselves: a trailer that is not there, a range out of the
/// chunk, a frame within another, headers and trailers that belong to none of the frames.
std::vector<FrameProblem> problemsOf( Vellum::VellumChunk const& chunk,
                                      std::vector<Frame> const& frames );

/// What stands in the way of the plan: other headers than planned, and tables it does not have
/// among its own.
std::vector<FrameProblem> problemsWith( Vellum::VellumChunk const& chunk,
                                        std::vector<Frame> const& frames,
                                        Plan const& plan );

// Whether planned tables, which lie within the chunk, stand there. An agent may have been killed on
// its way through its manage calls: a frame that is not there, or not whole, where everything else
// is zero, is about to be written. Failure, naming the table, where other bytes stand.

/// The table's header has to be the planned one or not there yet.
void checkForReading( Vellum::VellumChunk const& chunk, PlannedTable const& table );
/// So has every header and trailer, and the manager's writes must destroy nothing.
void checkForWriting( Vellum::VellumChunk const& chunk, Plan const& plan );

} // namespace TesselTool
