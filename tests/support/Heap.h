// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The heap as tests see it: every operator new of the process is counted and can be made to fail,
/// and so can calloc where no sanitizer has taken its place.
///
/// Threads: allocations fail on the thread that asked for it only; liveHeapBlocks counts all threads.

#include "Weft/Types.h"

#include <cstddef>
#include <new>
#include <span>

namespace TestSupport {

/// Blocks of operator new that are not deleted yet.
U64 liveHeapBlocks();

/// While it exists, one allocation of this thread fails: the first from here on when `nth` is 0, and
/// so on. One made before it in the same thread waits until it has gone.
class FailAllocation {
 public:
   explicit FailAllocation( U64 nth );
   ~FailAllocation();
   FailAllocation( FailAllocation const& ) = delete;
   FailAllocation& operator=( FailAllocation const& ) = delete;

   /// Whether the allocation was asked for, and so failed.
   bool happened() const;

 private:
   U64 former_;
};

/// While it exists, the next object of each of these sizes needs a slab from the heap: it holds every
/// free block.
class ExhaustedSlabs {
 public:
   explicit ExhaustedSlabs( std::span<std::size_t const> sizes );
   ~ExhaustedSlabs();
   ExhaustedSlabs( ExhaustedSlabs const& ) = delete;
   ExhaustedSlabs& operator=( ExhaustedSlabs const& ) = delete;

 private:
   struct Held;
   Held* held_ = nullptr;
};

/// Runs `attempt` with its first allocation failing, then with its second failing, and so on until
/// it completes without needing the one that would fail. Calls `afterFailure` after each attempt
/// that ended with std::bad_alloc; allocations work again there. Returns how many ended so.
template<class Attempt, class AfterFailure>
U64 failEachAllocation( Attempt&& attempt, AfterFailure&& afterFailure ) {
   U64 failures = 0;
   for ( U64 nth = 0;; ++nth ) {
      FailAllocation const failing( nth );
      try {
         attempt();
         if ( !failing.happened() ) {
            return failures;
         }
      } catch ( std::bad_alloc const& ) {
         ++failures;
         afterFailure();
      }
   }
}

} // namespace TestSupport
