// SPDX-License-Identifier: Apache-2.0
#pragma once

/// A plan: which chunk an agent uses and which tables it keeps there, in the order in which it
/// manages them. From a JSON file:
///
///    { "agent": "l2", "chunk": "/l2-tables", "size": 67108864,
///      "startOffset": 0, "allowedSize": 67108864,
///      "tables": [ { "name": "vlan", "kind": "direct", "entries": 4096, "key": 2, "result": 2 },
///                  { "name": "mac", "kind": "exact", "entries": 65536, "key": 8, "result": 4 } ] }
///
/// Every field is required, but for a table's "keyFormat" and "resultFormat", which are "mac",
/// "ipv4", "ipv6", "uint" or, as without them, "hex" (ByteFormat.h). Sizes, offsets and lengths are
/// in bytes, 0 to 4294967295.
///
/// A plan that was read is sound: the chunk's name is well-formed, table names are unique and fit
/// into a frame, lengths are within the limits, and every frame lies within the allowed size and
/// within the chunk.
///
/// Threads: plain values.

#include "tools/tessel/ByteFormat.h"

#include <string>
#include <string_view>
#include <vector>

namespace TesselTool {

enum class TableKind { direct, exact };

/// "direct" or "exact".
std::string_view nameOf( TableKind kind );

struct PlannedTable {
   std::string name;
   TableKind kind = TableKind::exact;
   U32 entries = 0;
   U32 key = 0;    ///< bytes of a key
   U32 result = 0; ///< bytes of a result
   ByteFormat keyFormat = ByteFormat::hex;
   ByteFormat resultFormat = ByteFormat::hex;

   // Where the table manager puts it; see placeTables.
   U32 offset = 0;     ///< chunk offset of the table's own range, behind its header
   U32 shadowSize = 0; ///< bytes of that range; 0 for a direct table
};

struct Plan {
   std::string agent{};
   std::string chunk{}; ///< the name, with its slash
   U32 size = 0;
   U32 startOffset = 0;
   U32 allowedSize = 0;
   std::vector<PlannedTable> tables{};
};

/// Computes where the manager puts each table. Failure, naming the field, when one does not fit.
void placeTables( Plan& plan );

/// The plan that `json` holds. Failure: `source`, the field's path, and what is wrong with it; for
/// text that is no JSON, line and column.
Plan parsePlan( std::string_view json, std::string_view source );

/// The plan in the file. Failure as parsePlan, and when the file cannot be read.
Plan readPlan( std::string const& path );

/// Whether this can be the name of a chunk.
bool isChunkName( std::string_view name );

/// The table of this name. Failure, naming the nearest, when the plan has none.
PlannedTable const& plannedTable( Plan const& plan, std::string_view name );

} // namespace TesselTool
