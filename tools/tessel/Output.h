// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Standard output that says when it could not be written.
///
/// Threads: one thread per stream.

#include <array>
#include <exception>
#include <ostream>
#include <streambuf>

namespace TesselTool {

/// Nobody reads the output any more: a command ends quietly.
class BrokenPipe : public std::exception {
 public:
   char const* what() const noexcept override { return "nobody reads the output any more"; }
};

/// Collects what is written and hands it to a file descriptor in large pieces.
class DescriptorBuffer : public std::streambuf {
 public:
   explicit DescriptorBuffer( int descriptor );

 protected:
   int_type overflow( int_type next ) override;
   int sync() override;

 private:
   void writeOut();

   int descriptor_;
   std::array<char, 65536> buffer_{};
};

/// A stream over a file descriptor that stays the caller's. Any operation may throw BrokenPipe, or
/// Failure with the system's cause; what was not flushed when the stream goes is dropped.
class OutputStream : public std::ostream {
 public:
   explicit OutputStream( int descriptor );

 private:
   DescriptorBuffer buffer_;
};

} // namespace TesselTool
