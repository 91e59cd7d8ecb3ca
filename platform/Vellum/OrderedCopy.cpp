// SPDX-License-Identifier: Apache-2.0
#include "Vellum/OrderedCopy.h"

#include <ctime>

#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Vellum {

void announceWriter() {
   ::syscall( SYS_membarrier, MEMBARRIER_CMD_REGISTER_GLOBAL_EXPEDITED, 0, 0 );
}

void detail::awaitStores() {
   // Every processor that runs an announced writer finishes its stores; one that has ceased to run
   // one did so then.
   if ( ::syscall( SYS_membarrier, MEMBARRIER_CMD_GLOBAL_EXPEDITED, 0, 0 ) == 0 ) {
      return;
   }
   // Not offered, or not allowed here. A hundred times as long as a store was seen to take.
   timespec const aMillisecond{ .tv_sec = 0, .tv_nsec = 1000000 };
   ::nanosleep( &aMillisecond, nullptr );
}

} // namespace Vellum
