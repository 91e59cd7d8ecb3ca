// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Processes for the demo, and the pipe through which one tells another how far it got.
///
/// What waits here throws Interrupted when a signal of CatchInterrupts comes meanwhile, and Failure
/// when the system refuses.
///
/// Threads: for processes of one thread.

#include "Weft/Types.h"
#include "tools/tessel/Failure.h"

#include <functional>
#include <optional>

#include <sys/types.h>

namespace TesselTool {

/// A process of its own that is a copy of this one. It dies with its parent, and is killed when
/// this object goes before it has ended.
class ChildProcess {
 public:
   /// Starts the process: it does `work`, answers what it throws with a line on standard error, and
   /// ends without unwinding anything of its parent's. Flush the streams first: it has copies.
   explicit ChildProcess( std::function<ExitStatus()> const& work );
   ChildProcess( ChildProcess const& ) = delete;
   ChildProcess& operator=( ChildProcess const& ) = delete;
   ~ChildProcess();

   pid_t id() const { return id_; }
   /// SIGKILL, and waits. Whether that is what the process died of.
   bool kill();
   /// Waits for the process to end by itself. Whether it ended with ExitStatus::done.
   bool succeeded();

 private:
   int wait();

   pid_t id_;
   bool ended_ = false;
};

/// Numbers from one process to another. The pipe holds so few that the writer cannot run far ahead
/// of the reader; they outlive their writer, also a killed one.
class NumberPipe {
 public:
   NumberPipe();
   NumberPipe( NumberPipe const& ) = delete;
   NumberPipe& operator=( NumberPipe const& ) = delete;
   ~NumberPipe();

   /// Numbers that fit into the pipe.
   U32 capacity() const { return capacity_; }

   /// The writer calls this first, the reader readerOnly; each gives up the other end.
   void writerOnly();
   void readerOnly();

   /// Waits for room.
   void write( U32 number ) const;
   /// Waits for a number; nothing when there are none left and no writer.
   std::optional<U32> read() const;

 private:
   static void closeEnd( int& end );

   int readEnd_ = -1;
   int writeEnd_ = -1;
   U32 capacity_ = 0;
};

} // namespace TesselTool
