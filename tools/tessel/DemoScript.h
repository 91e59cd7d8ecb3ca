// SPDX-License-Identifier: Apache-2.0
#pragma once

/// What the demo's agent does, operation by operation, and what its tables then have to hold.
///
/// Table "mac-block", one entry per block and chip that has it:
///
///    key      bits (1 byte), prefix (6 bytes)
///    result   organisation (4 bytes, high byte first), checksum of chip, key and organisation (4)
///
/// Table "vendor", one entry per organisation, rewritten with each of its blocks:
///
///    key      organisation (4 bytes)
///    result   number of its blocks so far (4 bytes)
///
/// A block's home is the chip that the sum of its prefix bytes names, modulo 4; blocks smaller than
/// 24 bits are on the next chip, too. A vendor is on the chip that its number names, modulo 4.
///
/// Threads: plain values.

#include "Corvo/Bytes.h"
#include "tools/tessel/DemoData.h"
#include "tools/tessel/Plan.h"

#include <compare>
#include <map>
#include <span>
#include <vector>

namespace TesselTool {

inline constexpr U8 demoChips = 4;

/// Index of the table in the demo's plan.
enum class DemoTable : U8 { port, macBlock, vendor };

struct EntryName {
   DemoTable table = DemoTable::macBlock;
   U8 chip = 0;
   Corvo::Bytes key;

   friend auto operator<=>( EntryName const&, EntryName const& ) = default;
};

/// Adds the entry, or replaces its result.
struct DemoOperation {
   EntryName entry;
   Corvo::Bytes result;
};

/// The whole load, in order.
std::vector<DemoOperation> operationsFor( MacRegistry const& registry );

/// The tables with room for all of it, in a chunk that is as large as they need. Failure when no
/// chunk can be that large.
Plan planFor( MacRegistry const& registry,
              std::span<DemoOperation const> operations,
              std::string const& chunkName );

/// The entries there are after the operations, with their results.
using Entries = std::map<EntryName, Corvo::Bytes>;
Entries entriesAfter( std::span<DemoOperation const> operations );

} // namespace TesselTool
