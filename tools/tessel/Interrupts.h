// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Signals that ask a command to end, as exceptions, so that it leaves nothing behind.
///
/// Threads: one CatchInterrupts at a time, in a process of one thread.

#include <array>
#include <csignal>
#include <exception>

namespace TesselTool {

/// The command was asked to end.
class Interrupted : public std::exception {
 public:
   explicit Interrupted( int signal ) : signal_( signal ) {}
   int signal() const { return signal_; }
   char const* what() const noexcept override { return "interrupted"; }

 private:
   int signal_;
};

/// While it exists, SIGINT, SIGTERM, SIGHUP and SIGQUIT do not end the process: system calls that
/// wait return EINTR, and check() throws.
class CatchInterrupts {
 public:
   CatchInterrupts();
   CatchInterrupts( CatchInterrupts const& ) = delete;
   CatchInterrupts& operator=( CatchInterrupts const& ) = delete;
   ~CatchInterrupts() { restore(); }

   /// Interrupted, when one of the signals has come.
   static void check();
   /// Whether one has come.
   static bool isCaught();
   /// Waits until the file has something to read, or its end; false when one of the signals has
   /// come, be it just before the waiting began.
   static bool waitForInput( int file );
   /// The signals act as they did before, at once: for a child process.
   void restore() const;

 private:
   static constexpr std::array<int, 4> signals{ SIGINT, SIGTERM, SIGHUP, SIGQUIT };

   std::array<struct sigaction, signals.size()> former_{};
};

} // namespace TesselTool
