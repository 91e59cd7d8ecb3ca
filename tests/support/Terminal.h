// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The tool at a terminal of its own.
///
/// Threads: one test at a time.

#include <string>
#include <vector>

#include <sys/types.h>
#include <termios.h>

namespace TestSupport {

class Terminal {
 public:
   /// Starts the tool at a terminal of 100 columns and 24 rows, with colours and Unicode.
   explicit Terminal( std::vector<std::string> const& words );
   Terminal( Terminal const& ) = delete;
   Terminal& operator=( Terminal const& ) = delete;
   ~Terminal();

   void type( std::string const& keys ) const;
   void signal( int number ) const;
   void resize( unsigned short rows ) const;
   /// Reads until `text` has come, since the last time; false when the tool ended before, when
   /// nothing came for half a minute, or a quarter of a megabyte came without it.
   bool shows( std::string const& text );
   /// Waits for the end: the exit status, or 128 and the signal. SIGKILL is also that of a tool that
   /// was silent for half a minute.
   int finish();

   /// All that came.
   std::string const& output() const { return output_; }
   /// Whether keys are echoed and lines edited, as a shell needs it.
   bool isAsAShellLeftIt() const;

 private:
   bool readMore();

   int master_ = -1;
   pid_t tool_ = -1;
   std::string output_;
   std::size_t seen_ = 0;
};

} // namespace TestSupport
