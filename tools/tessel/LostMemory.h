// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Memory that goes away under a command: a chunk that somebody makes smaller while it is mapped, or
/// for which the system has no page left.
///
/// Threads: once per process.

namespace TesselTool {

/// From here on, an access to such memory ends the process with one line on standard error and exit
/// status 1 instead of by SIGBUS. Output that was not flushed is dropped.
void explainLostMemory();

} // namespace TesselTool
