// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Progress.h"

#include "tools/tessel/Style.h"
#include "tools/tessel/Text.h"

#include <cmath>
#include <ostream>

#include <unistd.h>

namespace TesselTool {

std::string progressText( Work const& work,
                          U64 done,
                          std::optional<U64> total,
                          std::chrono::duration<double> elapsed ) {
   double const rate = static_cast<double>( done ) / std::max( elapsed.count(), 1e-9 );
   std::string const speed =
      joined( ", ", grouped( static_cast<U64>( std::llround( rate ) ) ), " a second" );
   if ( !total ) {
      return joined( work.doing, counted( done, work.one, work.many ), speed );
   }
   std::string const text =
      joined( work.doing, grouped( done ), " of ", counted( *total, work.one, work.many ) );
   if ( done == 0 || done > *total ) {
      return text;
   }
   double const left = static_cast<double>( *total - done ) / rate;
   return joined( text,
                  ", ",
                  done * 100 / *total,
                  " %",
                  speed,
                  ", ",
                  grouped( static_cast<U64>( std::ceil( left ) ) ),
                  " s left" );
}

Progress::Progress( std::ostream& err, Work const& work, std::optional<U64> total )
      : err_( err ), work_( work ), total_( total ),
        shown_( ::isatty( STDERR_FILENO ) == 1 && !terminalIsDumb() ) {}

Progress::~Progress() {
   if ( drawn_ ) {
      err_ << "\r\x1b[K" << std::flush;
   }
}

void Progress::doneIs( U64 done ) {
   if ( !shown_ || Clock::now() < next_ ) {
      return;
   }
   next_ = Clock::now() + std::chrono::milliseconds( 100 );
   drawn_ = true;
   err_ << '\r' << progressText( work_, done, total_, Clock::now() - start_ ) << "\x1b[K"
        << std::flush;
}

} // namespace TesselTool
