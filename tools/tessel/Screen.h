// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The terminal as one changing page, and waiting while it is shown.
///
/// Threads: one per process, which has one thread.

#include "tools/tessel/Crash.h"
#include "tools/tessel/Interrupts.h"

#include <array>
#include <chrono>
#include <csignal>
#include <string>
#include <vector>

namespace TesselTool {

/// While it exists, signals come only while wait() waits, so that none is missed before it. Those
/// of CatchInterrupts end the wait with Interrupted.
class SignalWait {
 public:
   SignalWait();
   SignalWait( SignalWait const& ) = delete;
   SignalWait& operator=( SignalWait const& ) = delete;
   ~SignalWait();

   enum class Event {
      time,  ///< it is over
      input, ///< there is something to read on standard input
      size,  ///< the window has another size
      stop,  ///< the process was asked to stop: see stopHere
      resume ///< it was stopped and goes on
   };

   /// Waits until `deadline`, and for input where it is wanted.
   Event wait( std::chrono::steady_clock::time_point deadline, bool wantsInput ) const;
   /// Stops the process as SIGTSTP does by itself; returns when it goes on.
   static void stopHere();

 private:
   static constexpr std::array<int, 3> signals{ SIGTSTP, SIGCONT, SIGWINCH };

   CatchInterrupts interrupts_;
   std::array<struct sigaction, signals.size()> former_{};
   sigset_t formerMask_{};
};

/// The terminal's other page, without a cursor, and keys as they are pressed. The terminal is as it
/// was when this object goes, and when the process crashes.
class Screen {
 public:
   Screen();
   Screen( Screen const& ) = delete;
   Screen& operator=( Screen const& ) = delete;
   ~Screen() { leave(); }

   /// Whether there is a terminal to read from and to write to, which can be drawn on.
   static bool isThere();

   /// The lines from the top; where they do not fit, as many as do, how many are missing, and the
   /// last one.
   static void show( std::vector<std::string> const& lines );

   /// Goes back to the terminal as it was, and comes again.
   void leave();
   void enter();

 private:
   explicit Screen( TerminalState const& former ) : former_( former ) {}

   TerminalState former_;
};

} // namespace TesselTool
