// SPDX-License-Identifier: Apache-2.0
#pragma once

/// JSON as a plan has it: nothing is guessed, nothing is ignored. Failures name a field by its path,
/// "tables[1].key".
///
/// Threads: plain values.

#include "Weft/Types.h"

#include <nlohmann/json.hpp>

#include <span>
#include <string>
#include <string_view>

namespace TesselTool {

/// The value that the text holds. Failure, with line and column, when it is no JSON; with its path,
/// when a field is given twice.
nlohmann::json parseStrictly( std::string_view text );

/// The fields of one object, each required unless it says otherwise. The object outlives this.
class Fields {
 public:
   /// `path` is the object's own, empty at the top. Failure when `json` is no object or holds a
   /// field that is not `known`.
   Fields( nlohmann::json const& json, std::string path, std::span<std::string_view const> known );

   // Failure when the field is missing or of another type.

   std::string text( std::string_view field ) const;
   /// The same; `absent` when the field is missing.
   std::string textOr( std::string_view field, std::string_view absent ) const;
   /// A whole number, 0 to 4294967295.
   U32 number( std::string_view field ) const;
   nlohmann::json const& list( std::string_view field ) const;

   /// Failure: the field's path, and what is wrong with it.
   [[noreturn]] void refuse( std::string_view field, std::string_view problem ) const;

 private:
   nlohmann::json const& value( std::string_view field ) const;
   std::string pathOf( std::string_view field ) const;

   nlohmann::json const& json_;
   std::string path_;
};

} // namespace TesselTool
