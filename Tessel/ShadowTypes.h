// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The two value types in which an entry's key and result travel.
///
/// Threads: plain values.

#include "Corvo/Bytes.h"
#include "Weft/CharRange.h"
#include "Weft/Hash.h"

#include <compare>
#include <iosfwd>

namespace Weft {
class Module;
}

/// The module's record in the type registry.
[[gnu::visibility( "default" )]] extern Weft::Module const _ShadowTypes_780f1d9c6707feae_weftModule;

namespace Tessel {

/// One byte string of any length, immutable but for assignment and resized(). `Self` keeps keys and
/// results apart: neither converts to the other.
template<class Self>
class ByteStringValue {
 public:
   ByteStringValue() = default;
   explicit ByteStringValue( Corvo::Bytes bytes ) : bytes_( std::move( bytes ) ) {}

   /// Valid until the value is assigned to or destroyed.
   Corvo::Bytes const& bytes() const { return bytes_; }
   /// As Corvo::Bytes::resized.
   char* resized( U32 length ) { return bytes_.resized( length ); }

   /// Whether two values of this type, neither null, hold the same bytes.
   static bool isEq( void const* a, void const* b ) {
      return *static_cast<Self const*>( a ) == *static_cast<Self const*>( b );
   }

   /// Depends on the bytes alone: equal in every process, and equal for a key and a result of the
   /// same bytes.
   U32 hash() const {
      Weft::Hash hash;
      hash.mixNi( bytes_.bytesPtr(), bytes_.size() );
      return hash.result();
   }

   /// Whether there is at least one byte.
   explicit operator bool() const { return !bytes_.empty(); }

   friend bool operator==( Self const& a, Self const& b ) { return a.bytes() == b.bytes(); }
   friend std::strong_ordering operator<=>( Self const& a, Self const& b ) {
      return a.bytes() <=> b.bytes();
   }

 private:
   Corvo::Bytes bytes_;
};

/// What an entry is found by.
class [[gnu::visibility( "default" )]] EntryKey : public ByteStringValue<EntryKey> {
 public:
   using ByteStringValue::ByteStringValue;
   /// From the string form, of which every character is consumed. Weft::ParseError says where a
   /// text is not one.
   explicit EntryKey( Weft::CharRange stringForm );
};

/// What an entry carries.
class [[gnu::visibility( "default" )]] EntryResult : public ByteStringValue<EntryResult> {
 public:
   using ByteStringValue::ByteStringValue;
   /// As EntryKey.
   explicit EntryResult( Weft::CharRange stringForm );
};

/// Write the string form, which parses back to an equal value.
[[gnu::visibility( "default" )]] std::ostream& operator<<( std::ostream&, EntryKey const& );
[[gnu::visibility( "default" )]] std::ostream& operator<<( std::ostream&, EntryResult const& );

} // namespace Tessel

template<>
struct std::hash<Tessel::EntryKey> {
   std::size_t operator()( Tessel::EntryKey const& key ) const { return key.hash(); }
};

template<>
struct std::hash<Tessel::EntryResult> {
   std::size_t operator()( Tessel::EntryResult const& result ) const { return result.hash(); }
};
