// SPDX-License-Identifier: Apache-2.0
#pragma once

/// What a terminal can show.
///
/// Threads: functions of their arguments and the environment.

#include "Weft/Types.h"

#include <string>
#include <string_view>

namespace TesselTool {

struct Style {
   bool colour = false;
   bool unicode = false; ///< blocks and marks beyond ASCII
};

/// Colour when standard output is a terminal and NO_COLOR is not set; Unicode when the locale of
/// the environment says UTF-8.
Style styleOfTerminal();

struct TerminalSize {
   U32 columns = 80;
   U32 rows = 24;
};

/// The terminal's that standard output is; else what COLUMNS and LINES say, else 80 by 24.
TerminalSize terminalSize();

/// The text in a colour or weight, "32" for green, where the style has colour.
std::string coloured( Style style, std::string_view text, std::string_view code );

/// The colour of the n-th chip that a picture shows, in the terminal's 256.
std::string chipColour( std::size_t n );

/// A bar `width` characters wide of which `value` of `full` is filled.
std::string bar( U64 value, U64 full, U32 width, bool unicode );

} // namespace TesselTool
