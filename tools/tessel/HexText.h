// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Bytes as hexadecimal text.
///
/// Threads: functions of their arguments alone.

#include <span>
#include <string>
#include <string_view>

namespace TesselTool {

/// Two lower-case digits for each byte, nothing between them.
std::string hexOf( std::string_view bytes );
/// As hexOf, at the end of `text`.
void appendHex( std::string& text, std::string_view bytes );

/// Reads exactly target.size() bytes: two digits of either case each, with or without one ':' or '.'
/// between two bytes. Returns what is wrong with the text, as the end of a sentence that begins with
/// it ("has 7 bytes, 8 are needed"); empty when nothing is. Without success the contents of `target`
/// are unspecified.
std::string parseHex( std::string_view text, std::span<char> target );

} // namespace TesselTool
