// SPDX-License-Identifier: Apache-2.0
#pragma once

/// What the verbs do. Each prints its answer in plain form or as JSON, and returns the exit status
/// where an answer was given; Failure where none can be, BrokenPipe when nobody reads it.
///
/// Threads: one command is one thread; std::cin is read by load.

#include "tools/tessel/Failure.h"

#include <iosfwd>
#include <string>
#include <vector>

namespace TesselTool {

/// The words of a command line.
struct Arguments {
   std::string plan; ///< a file; for show also the name of a chunk
   std::string table;
   std::string chip;
   std::string key;
   std::string result;
   std::string file;
   std::vector<std::string> data;
   bool hasTable = false;
   bool hasChip = false;
   bool keepGoing = false;
};

/// Where a command answers.
struct Context {
   std::ostream& out;
   std::ostream& err;
   bool json = false;
};

ExitStatus show( Arguments const& arguments, Context const& context );
ExitStatus dump( Arguments const& arguments, Context const& context );
ExitStatus lookup( Arguments const& arguments, Context const& context );
ExitStatus update( Arguments const& arguments, Context const& context );
ExitStatus deleteEntry( Arguments const& arguments, Context const& context );
ExitStatus load( Arguments const& arguments, Context const& context );
ExitStatus clear( Arguments const& arguments, Context const& context );
ExitStatus demo( Arguments const& arguments, Context const& context );

/// One line on `err`: the tool's name and the text, printable.
void printError( std::ostream& err, std::string const& text );

} // namespace TesselTool
