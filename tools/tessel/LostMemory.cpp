// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/LostMemory.h"

#include "tools/tessel/Failure.h"

#include <csignal>
#include <string_view>

#include <unistd.h>

namespace TesselTool {

namespace {

constexpr std::string_view explanation =
   "tessel: the chunk's memory is gone: somebody has made the chunk smaller, or the system has no "
   "memory left for it; stop who uses it, make room, and create it anew\n";

/// Calls nothing but what a signal handler may call.
extern "C" void explain( int signal, siginfo_t* cause, void* /*context*/ ) {
   if ( cause->si_code != BUS_ADRERR ) { // sent by somebody, or another fault
      ::signal( signal, SIG_DFL );
      ::raise( signal );
      return;
   }
   [[maybe_unused]] auto const written =
      ::write( STDERR_FILENO, explanation.data(), explanation.size() );
   ::_exit( static_cast<int>( ExitStatus::refused ) );
}

} // namespace

void explainLostMemory() {
   struct sigaction action {};
   action.sa_sigaction = explain;
   action.sa_flags = SA_SIGINFO;
   ::sigemptyset( &action.sa_mask );
   ::sigaction( SIGBUS, &action, nullptr );
}

} // namespace TesselTool
