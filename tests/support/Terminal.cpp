// SPDX-License-Identifier: Apache-2.0
#include "support/Terminal.h"

#include "support/Tool.h"

#include <array>
#include <csignal>
#include <cstdlib>

#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace TestSupport {

Terminal::Terminal( std::vector<std::string> const& words ) {
   winsize size{ .ws_row = 24, .ws_col = 100, .ws_xpixel = 0, .ws_ypixel = 0 };
   tool_ = ::forkpty( &master_, nullptr, nullptr, &size );
   if ( tool_ == 0 ) {
      ::setenv( "TERM", "xterm", 1 );
      ::setenv( "LC_ALL", "C.UTF-8", 1 );
      ::unsetenv( "NO_COLOR" );
      becomeTool( words );
   }
}

Terminal::~Terminal() {
   if ( tool_ > 0 ) {
      ::kill( tool_, SIGKILL );
      ::waitpid( tool_, nullptr, 0 );
   }
   ::close( master_ );
}

void Terminal::type( std::string const& keys ) const {
   if ( ::write( master_, keys.data(), keys.size() ) < 0 ) {
      std::abort();
   }
}

void Terminal::signal( int number ) const {
   ::kill( tool_, number );
}

void Terminal::resize( unsigned short rows ) const {
   winsize size{ .ws_row = rows, .ws_col = 100, .ws_xpixel = 0, .ws_ypixel = 0 };
   ::ioctl( master_, TIOCSWINSZ, &size );
}

bool Terminal::readMore() {
   constexpr int halfAMinute = 30000;
   pollfd master{ .fd = master_, .events = POLLIN, .revents = 0 };
   std::array<char, 4096> bytes{};
   ssize_t const count =
      ::poll( &master, 1, halfAMinute ) > 0 ? ::read( master_, bytes.data(), bytes.size() ) : 0;
   if ( count <= 0 ) {
      return false;
   }
   output_.append( bytes.data(), static_cast<std::size_t>( count ) );
   return true;
}

bool Terminal::shows( std::string const& text ) {
   constexpr std::size_t muchElse = 1 << 18; // as a watch draws that never comes to it
   do {
      auto const at = output_.find( text, seen_ );
      if ( at != std::string::npos ) {
         seen_ = at + text.size();
         return true;
      }
   } while ( output_.size() - seen_ < muchElse && readMore() );
   return false;
}

int Terminal::finish() {
   while ( readMore() ) {}
   ::kill( tool_, SIGKILL ); // one that has fallen silent without an end
   int status = 0;
   ::waitpid( tool_, &status, 0 );
   tool_ = -1;
   return WIFEXITED( status ) ? WEXITSTATUS( status ) : 128 + WTERMSIG( status );
}

bool Terminal::isAsAShellLeftIt() const {
   termios settings{};
   ::tcgetattr( master_, &settings );
   return ( settings.c_lflag & ICANON ) != 0 && ( settings.c_lflag & ECHO ) != 0;
}

} // namespace TestSupport
