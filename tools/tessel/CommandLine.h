// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The command `tessel` as a whole: words in, exit status out.
///
/// Threads: once per process; it sets how contract failures and broken pipes end.

#include "tools/tessel/Failure.h"

#include <functional>
#include <iosfwd>

namespace TesselTool {

/// Runs the command that the words name. An error is one line on standard error.
int run( int argc, char const* const* argv );

/// Runs `action`; what it throws becomes one line on `err` and an exit status. BrokenPipe and
/// Interrupted pass through.
ExitStatus answering( std::ostream& err, std::function<ExitStatus()> const& action );

} // namespace TesselTool
