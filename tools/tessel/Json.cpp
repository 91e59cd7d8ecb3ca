// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Json.h"

#include "tools/tessel/Text.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <iomanip>

namespace TesselTool {

namespace {

bool isPlain( std::string_view text ) {
   return std::all_of( text.begin(), text.end(), []( char c ) {
      return c >= ' ' && c <= '~' && c != '"' && c != '\\';
   } );
}

} // namespace

std::string jsonText( std::string_view text ) {
   if ( isPlain( text ) ) { // millions of entries are
      return '"' + std::string( text ) + '"';
   }
   return nlohmann::json( text ).dump( -1, ' ', false, nlohmann::json::error_handler_t::replace );
}

std::string jsonList( std::span<std::string const> values ) {
   std::string list;
   for ( std::string const& value : values ) {
      list += list.empty() ? "" : ",";
      list += value;
   }
   return '[' + list + ']';
}

JsonObject& JsonObject::text( std::string_view name, std::string_view value ) {
   return json( name, jsonText( value ) );
}

JsonObject& JsonObject::number( std::string_view name, U64 value ) {
   return json( name, std::to_string( value ) );
}

JsonObject& JsonObject::fraction( std::string_view name, double value ) {
   return json( name, joined( std::fixed, std::setprecision( 1 ), value ) );
}

JsonObject& JsonObject::flag( std::string_view name, bool value ) {
   return json( name, value ? "true" : "false" );
}

JsonObject& JsonObject::json( std::string_view name, std::string_view value ) {
   fields_ += fields_.empty() ? "" : ",";
   fields_ += jsonText( name );
   fields_ += ':';
   fields_ += value;
   return *this;
}

} // namespace TesselTool
