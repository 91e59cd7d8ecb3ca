// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Crash.h"

#include "tools/tessel/Failure.h"

#include <array>
#include <atomic>
#include <csignal>
#include <string_view>

#include <unistd.h>

namespace TesselTool {

namespace {

std::atomic<TerminalState const*> stateToRestore = nullptr;

void writeAll( int descriptor, std::string_view text ) {
   while ( !text.empty() ) {
      ssize_t const written = ::write( descriptor, text.data(), text.size() );
      if ( written <= 0 ) {
         return;
      }
      text.remove_prefix( static_cast<std::size_t>( written ) );
   }
}

void restoreTerminal() {
   if ( TerminalState const* const state = stateToRestore.exchange( nullptr ) ) {
      restore( *state );
   }
}

extern "C" void endOnCutChunk( int ) {
   restoreTerminal();
   writeAll(
      STDERR_FILENO,
      "tessel: the chunk's memory is gone: somebody has made the chunk smaller, or the system "
      "has no memory left for it; make room, remove the chunk and start its agent again\n" );
   ::_exit( static_cast<int>( ExitStatus::refused ) );
}

/// The signal's own action is back by now and ends the process.
extern "C" void endOnCrash( int signal ) {
   restoreTerminal();
   ::raise( signal );
}

void handle( int signal, void ( *handler )( int ) ) {
   struct sigaction action {};
   action.sa_handler = handler;
   action.sa_flags = static_cast<int>( SA_RESETHAND );
   ::sigemptyset( &action.sa_mask );
   ::sigaction( signal, &action, nullptr );
}

} // namespace

void answerCutChunks() {
   handle( SIGBUS, endOnCutChunk );
}

void restoreOnCrash( TerminalState const* state ) {
   stateToRestore = state;
   for ( int const signal : { SIGSEGV, SIGABRT, SIGILL, SIGFPE } ) {
      handle( signal, state ? endOnCrash : SIG_DFL );
   }
}

void restore( TerminalState const& state ) {
   writeAll( state.descriptor, state.farewell );
   ::tcsetattr( state.descriptor, TCSANOW, &state.settings );
}

} // namespace TesselTool
