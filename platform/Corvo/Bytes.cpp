// SPDX-License-Identifier: Apache-2.0
#include "Corvo/Bytes.h"

#include <cstdlib>
#include <limits>
#include <new>
#include <stdexcept>

namespace Corvo {

namespace {

U32 checkedLength( std::string_view text ) {
   if ( text.size() > std::numeric_limits<U32>::max() ) {
      throw std::length_error( "a byte string holds at most 4294967295 bytes" );
   }
   return static_cast<U32>( text.size() );
}

// Pages of a long string that nobody writes are never touched.
char* zeros( U32 length ) {
   void* const bytes = std::calloc( length, 1 );
   if ( bytes == nullptr ) {
      throw std::bad_alloc();
   }
   return static_cast<char*>( bytes );
}

} // namespace

Bytes::Bytes( std::string_view text ) : Bytes( text.data(), checkedLength( text ) ) {}

void Bytes::holdOnHeap( void const* data ) {
   heapBytesAre( zeros( length_ ) );
   std::memcpy( heapBytes(), data, length_ );
}

void Bytes::becomeHeapZeros( U32 length ) {
   heapBytesAre( zeros( length ) );
   length_ = length;
}

void Bytes::dropHeap() {
   std::free( heapBytes() );
}

} // namespace Corvo
