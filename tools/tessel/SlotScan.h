// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The slots of an exact-match table's range, straight from the chunk (Tessel/EmTable.h draws one).
///
/// Threads: the chunk is read; its writer may be at work in another process meanwhile. Each image
/// is whole, but two are of two moments.

#include "Tessel/EmTable.h"
#include "tools/tessel/Plan.h"

#include <array>
#include <map>
#include <string_view>

namespace TesselTool {

/// Bytes of one slot of a table with such keys and results.
U32 slotBytes( U32 key, U32 result );

/// One slot's image.
class Slot {
 public:
   explicit Slot( PlannedTable const& table )
         : table_( &table ), size_( slotBytes( table.key, table.result ) ) {}

   /// Takes the slot's bytes as they are now. Contract failure outside the chunk.
   void read( Vellum::VellumChunk const& chunk, U32 index );

   U32 index() const { return index_; }
   /// Its place in the chunk.
   U64 offset() const { return table_->offset + U64{ index_ } * size_; }

   /// Valid byte, chip, key, result, padding.
   std::string_view bytes() const { return { bytes_.data(), size_ }; }
   bool used() const { return bytes_[ 0 ] != 0; }
   U8 chip() const { return static_cast<U8>( bytes_[ 1 ] ); }
   std::string_view key() const { return bytes().substr( 2, table_->key ); }
   std::string_view result() const { return bytes().substr( 2 + table_->key, table_->result ); }
   std::string_view padding() const { return bytes().substr( 2 + table_->key + table_->result ); }

 private:
   PlannedTable const* table_;
   U32 size_;
   U32 index_ = 0;
   std::array<char, sizeof( Tessel::EmTableEntryRaw )> bytes_{};
};

/// Calls `visit` with every Slot of the table's range whose pages the system has, in order; all
/// others are zero. The table is an exact one whose range lies within the chunk.
template<class Visit>
void forEachSlot( Vellum::VellumChunk const& chunk, PlannedTable const& table, Visit visit ) {
   U64 const bytes = slotBytes( table.key, table.result );
   U64 const begin = table.offset;
   Slot slot( table );
   for ( U64 index = 0; index < table.entries; ) {
      Vellum::Stretch const stretch = chunk.suppliedFrom( begin + index * bytes );
      if ( stretch.begin >= stretch.end ) {
         return;
      }
      U64 const first = ( stretch.begin - begin ) / bytes;
      U64 const last = std::min<U64>( table.entries, ( stretch.end - begin + bytes - 1 ) / bytes );
      for ( index = std::max( index, first ); index < last; ++index ) {
         slot.read( chunk, static_cast<U32>( index ) );
         visit( slot );
      }
   }
}

/// As forEachSlot, for those that hold an entry.
template<class Visit>
void forEachEntry( Vellum::VellumChunk const& chunk, PlannedTable const& table, Visit visit ) {
   if ( table.kind == TableKind::exact ) {
      forEachSlot( chunk, table, [ & ]( Slot const& slot ) {
         if ( slot.used() ) {
            visit( slot );
         }
      } );
   }
}

struct Occupancy {
   U32 used = 0;
   std::map<U8, U32> byChip{}; ///< chips with entries
};

/// `{"0":2}`: entries by chip.
std::string chipsJson( Occupancy const& occupancy );

Occupancy occupancyOf( Vellum::VellumChunk const& chunk, PlannedTable const& table );

} // namespace TesselTool
