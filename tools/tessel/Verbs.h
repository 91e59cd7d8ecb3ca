// SPDX-License-Identifier: Apache-2.0
#pragma once

/// What the verbs do. Each prints its answer in plain form or as JSON, and returns the exit status
/// where an answer was given; Failure where none can be, BrokenPipe when nobody reads it,
/// Interrupted when a signal asked it to end.
///
/// Threads: one command is one thread; std::cin is read by load.

#include "tools/tessel/Failure.h"

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace TesselTool {

/// The words of a command line.
struct Arguments {
   std::string plan; ///< a file; for verbs that read, also the name of a chunk
   std::string table;
   std::string chip;
   std::string key;
   std::string result;
   std::string file;

   // What may be left out.
   std::optional<std::string> someTable;
   std::optional<std::string> someChip;
   std::optional<std::string> keyLength;
   std::optional<std::string> resultLength;
   std::optional<std::string> form;
   std::optional<std::string> out;
   std::optional<std::string> interval;
   std::optional<std::string> count;
   std::vector<std::string> data;
   bool keepGoing = false;
   bool force = false;
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
ExitStatus verify( Arguments const& arguments, Context const& context );
ExitStatus map( Arguments const& arguments, Context const& context );
ExitStatus watch( Arguments const& arguments, Context const& context );
ExitStatus init( Arguments const& arguments, Context const& context );
ExitStatus remove( Arguments const& arguments, Context const& context );
ExitStatus demo( Arguments const& arguments, Context const& context );

/// One line on `err`: the tool's name and the text, printable.
void printError( std::ostream& err, std::string const& text );

} // namespace TesselTool
