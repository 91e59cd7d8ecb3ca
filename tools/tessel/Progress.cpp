// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Progress.h"

#include "tools/tessel/Text.h"

#include <cmath>
#include <ostream>

#include <unistd.h>

namespace TesselTool {

std::string progressText( U64 done, U64 total, std::chrono::duration<double> elapsed ) {
   double const rate = static_cast<double>( done ) / std::max( elapsed.count(), 1e-9 );
   std::string text = joined( grouped( done ), " of ", counted( total, "entry", "entries" ) );
   if ( done == 0 || done > total ) {
      return text;
   }
   double const left = static_cast<double>( total - done ) / rate;
   return joined( text,
                  ", ",
                  done * 100 / total,
                  " %, ",
                  grouped( static_cast<U64>( std::llround( rate ) ) ),
                  " a second, ",
                  grouped( static_cast<U64>( std::ceil( left ) ) ),
                  " s left" );
}

Progress::Progress( std::ostream& err, U64 total )
      : err_( err ), total_( total ), shown_( ::isatty( STDERR_FILENO ) == 1 ) {}

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
   err_ << '\r' << progressText( done, total_, Clock::now() - start_ ) << "\x1b[K" << std::flush;
}

} // namespace TesselTool
