// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Child processes that a test stops between any two instructions, and memory to share with them.
///
/// Threads: for tests that run on the only thread of their process.

#include "Weft/Types.h"

#include <csignal>
#include <new>

#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

namespace TestSupport {

/// One `T` in memory that children of this process share with it.
template<class T>
class SharedPage {
 public:
   SharedPage()
         : value_( new( ::mmap(
              nullptr, sizeof( T ), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0 ) )
                      T ) {}
   ~SharedPage() { ::munmap( value_, sizeof( T ) ); }
   SharedPage( SharedPage const& ) = delete;
   SharedPage& operator=( SharedPage const& ) = delete;

   T& operator*() const { return *value_; }
   T* operator->() const { return value_; }

 private:
   T* value_;
};

/// A child that runs `work` again and again, stopping itself before each time.
class SteppedChild {
 public:
   template<class Work>
   explicit SteppedChild( Work const& work ) : child_( ::fork() ) {
      if ( child_ == 0 ) {
         if ( ::ptrace( PTRACE_TRACEME, 0, nullptr, nullptr ) != 0 ) {
            ::_exit( 1 );
         }
         for ( ;; ) {
            ::raise( SIGSTOP );
            work();
         }
      }
      traced_ = stopSignal() == SIGSTOP;
   }
   ~SteppedChild() {
      ::kill( child_, SIGKILL );
      ::waitpid( child_, nullptr, 0 );
   }
   SteppedChild( SteppedChild const& ) = delete;
   SteppedChild& operator=( SteppedChild const& ) = delete;

   /// Whether this system lets a process be traced; nothing else works otherwise.
   bool traced() const { return traced_; }
   /// One instruction; false when the work is over.
   bool step() { return resumed( PTRACE_SINGLESTEP ) != SIGSTOP; }
   /// All that is left of the work.
   void finish() { resumed( PTRACE_CONT ); }
   /// Until the work is about to make this call of the system; false when it is over before.
   bool runTo( U64 call ) {
      ::ptrace( PTRACE_SETOPTIONS, child_, nullptr, PTRACE_O_TRACESYSGOOD ); // tells of calls
      while ( resumed( PTRACE_SYSCALL ) != SIGSTOP ) {
         __ptrace_syscall_info told{};
         ::ptrace( PTRACE_GET_SYSCALL_INFO, child_, sizeof told, &told );
         if ( told.op == PTRACE_SYSCALL_INFO_ENTRY && told.entry.nr == call ) {
            return true;
         }
      }
      return false;
   }

 private:
   int resumed( __ptrace_request how ) {
      ::ptrace( how, child_, nullptr, nullptr );
      return stopSignal();
   }
   int stopSignal() {
      int status = 0;
      ::waitpid( child_, &status, 0 );
      return WIFSTOPPED( status ) ? WSTOPSIG( status ) : SIGSTOP;
   }

   pid_t child_;
   bool traced_ = false;
};

/// Runs `work` in a child, one instruction at a time, and calls `look` after each. False when no
/// process may be traced here.
template<class Work, class Look>
bool stepThrough( Work const& work, Look const& look ) {
   SteppedChild child( work );
   while ( child.traced() && child.step() ) {
      look();
   }
   return child.traced();
}

} // namespace TestSupport
