// SPDX-License-Identifier: Apache-2.0
#include "Quarry/Slab.h"

#include <array>
#include <cstdint>
#include <mutex>
#include <new>
#include <utility>

#if defined( __has_feature )
#if __has_feature( address_sanitizer )
#define QUARRY_POISONS
#endif
#elif defined( __SANITIZE_ADDRESS__ )
#define QUARRY_POISONS
#endif
#if defined( QUARRY_POISONS )
#include <sanitizer/asan_interface.h>
#endif

namespace Quarry {

namespace {

constexpr std::size_t blockUnit = 16;
constexpr std::size_t slabBytes = std::size_t{ 64 } * 1024;

// Under AddressSanitizer every byte of a slab that no caller holds is out of bounds.
void poison( [[maybe_unused]] void* bytes, [[maybe_unused]] std::size_t length ) {
#if defined( QUARRY_POISONS )
   __asan_poison_memory_region( bytes, length );
#endif
}

void unpoison( [[maybe_unused]] void* bytes, [[maybe_unused]] std::size_t length ) {
#if defined( QUARRY_POISONS )
   __asan_unpoison_memory_region( bytes, length );
#endif
}

// Under AddressSanitizer a block freed twice is reported as a use of poisoned memory.
void touch( [[maybe_unused]] void* block ) {
#if defined( QUARRY_POISONS )
   *static_cast<unsigned char volatile*>( block ) = 0;
#endif
}

struct FreedBlock {
   FreedBlock* next;
};

/// The start of one slab; the slab is aligned to its own size, so a block's address tells its slab.
///
///    offset 0                    this header
///    offset sizeof( Slab )       blocks, taken at least once, of which some may be freed
///    offset carved_              never taken: untouched memory
///    offset slabBytes
class alignas( blockUnit ) Slab {
 public:
   /// A slab of nothing but fresh blocks. std::bad_alloc when memory runs out.
   static Slab* create() {
      void* const memory = ::operator new( slabBytes, std::align_val_t{ slabBytes } );
      auto* const slab = ::new ( memory ) Slab;
      poison( slab + 1, slabBytes - sizeof( Slab ) );
      return slab;
   }
   static void destroy( Slab* slab ) noexcept {
      unpoison( slab, slabBytes );
      ::operator delete( slab, std::align_val_t{ slabBytes } );
   }
   static Slab& of( void* block ) {
      auto const offset = reinterpret_cast<std::uintptr_t>( block ) % slabBytes;
      return *reinterpret_cast<Slab*>( static_cast<std::byte*>( block ) - offset );
   }

   bool full( std::size_t blockSize ) const {
      return freed_ == nullptr && carved_ + blockSize > slabBytes;
   }
   bool empty() const { return taken_ == 0; }

   /// One block of a slab that is not full.
   void* take( std::size_t blockSize ) {
      ++taken_;
      if ( freed_ == nullptr ) {
         void* const fresh = reinterpret_cast<std::byte*>( this ) + carved_;
         carved_ += blockSize;
         return fresh;
      }
      unpoison( freed_, sizeof( FreedBlock ) );
      return std::exchange( freed_, freed_->next );
   }

   void giveBack( void* block ) {
      --taken_;
      freed_ = ::new ( block ) FreedBlock{ freed_ };
      if ( taken_ == 0 ) { // all blocks are fresh again, in address order
         freed_ = nullptr;
         carved_ = sizeof( Slab );
      }
   }

   // The neighbours in the list of slabs that have both taken and free blocks.
   Slab* next = nullptr;
   Slab* previous = nullptr;

