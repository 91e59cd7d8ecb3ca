// SPDX-License-Identifier: Apache-2.0
#pragma once

/// How far a long load, or the reading before it, is.
///
/// Threads: one per process.

#include "Weft/Types.h"

#include <chrono>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

namespace TesselTool {

/// What is counted.
struct Work {
   std::string_view doing; ///< in front of the numbers
   std::string_view one;
   std::string_view many;
};

inline constexpr Work loadingEntries{ "", "entry", "entries" };
inline constexpr Work readingBytes{ "reading ", "byte", "bytes" };

/// "1,234 of 5,000 entries, 24 %, 617 a second, 7 s left"; without a total, "reading 1,234 bytes,
/// 617 a second".
std::string progressText( Work const& work,
                          U64 done,
                          std::optional<U64> total,
                          std::chrono::duration<double> elapsed );

/// One line that is written again and again on `err`, where that is a terminal, from the second on
/// that the work has taken a second. It goes with this object.
class Progress {
 public:
   Progress( std::ostream& err, Work const& work, std::optional<U64> total );
   Progress( Progress const& ) = delete;
   Progress& operator=( Progress const& ) = delete;
   ~Progress();

   void doneIs( U64 done );

 private:
   using Clock = std::chrono::steady_clock;

   std::ostream& err_;
   Work work_;
   std::optional<U64> total_;
   bool shown_;
   bool drawn_ = false;
   Clock::time_point start_ = Clock::now();
   Clock::time_point next_ = start_ + std::chrono::seconds( 1 );
};

} // namespace TesselTool
