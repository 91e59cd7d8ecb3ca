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

/// Whether the terminal takes text alone: TERM is "dumb".
bool terminalIsDumb();

struct TerminalSize {
   U32 columns = 80;
   U32 rows = 24;
};

/// The terminal's that standard output is; else what COLUMNS and LINES say, else 80 by 24.
TerminalSize terminalSize();

/// The text in a colour or weight, "32" for green, where the style has colour.
std::string coloured( Style style, std::string_view text, std::string_view code );

/// Chips of numbers this far apart look alike. DrawingStyle.h has as many.
inline constexpr U32 chipColours = 16;

/// The chip's colour in the terminal's 256: by its number, so that it has the same in every table
/// and at any time.
std::string chipColour( U8 chip );

/// The chip's letter where there is no colour: a to z, then A to Z, and from the front again.
char chipLetter( U8 chip );

/// A bar `width` characters wide of which `value` of `full` is filled.
std::string bar( U64 value, U64 full, U32 width, bool unicode );

} // namespace TesselTool
