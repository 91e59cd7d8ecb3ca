// SPDX-License-Identifier: Apache-2.0
#pragma once

/// A file or standard input that a signal can interrupt, and that tells what went wrong.
///
/// Threads: one object is used by one thread.

#include "tools/tessel/Progress.h"

#include <array>
#include <optional>
#include <streambuf>
#include <string>

namespace TesselTool {

class InputBuffer : public std::streambuf {
 public:
   /// Opens the file; "-" is standard input. Failure when it cannot be opened.
   explicit InputBuffer( std::string const& file );
   InputBuffer( InputBuffer const& ) = delete;
   InputBuffer& operator=( InputBuffer const& ) = delete;
   ~InputBuffer() override;

   /// As messages name it.
   std::string const& name() const { return name_; }
   /// Bytes from here to its end, where that is known.
   std::optional<U64> size() const;
   void progressIs( Progress* progress ) { progress_ = progress; }

   /// Why reading ended before the end: an errno; 0 where it did not. A signal that is caught by
   /// CatchInterrupts ends it, too: EINTR.
   int error() const { return error_; }

 private:
   int_type underflow() override;

   std::string name_;
   int file_;
   int error_ = 0;
   U64 read_ = 0;
   Progress* progress_ = nullptr;
   std::array<char, 65536> block_{};
};

} // namespace TesselTool
