// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/PlanJson.h"

#include "tools/tessel/Failure.h"
#include "tools/tessel/Text.h"

#include <algorithm>
#include <limits>
#include <set>
#include <vector>

namespace TesselTool {

namespace {

using Json = nlohmann::json;

/// Follows the parser and refuses a field that its object has already: the parsed value would keep
/// only one of the two.
class RepeatedFields {
 public:
   void operator()( Json::parse_event_t event, Json const& parsed ) {
      switch ( event ) {
      case Json::parse_event_t::object_start:
         levels_.push_back( { .isList = false } );
         break;
      case Json::parse_event_t::array_start:
         levels_.push_back( { .isList = true } );
         break;
      case Json::parse_event_t::key:
         enterField( parsed.get<std::string>() );
         break;
      case Json::parse_event_t::object_end:
      case Json::parse_event_t::array_end:
         levels_.pop_back();
         [[fallthrough]];
      case Json::parse_event_t::value:
         leaveMember();
         break;
      }
   }

 private:
   struct Level {
      bool isList;
      std::size_t index = 0;
      std::set<std::string, std::less<>> fields = {};
      std::string field = {};
   };

   void enterField( std::string const& field ) {
      levels_.back().field = field;
      if ( !levels_.back().fields.insert( field ).second ) {
         throw Failure( path() + ": is given twice" );
      }
   }
   void leaveMember() {
      if ( !levels_.empty() ) {
         ++levels_.back().index;
      }
   }
   std::string path() const {
      std::string path;
      for ( Level const& level : levels_ ) {
         if ( level.isList ) {
            path += joined( '[', level.index, ']' );
         } else {
            path += joined( path.empty() ? "" : ".", level.field );
         }
      }
      return path;
   }

   std::vector<Level> levels_;
};

/// The parser's message without its own name: "line 3, column 5: syntax error …".
std::string withoutPrefix( std::string_view message ) {
   for ( std::string_view const prefix : { "] ", "parse error at " } ) {
      if ( auto const at = message.find( prefix ); at != std::string_view::npos ) {
         message.remove_prefix( at + prefix.size() );
      }
   }
   constexpr std::size_t longest = 200; // it quotes the text, which may be anything
   return std::string( message.substr( 0, longest ) );
}

std::string shown( Json const& value ) {
   if ( value.is_structured() ) {
      return value.is_array() ? "a list" : "an object";
   }
   std::string const text = value.dump( -1, ' ', false, Json::error_handler_t::replace );
   constexpr std::size_t longest = 40;
   return text.size() > longest ? text.substr( 0, longest ) + "..." : text;
}

} // namespace

Json parseStrictly( std::string_view text ) {
   RepeatedFields repeated;
   auto const follow = [ & ]( int, Json::parse_event_t event, Json& parsed ) {
      repeated( event, parsed );
      return true;
   };
   try {
      return Json::parse( text, follow );
   } catch ( Json::exception const& problem ) {
      throw Failure( joined( "is no JSON: ", withoutPrefix( problem.what() ) ) );
   }
}

Fields::Fields( Json const& json, std::string path, std::span<std::string_view const> known )
      : json_( json ), path_( std::move( path ) ) {
   if ( !json.is_object() ) {
      std::string const whose = path_.empty() ? "the plan" : path_ + ":";
      throw Failure( joined( whose, " must be an object, not ", shown( json ) ) );
   }
   for ( auto const& [ field, value ] : json.items() ) {
      if ( std::find( known.begin(), known.end(), field ) == known.end() ) {
         refuse( field, "unknown field" + suggestion( field, known ) );
      }
   }
}

std::string Fields::text( std::string_view field ) const {
   Json const& found = value( field );
   if ( !found.is_string() ) {
      refuse( field, joined( "must be a text, not ", shown( found ) ) );
   }
   return found.get<std::string>();
}

std::string Fields::textOr( std::string_view field, std::string_view absent ) const {
   return json_.contains( field ) ? text( field ) : std::string( absent );
}

U32 Fields::number( std::string_view field ) const {
   constexpr U64 largest = std::numeric_limits<U32>::max();
   Json const& found = value( field );
   if ( !found.is_number_unsigned() || found.get<U64>() > largest ) {
      refuse( field,
              joined( "must be a whole number from 0 to ", largest, ", not ", shown( found ) ) );
   }
   return static_cast<U32>( found.get<U64>() );
}

Json const& Fields::list( std::string_view field ) const {
   Json const& found = value( field );
   if ( !found.is_array() ) {
      refuse( field, joined( "must be a list, not ", shown( found ) ) );
   }
   return found;
}

void Fields::refuse( std::string_view field, std::string_view problem ) const {
   throw Failure( joined( pathOf( field ), ": ", problem ) );
}

Json const& Fields::value( std::string_view field ) const {
   auto const found = json_.find( field );
   if ( found == json_.end() ) {
      refuse( field, "is missing" );
   }
   return *found;
}

std::string Fields::pathOf( std::string_view field ) const {
   return joined( path_, path_.empty() ? "" : ".", field );
}

} // namespace TesselTool
