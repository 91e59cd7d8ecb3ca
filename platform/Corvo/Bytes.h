// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Byte strings, short ones without the heap.
///
///    offset 0   length <= 20: the bytes themselves, zero behind them
///               length >  20: pointer to the bytes, owned
///    offset 20  length, U32
///
/// Threads: a plain value; one object belongs to one thread at a time while it is changed.

#include "Weft/Types.h"

#include <array>
#include <compare>
#include <cstring>
#include <string_view>
#include <utility>

namespace Corvo {

class [[gnu::visibility( "default" )]] Bytes {
 public:
   /// Up to so many bytes never touch the heap: the longest key of an exact-match table.
   static constexpr U32 inlineCapacity = 20;

   Bytes() = default;
   /// Copies `length` bytes at `data`, which may be null when the length is 0. std::bad_alloc is
   /// possible beyond inlineCapacity.
   Bytes( void const* data, U32 length ) : length_( length ) {
      if ( length <= inlineCapacity ) [[likely]] {
         if ( length > 0 ) {
            std::memcpy( inline_.data(), data, length );
         }
      } else {
         holdOnHeap( data );
      }
   }
   /// std::length_error when the text is longer than a U32 can say.
   explicit Bytes( std::string_view text );

   /// `length` zero bytes, to be filled through writablePtr. std::bad_alloc beyond inlineCapacity.
   static Bytes ofLength( U32 length ) {
      Bytes zeros;
      if ( length > inlineCapacity ) {
         zeros.becomeHeapZeros( length );
      } else {
         zeros.length_ = length;
      }
      return zeros;
   }

   Bytes( Bytes const& other ) : inline_( other.inline_ ), length_( other.length_ ) {
      if ( length_ > inlineCapacity ) [[unlikely]] {
         holdOnHeap( other.bytesPtr() );
      }
   }
   Bytes( Bytes&& other ) noexcept
         : inline_( std::exchange( other.inline_, {} ) ),
           length_( std::exchange( other.length_, 0 ) ) {}
   ~Bytes() {
      if ( length_ > inlineCapacity ) [[unlikely]] {
         dropHeap();
      }
   }
   Bytes& operator=( Bytes other ) noexcept {
      auto const mine = inline_; // as a whole: std::swap exchanges arrays element by element
      inline_ = other.inline_;
      other.inline_ = mine;
      std::swap( length_, other.length_ );
      return *this;
   }

   /// The first byte; valid until the value is changed or destroyed.
   char const* bytesPtr() const { return length_ <= inlineCapacity ? inline_.data() : heapBytes(); }
   /// As bytesPtr, for writing the size() bytes in place.
   char* writablePtr() { return length_ <= inlineCapacity ? inline_.data() : heapBytes(); }
   /// As writablePtr, once the value is `length` bytes long; what they hold is for the caller to write.
   /// Where they are inline, inlineCapacity bytes may be written, zeros behind the length. std::bad_alloc
   /// beyond inlineCapacity leaves the value as it was.
   char* resized( U32 length ) {
      if ( length != length_ ) [[unlikely]] {
         *this = ofLength( length );
      }
      return writablePtr();
   }
   U32 size() const { return length_; }
   bool empty() const { return length_ == 0; }

   explicit operator std::string_view() const { return { bytesPtr(), length_ }; }

   friend bool operator==( Bytes const& a, Bytes const& b ) {
      return std::string_view( a ) == std::string_view( b );
   }
   /// Bytewise, bytes as unsigned numbers; a prefix orders first.
   friend std::strong_ordering operator<=>( Bytes const& a, Bytes const& b ) {
      return std::string_view( a ).compare( std::string_view( b ) ) <=> 0;
   }

 private:
   char* heapBytes() const {
      char* bytes = nullptr;
      std::memcpy( &bytes, inline_.data(), sizeof bytes );
      return bytes;
   }
   void heapBytesAre( char* bytes ) { std::memcpy( inline_.data(), &bytes, sizeof bytes ); }
   void holdOnHeap( void const* data );
   void becomeHeapZeros( U32 length );
   void dropHeap();

   std::array<char, inlineCapacity> inline_{};
   U32 length_ = 0;
};

static_assert( sizeof( Bytes ) == 24 );

} // namespace Corvo