 private:
   FreedBlock* freed_ = nullptr;
   std::size_t carved_ = sizeof( Slab );
   std::size_t taken_ = 0;
};

static_assert( sizeof( Slab ) % blockUnit == 0 );
static_assert( sizeof( FreedBlock ) <= blockUnit );

/// All slabs of one block size. A full slab is in no list: its blocks lead back to it. On cache
/// lines of its own, so that threads taking blocks of different sizes do not disturb each other.
class alignas( 64 ) SizeClass {
 public:
   void* take( std::size_t blockSize ) {
      {
         std::lock_guard const guard( mutex_ );
         if ( partial_ != nullptr || spare_ != nullptr ) {
            return takeFromSlab( blockSize );
         }
      }
      // The heap is asked without the lock. Another thread may do the same meanwhile; then there
      // are two slabs where one would do, and that is all.
      Slab* const added = Slab::create();
      std::lock_guard const guard( mutex_ );
      link( *added );
      return takeFromSlab( blockSize );
   }

   void giveBack( void* block, std::size_t blockSize ) {
      if ( Slab* const surplus = giveBackToSlab( block, blockSize ) ) {
         Slab::destroy( surplus );
      }
   }

 private:
   void* takeFromSlab( std::size_t blockSize ) {
      if ( partial_ == nullptr ) {
         link( *std::exchange( spare_, nullptr ) );
      }
      Slab& slab = *partial_;
      void* const block = slab.take( blockSize );
      if ( slab.full( blockSize ) ) {
         unlink( slab );
      }
      return block;
   }

   /// The slab that is of no use any more, if there is one.
   Slab* giveBackToSlab( void* block, std::size_t blockSize ) {
      std::lock_guard const guard( mutex_ );
      Slab& slab = Slab::of( block );
      bool const linked = !slab.full( blockSize );
      touch( block );
      unpoison( block, sizeof( FreedBlock ) ); // a caller holds only the bytes it asked for
      slab.giveBack( block );
      poison( block, blockSize );
      if ( !linked ) {
         link( slab );
      }
      if ( !slab.empty() ) {
         return nullptr;
      }
      unlink( slab );
      if ( spare_ != nullptr ) {
         return &slab;
      }
      spare_ = &slab;
      return nullptr;
   }

   void link( Slab& slab ) {
      slab.previous = nullptr;
      slab.next = std::exchange( partial_, &slab );
      if ( slab.next != nullptr ) {
         slab.next->previous = &slab;
      }
   }

   void unlink( Slab& slab ) {
      ( slab.previous != nullptr ? slab.previous->next : partial_ ) = slab.next;
      if ( slab.next != nullptr ) {
         slab.next->previous = slab.previous;
      }
   }

   std::mutex mutex_;
   Slab* partial_ = nullptr;
   Slab* spare_ = nullptr; // an empty slab, kept so that one object made and dropped costs no heap
};

// Initialised before any code runs and never destroyed: objects of static storage elsewhere may
// still free blocks while the process ends.
constinit std::array<SizeClass, largestSlabBlock / blockUnit> sizeClasses;

std::size_t sizeClassOf( std::size_t size ) {
   return ( size - 1 ) / blockUnit;
}

std::size_t blockSizeOf( std::size_t sizeClass ) {
   return ( sizeClass + 1 ) * blockUnit;
}

} // namespace

void* slabAlloc( std::size_t size ) {
   if ( size - 1 >= largestSlabBlock ) { // refuses 0 as well
      throw std::bad_alloc();
   }
   std::size_t const sizeClass = sizeClassOf( size );
   void* const block = sizeClasses[ sizeClass ].take( blockSizeOf( sizeClass ) );
   unpoison( block, size );
   return block;
}

void slabFree( void* block, std::size_t size ) noexcept {
   if ( block != nullptr ) {
      std::size_t const sizeClass = sizeClassOf( size );
      sizeClasses[ sizeClass ].giveBack( block, blockSizeOf( sizeClass ) );
   }
}

void* slabAllocOrStdMalloc( std::size_t size ) {
   return size > largestSlabBlock ? ::operator new( size ) : slabAlloc( size );
}

void slabFreeOrStdFree( void* block, std::size_t size ) noexcept {
   if ( size > largestSlabBlock ) {
      ::operator delete( block );
   } else {
      slabFree( block, size );
   }
}

} // namespace Quarry
