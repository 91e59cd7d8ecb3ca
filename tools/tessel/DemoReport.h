// SPDX-License-Identifier: Apache-2.0
#pragma once

/// What the demo tells, for a person to enjoy; or, for a program, the same as one JSON document:
///
///    {"title":…,"items":[{"step":1,"text":…},{"line":…},{"proof":…,"holds":true},
///       {"bar":…,"value":7,"full":9},…],"verdict":…,"held":true}
///
/// Threads: one report per process.

#include "tools/tessel/Json.h"
#include "tools/tessel/Style.h"

#include <chrono>
#include <iosfwd>
#include <string>
#include <string_view>

namespace TesselTool {

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
   DemoReport( std::ostream& out, Style style, bool json )
         : out_( out ), style_( style ), json_( json ) {}

   void title( std::string_view text );
   /// Shown at once, with everything before it.
   void step( U32 number, std::string_view text );
   void line( std::string_view text );
   /// A claim with a mark that says whether it holds.
   void proof( bool holds, std::string_view claim );
   void barLine( std::string_view label, U64 value, U64 full );
   void verdict( bool good, std::string_view text );
   /// Ends a document whose demo could not go on.
   void failed( std::string_view why );

   /// Whether every proof so far held.
   bool allHeld() const { return allHeld_; }
   /// Everything so far is on its way to the reader.
   void flush();

 private:
   std::string mark( bool good ) const;

   void item( JsonObject const& item );

   std::ostream& out_;
   Style style_;
   bool json_;
   bool anyItem_ = false;
   bool allHeld_ = true;
};

} // namespace TesselTool
