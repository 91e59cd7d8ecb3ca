// SPDX-License-Identifier: Apache-2.0
#pragma once

/// How much a test does: what suits every change, or what the environment asks for.
///
/// Threads: any.

#include "Weft/Types.h"

#include <cstdlib>

namespace TestSupport {

/// The number in the environment variable `name`; `otherwise` when there is none.
inline U64 asked( char const* name, U64 otherwise ) {
   char const* const text = std::getenv( name );
   return text ? std::strtoull( text, nullptr, 10 ) : otherwise;
}

} // namespace TestSupport
