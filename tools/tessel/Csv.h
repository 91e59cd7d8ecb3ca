// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Entries as lines: chip,key,result with a decimal chip, 0 to 255, and bytes in the formats of
/// their table.
///
/// Blank lines are skipped, and so is everything from a '#' on. Blanks around fields, carriage
/// returns at line ends, a byte-order mark in front, and a last line without an end are accepted.
///
/// Threads: plain values.

#include "Tessel/EmTable.h"
#include "tools/tessel/ByteFormat.h"

#include <array>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace TesselTool {

/// How keys and results are written.
struct CsvFormats {
   ByteFormat key = ByteFormat::hex;
   ByteFormat result = ByteFormat::hex;
};

/// The lengths in use are those of the table that the input is for.
struct CsvEntry {
   U8 chip = 0;
   std::array<char, Tessel::MAX_KEY_LENGTH_IN_BYTE> key{};
   std::array<char, Tessel::MAX_RESULT_LENGTH_IN_BYTE> result{};
};

struct BadLine {
   U64 number = 0; ///< from 1
   std::string problem;
};

struct CsvInput {
   static constexpr std::size_t shownBadLines = 20;

   std::vector<CsvEntry> entries;   ///< in the order of their lines
   std::vector<BadLine> firstBad{}; ///< the first shownBadLines of them
   U64 badLines = 0;
};

/// A chip number; nothing when the text is none.
std::optional<U8> parseChip( std::string_view text );

/// Reads to the end of the stream. A line is bad when it is no entry of a table with keys of
/// `keyBytes` bytes and results of `resultBytes`, both within the limits and the formats'. Lines of
/// any length are taken without holding more than 4096 bytes of them. Whether the stream itself
/// failed is for the caller to ask it.
CsvInput
readCsv( std::istream& stream, U32 keyBytes, U32 resultBytes, CsvFormats const& formats = {} );

/// One line, with its end.
void appendCsvLine( std::string& text,
                    U8 chip,
                    std::string_view key,
                    std::string_view result,
                    CsvFormats const& formats = {} );

} // namespace TesselTool
