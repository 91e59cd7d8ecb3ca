// SPDX-License-Identifier: Apache-2.0
#pragma once

/// How a command ends when it cannot do what it was asked for.
///
/// Threads: plain values.

#include <stdexcept>
#include <string>

namespace TesselTool {

enum class ExitStatus : int {
   done = 0,
   refused = 1, ///< something asked for was absent, refused, or wrong in the data
   usage = 2    ///< the command line itself is wrong
};

/// Ends a command. what() is one line: what is wrong, where, and what to do.
class Failure : public std::runtime_error {
 public:
   explicit Failure( std::string const& line, ExitStatus status = ExitStatus::refused )
         : std::runtime_error( line ), status_( status ) {}

   ExitStatus status() const { return status_; }

 private:
   ExitStatus status_;
};

} // namespace TesselTool
