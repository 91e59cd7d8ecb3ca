// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The public registry of MAC address blocks: which organisation owns which addresses.
///
/// Threads: plain values.

#include "Weft/Types.h"

#include <array>
#include <string>
#include <string_view>
#include <vector>

namespace TesselTool {

/// The addresses that begin with the first `bits` bits of `prefix`.
struct MacBlock {
   std::array<U8, 6> prefix{}; ///< zero behind its bits
   U8 bits = 0;                ///< 24, 28 or 36
   U32 organisation = 0;       ///< index into the registry's organisations
};

struct MacRegistry {
   std::vector<MacBlock> blocks; ///< each block once, in the order of the files
   std::vector<std::string> organisations;
   U32 skipped = 0; ///< records that are no block, and blocks given again
};

/// The files that Debian's package ieee-data installs. Failure, naming the package, without it.
std::vector<std::string> installedRegistryFiles();

/// Reads the files: CSV with a heading, and in the second and third field a block's hex digits and
/// the organisation. Failure when a file cannot be read or holds no block.
MacRegistry readMacRegistry( std::vector<std::string> const& files );

/// The same from text, added to `registry`.
void addMacBlocks( MacRegistry& registry, std::string_view csv );

} // namespace TesselTool
