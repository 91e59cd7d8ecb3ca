// SPDX-License-Identifier: Apache-2.0
#include "Corvo/Bytes.h"

#include <limits>
#include <memory>
#include <stdexcept>

namespace Corvo {

namespace {

U32 checkedLength( std::string_view text ) {
   if ( text.size() > std::numeric_limits<U32>::max() ) {
      throw std::length_error( "a byte string holds at most 4294967295 bytes" );
   }
   return static_cast<U32>( text.size() );
}

} // namespace

Bytes::Bytes( std::string_view text ) : Bytes( text.data(), checkedLength( text ) ) {}

void Bytes::holdOnHeap( void const* data ) {
   auto bytes = std::make_unique_for_overwrite<char[]>( length_ );
   std::memcpy( bytes.get(), data, length_ );
   heapBytesAre( bytes.release() );
}

void Bytes::becomeHeapZeros( U32 length ) {
   heapBytesAre( std::make_unique<char[]>( length ).release() );
   length_ = length;
}

void Bytes::dropHeap() {
   std::unique_ptr<char[]>( heapBytes() ).reset();
}

} // namespace Corvo
