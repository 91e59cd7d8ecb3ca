// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Text for people: safe to print, short, and with a suggestion where a name was misspelt.
///
/// Threads: functions of their arguments alone.

#include "Weft/Types.h"

#include <span>
#include <sstream>
#include <string>
#include <string_view>

namespace TesselTool {

/// The pieces one after another with nothing between them.
template<class... Pieces>
std::string joined( Pieces const&... pieces ) {
   std::ostringstream text;
   ( text << ... << pieces );
   return std::move( text ).str();
}

/// The text on one printable line: control characters, invisible ones, and bytes that are no UTF-8
/// stand as \xNN.
std::string printable( std::string_view text );

/// The text in quotes, cut to 64 bytes, for a message about an input.
std::string inQuotes( std::string_view text );

/// The text as one word of a command that is shown to be pasted.
std::string shellWord( std::string_view text );

/// The name that begins so, else the one that takes the fewest changed letters to reach, two or a
/// third of them at most; empty when there is none. Capitals count as small letters.
std::string_view nearest( std::string_view wanted, std::span<std::string_view const> names );

/// What to say behind a name that is none of `names`: "; the nearest is NAME", or some of them.
std::string suggestion( std::string_view wanted,
                        std::span<std::string_view const> names,
                        std::string ( *shown )( std::string_view ) = printable );

/// 1234567 as "1,234,567".
std::string grouped( U64 number );

/// `count` of something: "1 entry", "2 entries". `many` is the plural.
std::string counted( U64 count, std::string_view one, std::string_view many );

} // namespace TesselTool
