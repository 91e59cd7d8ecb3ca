// SPDX-License-Identifier: Apache-2.0
#include "Weft/ArrayMemory.h"

#include <cstring>
#include <new>

#include <sys/mman.h>

namespace Weft {

ArrayMemory ArrayMemory::fromHeap( std::size_t size, std::size_t zeros ) {
   auto* const bytes = static_cast<U8*>( ::operator new( size ) );
   std::memset( bytes, 0, zeros );
   return { bytes, size, false };
}

ArrayMemory ArrayMemory::fromSystem( std::size_t size ) {
   constexpr int flags =
      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE; // much of it may stay untouched
   void* const memory = ::mmap( nullptr, size, PROT_READ | PROT_WRITE, flags, -1, 0 );
   if ( memory == MAP_FAILED ) {
      throw std::bad_alloc();
   }
   ::madvise( memory, size, MADV_HUGEPAGE ); // a wish: refused, the block works all the same
   return { static_cast<U8*>( memory ), size, true };
}

ArrayMemory::~ArrayMemory() {
   if ( mapped_ && bytes_ ) {
      ::munmap( bytes_, size_ );
   } else if ( bytes_ ) {
      ::operator delete( bytes_ );
   }
}

} // namespace Weft
