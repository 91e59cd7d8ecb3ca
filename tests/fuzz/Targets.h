// SPDX-License-Identifier: Apache-2.0
#pragma once

/// What arbitrary bytes are fed to. Each takes any input, and ends the process where one breaks a
/// promise: by a sanitizer, or by itself after one line that says which.
///
/// Threads: one input at a time; contract failures have to raise.

#include "Weft/Types.h"

#include <span>

namespace Fuzz {

using Input = std::span<U8 const>;

/// A chunk of foreign bytes, taken over by tables, read, walked, changed behind their backs, emptied,
/// and looked into by the tool. The first 8 bytes choose geometry, place and chips.
void recovery( Input input );
/// A text that is read as a value of a registered type, which the first byte chooses.
void stringForm( Input input );
/// The text of a plan.
void plan( Input input );
/// Lines of entries; the first two bytes choose the lengths of keys and results.
void csv( Input input );

} // namespace Fuzz
