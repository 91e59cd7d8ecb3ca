// SPDX-License-Identifier: Apache-2.0
#pragma once

/// One block of memory for the arrays of a large collection.
///
/// From the heap it costs what is touched of it. Straight from the system it asks for huge pages, each of
/// which costs two megabytes at its first touch: a look-up in a table of many megabytes otherwise pays
/// for an address translation beside every cache miss.
///
/// Threads: a plain owner of memory.

#include "Weft/Types.h"

#include <cstddef>
#include <utility>

namespace Weft {

class [[gnu::visibility( "default" )]] ArrayMemory {
 public:
   ArrayMemory() = default;
   // `size` bytes, aligned to `alignment`. std::bad_alloc when there is no memory.

   /// What the heap gives unasked. Asked for more, glibc 2.36 does not take a block again that it gave
   /// before: a table built after another of its size was freed would pay for fresh pages.
   static constexpr std::size_t alignment = __STDCPP_DEFAULT_NEW_ALIGNMENT__;

   /// The first `zeros` bytes are zero.
   static ArrayMemory fromHeap( std::size_t size, std::size_t zeros );
   /// All bytes are zero, and what is never touched takes no memory; in huge pages, where there are any.
   static ArrayMemory fromSystem( std::size_t size );
   /// From so many bytes on that pays.
   static constexpr std::size_t hugePagesFrom = std::size_t{ 2 } << 20;

   ArrayMemory( ArrayMemory&& other ) noexcept
         : bytes_( std::exchange( other.bytes_, nullptr ) ),
           size_( std::exchange( other.size_, 0 ) ), mapped_( other.mapped_ ) {}
   ArrayMemory& operator=( ArrayMemory other ) noexcept {
      std::swap( bytes_, other.bytes_ );
      std::swap( size_, other.size_ );
      std::swap( mapped_, other.mapped_ );
      return *this;
   }
   ~ArrayMemory();

   U8* bytes() const { return bytes_; }
   std::size_t size() const { return size_; }

 private:
   ArrayMemory( U8* bytes, std::size_t size, bool mapped )
         : bytes_( bytes ), size_( size ), mapped_( mapped ) {}

   U8* bytes_ = nullptr;
   std::size_t size_ = 0;
   bool mapped_ = false;
};

} // namespace Weft
