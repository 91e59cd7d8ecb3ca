// SPDX-License-Identifier: Apache-2.0
#include "support/Heap.h"

#include "Quarry/Slab.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <utility>

namespace {

std::atomic<U64> liveBlocks{ 0 };

constexpr U64 none = ~U64{ 0 };
thread_local U64 allocationsBeforeFailure = none;

/// Whether the allocation that asks is the one to fail.
bool failsNow() {
   return allocationsBeforeFailure != none && allocationsBeforeFailure-- == 0;
}

void* counted( void* block ) {
   liveBlocks.fetch_add( block != nullptr ? 1 : 0, std::memory_order_relaxed );
   return block;
}

void* allocate( std::size_t size, std::size_t alignment = alignof( std::max_align_t ) ) noexcept {
   if ( failsNow() ) {
      return nullptr;
   }
   if ( alignment <= alignof( std::max_align_t ) ) {
      return counted( std::malloc( size > 0 ? size : 1 ) );
   }
   return counted( std::aligned_alloc( alignment, ( size + alignment - 1 ) & ~( alignment - 1 ) ) );
}

void* orBadAlloc( void* block ) {
   return block != nullptr ? block : throw std::bad_alloc();
}

void release( void* block ) noexcept {
   liveBlocks.fetch_sub( block != nullptr ? 1 : 0, std::memory_order_relaxed );
   std::free( block );
}

std::size_t bytes( std::align_val_t alignment ) {
   return static_cast<std::size_t>( alignment );
}

} // namespace

namespace TestSupport {

U64 liveHeapBlocks() {
   return liveBlocks.load( std::memory_order_relaxed );
}

FailAllocation::FailAllocation( U64 nth )
      : former_( std::exchange( allocationsBeforeFailure, nth ) ) {}

FailAllocation::~FailAllocation() {
   allocationsBeforeFailure = former_;
}

bool FailAllocation::happened() const {
   return allocationsBeforeFailure == none;
}

struct ExhaustedSlabs::Held {
   Held* next;
   std::size_t size;
};

ExhaustedSlabs::ExhaustedSlabs( std::span<std::size_t const> sizes ) {
   for ( std::size_t const size : sizes ) {
      FailAllocation const noSlab( 0 );
      try {
         for ( ;; ) {
            held_ = ::new ( Quarry::slabAlloc( size ) ) Held{ held_, size };
         }
      } catch ( std::bad_alloc const& ) {
         continue;
      }
   }
}

ExhaustedSlabs::~ExhaustedSlabs() {
   while ( held_ != nullptr ) {
      Held* const block = std::exchange( held_, held_->next );
      Quarry::slabFree( block, block->size );
   }
}

} // namespace TestSupport

// All forms are replaced, not only the two that the others call by default: a sanitizer's runtime
// brings its own of each and accepts no mixture.
void* operator new( std::size_t size ) {
   return orBadAlloc( allocate( size ) );
}
void* operator new[]( std::size_t size ) {
   return orBadAlloc( allocate( size ) );
}
void* operator new( std::size_t size, std::align_val_t alignment ) {
   return orBadAlloc( allocate( size, bytes( alignment ) ) );
}
void* operator new[]( std::size_t size, std::align_val_t alignment ) {
   return orBadAlloc( allocate( size, bytes( alignment ) ) );
}
void* operator new( std::size_t size, std::nothrow_t const& ) noexcept {
   return allocate( size );
}
void* operator new[]( std::size_t size, std::nothrow_t const& ) noexcept {
   return allocate( size );
}
void operator delete( void* block ) noexcept {
   release( block );
}
void operator delete[]( void* block ) noexcept {
   release( block );
}
void operator delete( void* block, std::size_t ) noexcept {
   release( block );
}
void operator delete[]( void* block, std::size_t ) noexcept {
   release( block );
}
void operator delete( void* block, std::align_val_t ) noexcept {
   release( block );
}
void operator delete[]( void* block, std::align_val_t ) noexcept {
   release( block );
}
void operator delete( void* block, std::size_t, std::align_val_t ) noexcept {
   release( block );
}
void operator delete[]( void* block, std::size_t, std::align_val_t ) noexcept {
   release( block );
}
void operator delete( void* block, std::nothrow_t const& ) noexcept {
   release( block );
}
void operator delete[]( void* block, std::nothrow_t const& ) noexcept {
   release( block );
}

#if !defined( __SANITIZE_ADDRESS__ ) && !defined( __SANITIZE_THREAD__ )
// The name that the C library keeps for those who replace calloc.
extern "C" void* __libc_calloc( std::size_t count, std::size_t size );

extern "C" void* calloc( std::size_t count, std::size_t size ) noexcept {
   if ( failsNow() ) {
      errno = ENOMEM;
      return nullptr;
   }
   return __libc_calloc( count, size );
}
#endif
