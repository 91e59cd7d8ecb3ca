// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <bit>
#include <cstdint>

/// The integer names of the type system. They are global: scripts, traces and the registry use the
/// same short names ("U32") as the code.
using U8 = std::uint8_t;
using U16 = std::uint16_t;
using U32 = std::uint32_t;
using U64 = std::uint64_t;

// Integers in a chunk are little-endian, and keys are hashed and compared as little-endian words.
static_assert( std::endian::native == std::endian::little );

namespace Weft {

/// Raw memory as the type system names it. None of the three owns what it points at; how many bytes
/// may be touched is always said by the operation that takes or gives one.
using CharPtr = char*;
using CharPtrConst = char const*;
using BytePtr = U8*;

} // namespace Weft
