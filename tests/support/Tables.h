// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Exact-match tables, chunks and their bytes in the terms of the tests.
///
/// Threads: one test at a time.

#include "Tessel/TableManager.h"

#include <optional>
#include <set>
#include <sstream>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

namespace TestSupport {

using Chunk = Corvo::Ptr<Vellum::VellumChunk>;
using Table = Corvo::Ptr<Tessel::EmShadowTable>;

inline constexpr Brine::ChipId chip0{ 0 }, chip1{ 1 }, chip3{ 3 }, chip5{ 5 }, chip7{ 7 };

struct Geometry {
   U32 entries = 8;
   U32 key = 4;
   U32 result = 2;
};

inline Corvo::Ptr<Tessel::EmTableHelper> helperOf( Geometry geometry ) {
   return Tessel::emTableHelperFactory( geometry.entries, geometry.key, geometry.result );
}

inline Table tableOver( Chunk const& chunk, Geometry geometry = {}, U32 offset = 0 ) {
   return Tessel::emShadowTableFactory( "mac", helperOf( geometry ), chunk, offset );
}

inline Table newTable( Geometry geometry = {} ) {
   return tableOver( Vellum::VellumChunk::inProcess( 4096 ), geometry );
}

inline Corvo::Bytes bytesOf( std::string_view text ) {
   return Corvo::Bytes( text );
}
inline Tessel::EntryKey keyOf( std::string_view text ) {
   return Tessel::EntryKey( bytesOf( text ) );
}
inline Tessel::EntryResult resultOf( std::string_view text ) {
   return Tessel::EntryResult( bytesOf( text ) );
}
inline std::string textOf( Corvo::Bytes const& bytes ) {
   return std::string( std::string_view( bytes ) );
}

/// The bytes of a chunk as they lie there.
inline std::string bytesAt( Chunk const& chunk, U32 offset, U32 length ) {
   std::string bytes( length, '\0' );
   chunk->read( offset, bytes.data(), length );
   return bytes;
}
inline std::string allBytes( Chunk const& chunk ) {
   return bytesAt( chunk, 0, chunk->size() );
}
inline std::string imageAt( Tessel::EmShadowTable const& table, U32 slot ) {
   U32 const length = table.entryLengthBytes();
   return bytesAt( table.vellumChunk(), table.vellumOffset() + slot * length, length );
}

/// What the table itself answers for (chip, key).
template<class TableOrReader>
std::optional<std::string>
lookUp( TableOrReader const& from, Brine::ChipId chip, std::string_view key ) {
   std::string result( Tessel::MAX_RESULT_LENGTH_IN_BYTE, '#' );
   if ( !from.entry( chip, key.data(), result.data() ) ) {
      return std::nullopt;
   }
   return result.substr( 0, result.find( '#' ) );
}

inline bool
add( Table const& table, Brine::ChipId chip, std::string_view key, std::string_view result ) {
   return table->entryIs( chip, key.data(), result.data() );
}

/// Everything that a table knows and everything that lies in its range, in one comparable text.
inline std::string stateOf( Tessel::EmShadowTable const& table ) {
   std::ostringstream state;
   state << table.numUsedEntries() << " used\n";
   for ( U32 chip = table.numUsedEntriesByChipIdNext( 0 ); chip < 256;
         chip = table.numUsedEntriesByChipIdNext( chip + 1 ) ) {
      state << "chip " << chip << ": "
            << table.numUsedEntriesByChipId( Brine::ChipId( static_cast<U8>( chip ) ) ) << '\n';
   }
   // By a walk: a table that has handed out its bitmap works in other ways from then on.
   std::set<U32> used;
   for ( Tessel::EmShadowTableIteratorConst at{
            Corvo::Ptr<Tessel::ManagedTableBase const>( &table ) };
         at;
         at.doInc() ) {
      used.insert( at.currentIndex() - 1 );
   }
   for ( U32 slot = 0; slot < table.tableHelper()->numEntries(); ++slot ) {
      state << ( used.contains( slot ) ? "used " : "free " ) << imageAt( table, slot ) << '\n';
   }
   std::set<std::string> keys; // the order of the map means nothing
   for ( auto at = table.keyToIndexListCursor(); at.onMember(); at.advance() ) {
      keys.insert( textOf( at.key().bytes() ) );
   }
   for ( std::string const& key : keys ) {
      state << key << ':';
      for ( U32 chip = 0; chip < 256; ++chip ) {
         auto const slot =
            table.getTableIndex( Brine::ChipId( static_cast<U8>( chip ) ), keyOf( key ) );
         if ( slot.valid() ) {
            state << ' ' << chip << '@' << slot;
         }
      }
      state << '\n';
   }
   return state.str();
}

template<class Value>
std::string printed( Value const& value ) {
   std::ostringstream text;
   text << value;
   return text.str();
}
/// The value that the text stands for; Weft::ParseError when there is none.
template<class Value>
Value parsed( std::string const& text ) {
   return Value( Weft::CharRange( text ) );
}

/// A name for shared memory that no other test or process has; removed again in the end.
class UniqueName {
 public:
   UniqueName()
         : name_( "/tessel-test-" + std::to_string( ::getpid() ) + "-" +
                  std::to_string( count_++ ) ) {}
   ~UniqueName() { ::shm_unlink( name_.c_str() ); }
   UniqueName( UniqueName const& ) = delete;
   UniqueName& operator=( UniqueName const& ) = delete;

   std::string const& operator*() const { return name_; }

 private:
   static inline int count_ = 0;
   std::string name_;
};

} // namespace TestSupport
