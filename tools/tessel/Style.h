// SPDX-License-Identifier: Apache-2.0
#pragma once

/// What a terminal can show.
///
/// Threads: functions of their arguments and the environment.

#include "Weft/Types.h"

#include <array>
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

/// The colours of chips among the 256 of a terminal. Any two are apart for people who see all
/// colours and for the colour-blind of each kind: at least 8 by CIEDE2000, the first eight 11.
inline constexpr std::array<U8, 16> chipColours{ 33,  214, 36,  197, 153, 94, 139, 187,
                                                 209, 27,  100, 163, 39,  96, 146, 65 };

/// The chip's colour in the terminal: by its number, so that it has the same in every table and at
/// any time.
std::string chipColour( U8 chip );
/// One of chipColours as SVG has it: "#0087ff".
std::string webColour( U8 colour );

/// The chip's letter where there is no colour: a to z, then A to Z, and from the front again.
char chipLetter( U8 chip );

/// A bar `width` characters wide of which `value` of `full` is filled.
std::string bar( U64 value, U64 full, U32 width, bool unicode );

} // namespace TesselTool
