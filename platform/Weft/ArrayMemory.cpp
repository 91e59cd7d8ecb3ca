// SPDX-License-Identifier: Apache-2.0
#include "Weft/ArrayMemory.h"

#include <cstring>
#include <new>

#include <sys/mman.h>

namespace Weft {

namespace {

constexpr std::align_val_t lineAlignment{ 64 };
/// From here on a block is its own mapping: the size of one huge page on x86-64.
constexpr std::size_t mappedFrom = std::size_t{ 2 } << 20;

U8* mapped( std::size_t size ) {
   void* const memory =
      ::mmap( nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0 );
   if ( memory == MAP_FAILED ) {
      throw std::bad_alloc();
   }
   ::madvise( memory, size, MADV_HUGEPAGE ); // a wish: refused, the block works all the same
   return static_cast<U8*>( memory );
}

U8* fromHeap( std::size_t size ) {
   void* const memory = ::operator new( size, lineAlignment );
   std::memset( memory, 0, size );
   return static_cast<U8*>( memory );
}

} // namespace

ArrayMemory::ArrayMemory( std::size_t size )
      : bytes_( size >= mappedFrom ? mapped( size ) : fromHeap( size ) ), size_( size ) {}

ArrayMemory::~ArrayMemory() {
   if ( size_ >= mappedFrom ) {
      ::munmap( bytes_, size_ );
   } else if ( bytes_ ) {
      ::operator delete( bytes_, lineAlignment );
   }
}

} // namespace Weft
