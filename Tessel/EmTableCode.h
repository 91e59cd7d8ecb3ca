// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The code of an exact-match table for its geometry. Internal to EmTable.

#include "Tessel/EmTable.h"

namespace Tessel {

/// What the operations of the same names on EmShadowTable do, for one class of key lengths and one of
/// result lengths, and either with or without traces.
struct EmShadowTable::Code {
   bool ( *entryIs )( EmShadowTable&, Brine::ChipId, Weft::CharPtrConst, Weft::CharPtrConst );
   bool ( *entryDel )( EmShadowTable&, Brine::ChipId, Weft::CharPtrConst );
   bool ( *entryHas )( EmShadowTable const&, Brine::ChipId, Weft::CharPtrConst );
   bool ( *entry )( EmShadowTable const&, Brine::ChipId, Weft::CharPtrConst, Weft::CharPtr );
   U64 ( *entryIsBulk )( EmShadowTable&, std::span<EmPairAndResult const>, bool* answers );
   U64 ( *entryDelBulk )( EmShadowTable&, std::span<EmPair const>, bool* answers );
   U64 ( *entryHasBulk )( EmShadowTable const&, std::span<EmPair const>, bool* answers );
   U64 ( *entryBulk )( EmShadowTable const&, std::span<EmPairAndBuffer const>, bool* answers );
   void ( *readEntry )( EmShadowTable const&, EmTableIndex, EmTableEntry& );
   void ( *reconcile )( EmShadowTable& );
   void ( *deleteAll )( EmShadowTable&, Brine::ChipId );
   void ( *clearTable )( EmShadowTable& );

   /// The code of a geometry within the limits.
   static Code const* untraced( U32 keyLength, U32 resultLength );
   static Code const* traced( U32 keyLength );
};

} // namespace Tessel
