// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The slab allocator: fixed-size blocks for the many small objects that an agent keeps alive.
///
/// Blocks of up to `largestSlabBlock` bytes come from slabs, one family of slabs per size class, so
/// objects of one type lie close together and freeing one never fragments the heap. A slab whose
/// last block is freed goes back to the heap, but for one spare per size class.
///
/// Every block is aligned to 16 bytes. A block is freed with the size it was asked for.
///
/// Threads: every operation may run on any thread at once; a block may be freed on another thread
/// than the one that took it.

#include <cstddef>

namespace Quarry {

/// The largest block, in bytes, that lies in a slab.
inline constexpr std::size_t largestSlabBlock = 4096;

/// A block of `size` bytes, 1 to largestSlabBlock, contents undefined. Never null: std::bad_alloc
/// when no memory is left, or when the size is larger than a slab block may be.
[[gnu::visibility( "default" )]] void* slabAlloc( std::size_t size );
/// Takes back a block of slabAlloc. Null does nothing.
[[gnu::visibility( "default" )]] void slabFree( void* block, std::size_t size ) noexcept;

/// As slabAlloc, but a block too large for a slab comes from the heap.
[[gnu::visibility( "default" )]] void* slabAllocOrStdMalloc( std::size_t size );
/// Takes back a block of slabAllocOrStdMalloc. Null does nothing.
[[gnu::visibility( "default" )]] void slabFreeOrStdFree( void* block, std::size_t size ) noexcept;

} // namespace Quarry
