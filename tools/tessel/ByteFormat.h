// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Keys and results as people write them:
///
///    format   bytes      shown as            also read
///    hex      any        00aaff              00:aa:ff, 00.aa.ff
///    mac      6 or 8     02:00:5e:00:53:01   02005e005301, 0200.5e00.5301
///    ipv4     4          192.0.2.1           c0000201, c0:00:02:01
///    ipv6     16         2001:db8::1         hex digits, with ':' between bytes
///    uint     1 to 8     4094                0xffe, 0f:fe
///
/// A number's bytes are high byte first. A '.' in an ipv4 always stands between decimal numbers.
/// Digits of a uint without 0x are decimal, and a 0 in front of others is refused: it would be taken
/// for the bare hex of the JSON form.
///
/// Threads: functions of their arguments alone.

#include "Weft/Types.h"

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace TesselTool {

enum class ByteFormat : U8 { hex, mac, ipv4, ipv6, uint };

/// The names in the order of the enumerators.
std::span<std::string_view const> byteFormatNames();
std::string_view nameOf( ByteFormat format );
std::optional<ByteFormat> byteFormatOf( std::string_view name );

/// What is wrong with so many bytes in this format ("takes 4 bytes, not 6"); empty when nothing is.
std::string lengthProblem( ByteFormat format, U32 bytes );

/// The bytes, of which there are as many as the format takes, at the end of `text`.
void appendText( std::string& text, ByteFormat format, std::string_view bytes );
std::string textOf( ByteFormat format, std::string_view bytes );
/// Characters of the longest text of so many bytes.
std::size_t widestText( ByteFormat format, U32 bytes );

/// Reads exactly target.size() bytes. Answers as parseHex.
std::string parseBytes( ByteFormat format, std::string_view text, std::span<char> target );

} // namespace TesselTool
