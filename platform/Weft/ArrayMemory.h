// SPDX-License-Identifier: Apache-2.0
#pragma once

/// One block of zero bytes for the arrays of a large collection.
///
/// Large blocks come straight from the system and ask for huge pages: a look-up in a table of many
/// megabytes otherwise pays for an address translation beside every cache miss.
///
/// Threads: a plain owner of memory.

#include "Weft/Types.h"

#include <cstddef>
#include <utility>

namespace Weft {

class [[gnu::visibility( "default" )]] ArrayMemory {
 public:
   ArrayMemory() = default;
   /// `size` zero bytes, aligned to 64. std::bad_alloc when there is no memory.
   explicit ArrayMemory( std::size_t size );
   ArrayMemory( ArrayMemory&& other ) noexcept
         : bytes_( std::exchange( other.bytes_, nullptr ) ),
           size_( std::exchange( other.size_, 0 ) ) {}
   ArrayMemory& operator=( ArrayMemory other ) noexcept {
      std::swap( bytes_, other.bytes_ );
      std::swap( size_, other.size_ );
      return *this;
   }
   ~ArrayMemory();

   U8* bytes() const { return bytes_; }
   std::size_t size() const { return size_; }

 private:
   U8* bytes_ = nullptr;
   std::size_t size_ = 0;
};

} // namespace Weft
