// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Interrupts.h"

#include <cerrno>

#include <poll.h>

namespace TesselTool {

namespace {

volatile std::sig_atomic_t caught = 0;

extern "C" void rememberSignal( int signal ) {
   caught = signal;
}

} // namespace

CatchInterrupts::CatchInterrupts() {
   caught = 0;
   struct sigaction action {};
   action.sa_handler = rememberSignal;
   ::sigemptyset( &action.sa_mask );
   for ( std::size_t i = 0; i < signals.size(); ++i ) {
      ::sigaction( signals[ i ], nullptr, &former_[ i ] );
      if ( former_[ i ].sa_handler != SIG_IGN ) { // such as under nohup
         ::sigaction( signals[ i ], &action, nullptr );
      }
   }
}

bool CatchInterrupts::isCaught() {
   return caught != 0;
}

bool CatchInterrupts::waitForInput( int file ) {
   sigset_t held;
   sigset_t former;
   ::sigemptyset( &held );
   for ( int const signal : signals ) {
      ::sigaddset( &held, signal );
   }
   ::pthread_sigmask( SIG_BLOCK, &held, &former );
   pollfd input{ .fd = file, .events = POLLIN, .revents = 0 };
   while ( !isCaught() && ::ppoll( &input, 1, nullptr, &former ) < 0 && errno == EINTR ) {}
   ::pthread_sigmask( SIG_SETMASK, &former, nullptr );
   return !isCaught();
}

void CatchInterrupts::check() {
   if ( isCaught() ) {
      throw Interrupted( caught );
   }
}

void CatchInterrupts::restore() const {
   for ( std::size_t i = 0; i < signals.size(); ++i ) {
      ::sigaction( signals[ i ], &former_[ i ], nullptr );
   }
}

} // namespace TesselTool
