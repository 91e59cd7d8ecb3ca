// SPDX-License-Identifier: Apache-2.0
#pragma once

/// What must still happen when a signal ends the process on the spot.
///
/// Threads: once per process.

#include <termios.h>

namespace TesselTool {

/// From now on a chunk that is cut short while it is mapped, which answers an access with SIGBUS,
/// ends the process with one line and ExitStatus::refused.
void answerCutChunks();

/// A terminal as it has to be left: its settings, and what is to be written to it first.
struct TerminalState {
   int descriptor;
   termios settings;
   char const* farewell; ///< outlives the state
};

/// What is restored when the process crashes from now on; null: nothing. It outlives that.
void restoreOnCrash( TerminalState const* state );

/// Writes the farewell and restores the settings; may be called from a signal handler.
void restore( TerminalState const& state );

} // namespace TesselTool
