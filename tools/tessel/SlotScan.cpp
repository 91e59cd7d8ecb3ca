// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/SlotScan.h"

#include "tools/tessel/Json.h"

namespace TesselTool {

U32 slotBytes( U32 key, U32 result ) {
   return static_cast<U32>(
      Tessel::EmShadowTable::rangeBytes( *Tessel::emTableHelperFactory( 1, key, result ) ) );
}

void Slot::read( Vellum::VellumChunk const& chunk, U32 index ) {
   index_ = index;
   chunk.readAt( offset(), bytes_.data(), size_ );
}

Occupancy occupancyOf( Vellum::VellumChunk const& chunk, PlannedTable const& table ) {
   Occupancy occupancy;
   std::array<U32, 256> byChip{};
   forEachEntry( chunk, table, [ & ]( Slot const& slot ) {
      ++occupancy.used;
      ++byChip[ slot.chip() ];
   } );
   for ( U32 chip = 0; chip < byChip.size(); ++chip ) {
      if ( byChip[ chip ] > 0 ) {
         occupancy.byChip[ static_cast<U8>( chip ) ] = byChip[ chip ];
      }
   }
   return occupancy;
}

std::string chipsJson( Occupancy const& occupancy ) {
   JsonObject chips;
   for ( auto const& [ chip, used ] : occupancy.byChip ) {
      chips.number( std::to_string( chip ), used );
   }
   return chips.text();
}

} // namespace TesselTool
