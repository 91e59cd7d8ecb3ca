// SPDX-License-Identifier: Apache-2.0
#pragma once

/// What could stand at the end of a command line that is being typed. The shell's part
/// (completion/tessel.bash) asks for it with `tessel __complete WORD...`.
///
/// Threads: plain values.

#include "tools/tessel/Failure.h"

#include <iosfwd>
#include <string>
#include <vector>

namespace TesselTool {

inline constexpr std::string_view completionVerb = "__complete";

/// Asks the shell for names of files beside the candidates.
inline constexpr std::string_view filesCandidate = ":files";

/// Candidates for the last of the words typed, which follow the tool's name; the last may be empty.
/// Where a plan or a chunk is named among them, its tables are asked for by reading it.
std::vector<std::string> candidates( std::vector<std::string> const& typed );

/// Prints them, one per line. Never fails: a shell that is asking wants no error.
ExitStatus complete( std::vector<std::string> const& typed, std::ostream& out );

} // namespace TesselTool
