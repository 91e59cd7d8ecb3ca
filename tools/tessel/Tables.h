// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The tables of a plan in its chunk.
///
/// Failure where a chunk is missing, is not what the plan says, or cannot be opened; then no byte of
/// it has changed.
///
/// Threads: as Tessel/TableManager.h.

#include "Tessel/TableManager.h"
#include "tools/tessel/ChunkLock.h"
#include "tools/tessel/Plan.h"

namespace TesselTool {

/// The chunk of this name, without any right to write to it. Its agent may be at work meanwhile.
Corvo::Ptr<Vellum::VellumChunk> openForReading( Corvo::String const& chunkName );

/// The plan's chunk, in which this table of the plan stands. Whether others do does not matter to
/// one that is read alone.
Corvo::Ptr<Vellum::VellumChunk> openForReading( Plan const& plan, PlannedTable const& table );

/// What to do about a planned table that a chunk is too short for.
inline constexpr std::string_view cutAdvice =
   "correct the plan, or remove a chunk that was cut short";

/// Empty where the table's range lies within the chunk; else what is wrong, as the beginning of a
/// sentence.
std::string
cutText( Vellum::VellumChunk const& chunk, Plan const& plan, PlannedTable const& table );

/// The exact-match table with the entries that its range holds now. It is for reading.
Corvo::Ptr<Tessel::EmShadowTable> tableForReading( Corvo::Ptr<Vellum::VellumChunk> const& chunk,
                                                   PlannedTable const& planned );

/// Whether there is a chunk of this name, which can be opened for reading.
bool isThere( Corvo::String const& chunkName );

enum class IfMissing { refuse, create };

/// A manager, and what keeps other commands from writing meanwhile.
class WritingManager {
 public:
   WritingManager( ChunkLock lock, Corvo::Ptr<Tessel::TableManager> manager )
         : lock_( std::move( lock ) ), manager_( std::move( manager ) ) {}

   Tessel::TableManager* operator->() const { return manager_.get(); }
   Tessel::TableManager& operator*() const { return *manager_; }

 private:
   ChunkLock lock_;
   Corvo::Ptr<Tessel::TableManager> manager_;
};

/// A manager that has made the agent's manage calls, over the chunk or, where it may, over a new
/// one. Every table of the plan is among managedTables(). Failure also while another command writes.
WritingManager openForWriting( Plan const& plan, IfMissing ifMissing );

/// The same over a chunk that is open already, unchecked.
Corvo::Ptr<Tessel::TableManager> manageTables( Plan const& plan,
                                               Corvo::Ptr<Vellum::VellumChunk> const& chunk );

} // namespace TesselTool
