// SPDX-License-Identifier: Apache-2.0
#pragma once

/// One writing command at a time for each chunk.
///
/// The library takes no lock, and neither do agents: two writers of one table know nothing of each
/// other's entries, and one takes the slots that the other has filled. Commands keep each other out
/// by an advisory lock (flock) on the shared memory; the system lets go of it when its holder dies.
///
/// Threads: one object is used by one thread.

#include <string>
#include <utility>

namespace TesselTool {

class ChunkLock {
 public:
   /// Holds nothing.
   ChunkLock() = default;
   /// Holds the chunk of this name, where it can be opened; who opens it next says why it cannot.
   /// Failure when another command has it.
   explicit ChunkLock( std::string const& chunk );
   ChunkLock( ChunkLock&& other ) noexcept : file_( std::exchange( other.file_, none ) ) {}
   ChunkLock& operator=( ChunkLock&& other ) noexcept {
      std::swap( file_, other.file_ );
      return *this;
   }
   ~ChunkLock();

 private:
   static constexpr int none = -1;

   int file_ = none;
};

} // namespace TesselTool
