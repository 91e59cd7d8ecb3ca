// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Counts the objects of one entity type. Each entity type has one, `memAllocationTracker_`.
///
/// Threads: every operation may run on any thread at once.

#include "Weft/Types.h"

#include <atomic>

namespace Weft {

class AllocTrackTypeInfo {
 public:
   /// Objects alive now.
   U64 live() const { return live_.load( std::memory_order_relaxed ); }

   void allocationInc() { live_.fetch_add( 1, std::memory_order_relaxed ); }
   void allocationDec() { live_.fetch_sub( 1, std::memory_order_relaxed ); }

 private:
   std::atomic<U64> live_{ 0 };
};

} // namespace Weft
