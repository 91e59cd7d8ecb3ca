// SPDX-License-Identifier: Apache-2.0
#pragma once

/// What the demo tells, for a person to enjoy.
///
/// Threads: one report per process.

#include "Weft/Types.h"

#include <chrono>
#include <iosfwd>
#include <string>
#include <string_view>

namespace TesselTool {

struct Style {
   bool colour = false;
   bool unicode = false; ///< blocks and marks beyond ASCII
};

/// Colour when standard output is a terminal and NO_COLOR is not set; Unicode when the locale of
/// the environment says UTF-8.
Style styleOfTerminal();

/// A bar `width` characters wide of which `value` of `full` is filled.
std::string bar( U64 value, U64 full, U32 width, bool unicode );

/// Time since it was made.
class Stopwatch {
 public:
   std::chrono::duration<double> elapsed() const { return Clock::now() - start_; }
   /// "12.3 ms".
   std::string text() const;
   /// How many of `count` in a second: "1,234,567".
   std::string rateOf( U64 count ) const;

 private:
   using Clock = std::chrono::steady_clock;
   Clock::time_point start_ = Clock::now();
};

class DemoReport {
 public:
   DemoReport( std::ostream& out, Style style ) : out_( out ), style_( style ) {}

   void title( std::string_view text );
   /// Shown at once, with everything before it.
   void step( U32 number, std::string_view text );
   void line( std::string_view text );
   /// A claim with a mark that says whether it holds.
   void proof( bool holds, std::string_view claim );
   void barLine( std::string_view label, U64 value, U64 full );
   void verdict( bool good, std::string_view text );

   /// Whether every proof so far held.
   bool allHeld() const { return allHeld_; }
   /// Everything so far is on its way to the reader.
   void flush();

 private:
   std::string coloured( std::string_view text, std::string_view code ) const;
   std::string mark( bool good ) const;

   std::ostream& out_;
   Style style_;
   bool allHeld_ = true;
};

} // namespace TesselTool
