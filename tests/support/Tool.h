// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The command-line tool as its users meet it: a process, files, and a chunk in shared memory.
///
/// Threads: one test at a time.

#include "Weft/Types.h"

#include <string>
#include <vector>

#include <sys/types.h>

namespace TestSupport {

struct Answer {
   int status = 0; ///< the exit status; 128 and the signal where one ended the process
   std::string out;
   std::string err;
};

/// A folder and a chunk name that nobody else uses; both, and the chunk, go with this object.
class ToolBench {
 public:
   ToolBench();
   ToolBench( ToolBench const& ) = delete;
   ToolBench& operator=( ToolBench const& ) = delete;
   ~ToolBench();

   std::string const& chunk() const { return chunk_; }
   /// A file of this bench; returns its path.
   std::string file( std::string const& name, std::string const& contents ) const;
   std::string path( std::string const& name ) const { return folder_ + '/' + name; }

   /// A plan over chunk() of `size` bytes with these tables, in JSON.
   std::string plan( std::string const& tables, U64 size = 65536 ) const;
   /// The same as a file; returns its path.
   std::string planFile( std::string const& tables, U64 size = 65536 ) const {
      return file( "plan.json", plan( tables, size ) );
   }

   /// Every byte of the chunk; "(missing)" when there is none.
   std::string bytes() const;

   /// Runs the tool to its end.
   Answer run( std::vector<std::string> const& words, std::string const& input = {} ) const;
   /// Starts the tool with its output in the files out and err of the bench.
   pid_t start( std::vector<std::string> const& words, std::string const& input = {} ) const;
   /// Waits for a tool that was started.
   Answer finish( pid_t tool ) const;

 private:
   std::string folder_;
   std::string chunk_;
};

/// Replaces this process by the tool.
[[noreturn]] void becomeTool( std::vector<std::string> const& words );

std::string contentsOf( std::string const& path );

} // namespace TestSupport
