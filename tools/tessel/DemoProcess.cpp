// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/DemoProcess.h"

#include "tools/tessel/CommandLine.h"
#include "tools/tessel/Interrupts.h"
#include "tools/tessel/Output.h"
#include "tools/tessel/Text.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <exception>
#include <iostream>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace TesselTool {

namespace {

[[noreturn]] void refuse( std::string_view what ) {
   throw Failure( joined( what, ": ", std::generic_category().message( errno ) ) );
}

[[noreturn]] void beChild( pid_t parent, std::function<ExitStatus()> const& work ) {
   ::prctl( PR_SET_PDEATHSIG, SIGKILL );
   ExitStatus status = ExitStatus::refused;
   if ( ::getppid() == parent ) { // else it died before it could be asked for that
      try {
         status = answering( std::cerr, work );
      } catch ( std::exception const& ) {
         // Nobody reads the output any more: the parent finds that out by itself.
         status = ExitStatus::refused;
      }
   }
   ::_exit( static_cast<int>( status ) );
}

pid_t startedWith( std::function<ExitStatus()> const& work ) {
   pid_t const parent = ::getpid();
   pid_t const child = ::fork();
   if ( child < 0 ) {
      refuse( "no process can be started" );
   }
   if ( child == 0 ) {
      beChild( parent, work );
   }
   return child;
}

} // namespace

ChildProcess::ChildProcess( std::function<ExitStatus()> const& work )
      : id_( startedWith( work ) ) {}

ChildProcess::~ChildProcess() {
   if ( ended_ ) {
      return;
   }
   ::kill( id_, SIGKILL );
   while ( ::waitpid( id_, nullptr, 0 ) < 0 && errno == EINTR ) {}
}

bool ChildProcess::kill() {
   ::kill( id_, SIGKILL );
   int const status = wait();
   return WIFSIGNALED( status ) && WTERMSIG( status ) == SIGKILL;
}

bool ChildProcess::succeeded() {
   int const status = wait();
   return WIFEXITED( status ) && WEXITSTATUS( status ) == static_cast<int>( ExitStatus::done );
}

int ChildProcess::wait() {
   int status = 0;
   while ( ::waitpid( id_, &status, 0 ) < 0 ) {
      if ( errno != EINTR ) {
         refuse( "a process cannot be waited for" );
      }
      CatchInterrupts::check();
   }
   ended_ = true;
   return status;
}

NumberPipe::NumberPipe() {
   std::array<int, 2> ends{};
   if ( ::pipe2( ends.data(), O_CLOEXEC ) != 0 ) {
      refuse( "no pipe can be made" );
   }
   readEnd_ = ends[ 0 ];
   writeEnd_ = ends[ 1 ];
   ::fcntl( writeEnd_, F_SETPIPE_SZ, 1 ); // as small as the system can
   int const bytes = ::fcntl( writeEnd_, F_GETPIPE_SZ );
   if ( bytes < 0 ) {
      refuse( "a pipe does not say its size" );
   }
   capacity_ = static_cast<U32>( bytes ) / U32{ sizeof( U32 ) };
}

NumberPipe::~NumberPipe() {
   closeEnd( readEnd_ );
   closeEnd( writeEnd_ );
}

void NumberPipe::closeEnd( int& end ) {
   if ( end >= 0 ) {
      ::close( std::exchange( end, -1 ) );
   }
}

void NumberPipe::writerOnly() {
   closeEnd( readEnd_ );
}

void NumberPipe::readerOnly() {
   closeEnd( writeEnd_ );
}

void NumberPipe::write( U32 number ) const {
   // So few bytes are written as a whole or not at all.
   while ( ::write( writeEnd_, &number, sizeof number ) < 0 ) {
      if ( errno != EINTR ) {
         refuse( "a pipe cannot be written" );
      }
   }
}

std::optional<U32> NumberPipe::read() const {
   U32 number = 0;
   for ( ;; ) {
      CatchInterrupts::check();
      ssize_t const bytes = ::read( readEnd_, &number, sizeof number );
      if ( bytes >= 0 ) {
         return bytes == sizeof number ? std::optional( number ) : std::nullopt;
      }
      if ( errno != EINTR ) {
         refuse( "a pipe cannot be read" );
      }
   }
}

} // namespace TesselTool
