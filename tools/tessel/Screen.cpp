// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Screen.h"

#include "tools/tessel/Failure.h"
#include "tools/tessel/Output.h"
#include "tools/tessel/Style.h"
#include "tools/tessel/Text.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

#include <poll.h>
#include <unistd.h>

namespace TesselTool {

namespace {

// The other page, no cursor, lines cut at the edge; and back.
constexpr std::string_view greeting = "\x1b[?1049h\x1b[?25l\x1b[?7l";
constexpr char const* farewell = "\x1b[?7h\x1b[?25h\x1b[?1049l";

volatile std::sig_atomic_t stopped = 0;
volatile std::sig_atomic_t resumed = 0;
volatile std::sig_atomic_t resized = 0;

extern "C" void rememberTerminalSignal( int signal ) {
   ( signal == SIGTSTP ? stopped : signal == SIGCONT ? resumed : resized ) = 1;
}

bool take( std::sig_atomic_t volatile& flag ) {
   bool const was = flag != 0;
   flag = 0;
   return was;
}

void write( std::string_view text ) {
   OutputStream out( STDOUT_FILENO );
   out << text << std::flush;
}

std::vector<std::string> fitting( std::vector<std::string> lines, std::size_t rows ) {
   if ( lines.size() <= rows ) {
      return lines;
   }
   std::string const last = lines.back();
   std::size_t const kept = rows < 2 ? 0 : rows - 2;
   std::size_t const missing = lines.size() - kept - 1;
   lines.resize( kept );
   if ( rows >= 2 ) {
      lines.push_back( counted( missing, "more line", "more lines" ) + ", in a higher window" );
   }
   lines.push_back( last );
   return lines;
}

timespec until( std::chrono::steady_clock::time_point deadline ) {
   using namespace std::chrono;
   auto const left = std::max( deadline - steady_clock::now(), steady_clock::duration::zero() );
   auto const whole = duration_cast<seconds>( left );
   return { .tv_sec = whole.count(),
            .tv_nsec = duration_cast<nanoseconds>( left - whole ).count() };
}

TerminalState stateNow() {
   TerminalState state{ .descriptor = STDIN_FILENO, .settings = {}, .farewell = farewell };
   if ( ::tcgetattr( STDIN_FILENO, &state.settings ) != 0 ) {
      throw Failure( joined( "the terminal does not tell its settings: ",
                             std::generic_category().message( errno ) ) );
   }
   return state;
}

} // namespace

SignalWait::SignalWait() {
   sigset_t held;
   ::sigemptyset( &held );
   for ( int const signal : { SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGCONT, SIGWINCH } ) {
      ::sigaddset( &held, signal );
   }
   ::pthread_sigmask( SIG_BLOCK, &held, &formerMask_ );
   struct sigaction action {};
   action.sa_handler = rememberTerminalSignal;
   ::sigemptyset( &action.sa_mask );
   for ( std::size_t i = 0; i < signals.size(); ++i ) {
      ::sigaction( signals[ i ], &action, &former_[ i ] );
   }
}

SignalWait::~SignalWait() {
   for ( std::size_t i = 0; i < signals.size(); ++i ) {
      ::sigaction( signals[ i ], &former_[ i ], nullptr );
   }
   ::pthread_sigmask( SIG_SETMASK, &formerMask_, nullptr );
}

SignalWait::Event SignalWait::wait( std::chrono::steady_clock::time_point deadline,
                                    bool wantsInput ) const {
   pollfd input{ .fd = wantsInput ? STDIN_FILENO : -1, .events = POLLIN, .revents = 0 };
   timespec const left = until( deadline );
   int const ready = ::ppoll( &input, 1, &left, &formerMask_ );
   CatchInterrupts::check();
   if ( ready < 0 && errno != EINTR ) {
      throw Failure( joined( "waiting failed: ", std::generic_category().message( errno ) ) );
   }
   if ( take( stopped ) ) {
      return Event::stop;
   }
   if ( take( resumed ) ) {
      return Event::resume;
   }
   if ( ready > 0 ) {
      return Event::input;
   }
   return take( resized ) || ready < 0 ? Event::size : Event::time;
}

void SignalWait::stopHere() {
   struct sigaction usual {};
   struct sigaction ours {};
   usual.sa_handler = SIG_DFL;
   ::sigemptyset( &usual.sa_mask );
   ::sigaction( SIGTSTP, &usual, &ours );
   sigset_t stop;
   ::sigemptyset( &stop );
   ::sigaddset( &stop, SIGTSTP );
   ::raise( SIGTSTP );
   ::pthread_sigmask( SIG_UNBLOCK, &stop, nullptr ); // here the process stops
   ::pthread_sigmask( SIG_BLOCK, &stop, nullptr );
   ::sigaction( SIGTSTP, &ours, nullptr );
}

bool Screen::isThere() {
   return ::isatty( STDIN_FILENO ) == 1 && ::isatty( STDOUT_FILENO ) == 1 && !terminalIsDumb();
}

// From the other constructor on there is a Screen, which leaves when entering fails.
Screen::Screen() : Screen( stateNow() ) {
   enter();
}

void Screen::enter() {
   termios settings = former_.settings;
   settings.c_lflag &= ~static_cast<tcflag_t>( ICANON | ECHO ); // signals by key stay
   restoreOnCrash( &former_ );
   ::tcsetattr( STDIN_FILENO, TCSANOW, &settings );
   write( greeting );
}

void Screen::leave() {
   restore( former_ );
   restoreOnCrash( nullptr );
}

void Screen::show( std::vector<std::string> const& lines ) {
   std::string page = "\x1b[H";
   std::string_view before;
   for ( std::string const& line : fitting( lines, terminalSize().rows ) ) {
      page += joined( before, line, "\x1b[K" );
      before = "\r\n";
   }
   write( page + "\x1b[J" );
}

} // namespace TesselTool
