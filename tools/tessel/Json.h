// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Answers as JSON. Bytes that are no UTF-8 stand as U+FFFD.
///
/// Threads: plain values.

#include "Weft/Types.h"

#include <span>
#include <string>
#include <string_view>

namespace TesselTool {

/// In quotes, with what JSON wants escaped.
std::string jsonText( std::string_view text );
/// `[a,b]` from values that are JSON already.
std::string jsonList( std::span<std::string const> values );

/// One object, with its fields in the order in which they come.
class JsonObject {
 public:
   JsonObject& text( std::string_view name, std::string_view value );
   JsonObject& number( std::string_view name, U64 value );
   /// With one digit behind the point.
   JsonObject& fraction( std::string_view name, double value );
   JsonObject& flag( std::string_view name, bool value );
   /// A value that is JSON already.
   JsonObject& json( std::string_view name, std::string_view value );

   std::string text() const { return '{' + fields_ + '}'; }

 private:
   std::string fields_;
};

} // namespace TesselTool
