// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Plan.h"

#include "Tessel/TableManager.h"
#include "tools/tessel/Failure.h"
#include "tools/tessel/PlanJson.h"
#include "tools/tessel/Text.h"

#include <algorithm>
#include <array>
#include <climits>
#include <fstream>

namespace TesselTool {

namespace {

using Json = nlohmann::json;

constexpr U64 addressableBytes = U64{ 1 } << 32;
constexpr std::size_t longestName = Tessel::EmTableHeader::nameCapacity - 1;

std::string pathOf( std::size_t table, std::string_view field = {} ) {
   return joined( "tables[", table, ']', field.empty() ? "" : ".", field );
}

// ------------------------------------------------------------------------- placing

void checkLength( U32 length, U32 limit, std::string const& path ) {
   if ( length > limit ) {
      throw Failure( joined(
         path, ": an exact-match table takes at most ", limit, " bytes here, not ", length ) );
   }
}

void checkLimits( PlannedTable const& table, std::size_t index ) {
   checkLength( table.key, Tessel::MAX_KEY_LENGTH_IN_BYTE, pathOf( index, "key" ) );
   checkLength( table.result, Tessel::MAX_RESULT_LENGTH_IN_BYTE, pathOf( index, "result" ) );
}

void checkEnd( U64 end, U64 limit, std::string_view what, std::string const& path ) {
   if ( end > limit ) {
      throw Failure( joined( path,
                             ": does not fit: its frame would end at byte ",
                             end,
                             ", but ",
                             what,
                             " ends at byte ",
                             limit ) );
   }
}

/// Where the next table begins.
U64 place( PlannedTable& table, U64 start, Plan const& plan, std::size_t index ) {
   if ( table.kind == TableKind::direct ) {
      table.offset = static_cast<U32>( start );
      table.shadowSize = 0;
      return start;
   }
   checkLimits( table, index );
   auto const geometry = Tessel::emTableHelperFactory( table.entries, table.key, table.result );
   U64 const offset = start + sizeof( Tessel::EmTableHeader );
   U64 const bytes = Tessel::EmShadowTable::rangeBytes( *geometry );
   U64 const end = offset + bytes + sizeof( Tessel::EmTableTrailer );
   U64 const allowedEnd = U64{ plan.startOffset } + plan.allowedSize;
   checkEnd( end, allowedEnd, "the allowed size", pathOf( index ) );
   checkEnd( end, plan.size, "the chunk", pathOf( index ) );
   table.offset = static_cast<U32>( offset );
   table.shadowSize = static_cast<U32>( bytes );
   return end;
}

// ------------------------------------------------------------------------- reading

TableKind kindIn( Fields& fields ) {
   std::string const kind = fields.text( "kind" );
   if ( kind == "direct" ) {
      return TableKind::direct;
   }
   if ( kind != "exact" ) {
      fields.refuse( "kind",
                     joined( "unknown kind ", inQuotes( kind ), "; kinds are direct and exact" ) );
   }
   return TableKind::exact;
}

std::string tableNameIn( Fields& fields ) {
   std::string name = fields.text( "name" );
   if ( name.empty() || name.find( '\0' ) != std::string::npos ) {
      fields.refuse( "name", "must be a text of at least one byte, without a zero byte" );
   }
   if ( name.size() > longestName ) {
      fields.refuse(
         "name", joined( "has ", name.size(), " bytes, but a table's frame keeps ", longestName ) );
   }
   return name;
}

std::string chunkNameIn( Fields& fields ) {
   std::string name = fields.text( "chunk" );
   if ( !isChunkName( name ) ) {
      fields.refuse( "chunk",
                     joined( inQuotes( name ),
                             " is no chunk name: a slash and 1 to ",
                             NAME_MAX - 1,
                             " bytes without a slash are needed" ) );
   }
   return name;
}

/// How bytes are shown, as the field says, which may be left out.
ByteFormat formatIn( Fields& fields, std::string_view field, U32 bytes ) {
   std::string const name = fields.textOr( field, nameOf( ByteFormat::hex ) );
   auto const format = byteFormatOf( name );
   if ( !format ) {
      fields.refuse(
         field,
         joined( "unknown format ", inQuotes( name ), suggestion( name, byteFormatNames() ) ) );
   }
   if ( std::string const problem = lengthProblem( *format, bytes ); !problem.empty() ) {
      fields.refuse( field, joined( name, ' ', problem ) );
   }
   return *format;
}

PlannedTable tableIn( Json const& json, std::size_t index ) {
   constexpr std::array<std::string_view, 7> known{ "name",   "kind",      "entries",     "key",
                                                    "result", "keyFormat", "resultFormat" };
   Fields fields( json, pathOf( index ), known );
   PlannedTable table{ .name = tableNameIn( fields ),
                       .kind = kindIn( fields ),
                       .entries = fields.number( "entries" ),
                       .key = fields.number( "key" ),
                       .result = fields.number( "result" ) };
   table.keyFormat = formatIn( fields, "keyFormat", table.key );
   table.resultFormat = formatIn( fields, "resultFormat", table.result );
   return table;
}

std::vector<PlannedTable> tablesIn( Fields& fields ) {
   Json const& list = fields.list( "tables" );
   std::vector<PlannedTable> tables;
   for ( std::size_t i = 0; i < list.size(); ++i ) {
      tables.push_back( tableIn( list[ i ], i ) );
      auto const same = [ & ]( PlannedTable const& t ) { return t.name == tables.back().name; };
      auto const first = std::find_if( tables.begin(), tables.end(), same );
      if ( first != tables.end() - 1 ) {
         throw Failure( joined( pathOf( i, "name" ),
                                ": ",
                                inQuotes( first->name ),
                                " is the name of ",
                                pathOf( static_cast<std::size_t>( first - tables.begin() ) ),
                                " already" ) );
      }
   }
   return tables;
}

Plan planIn( Json const& json ) {
   constexpr std::array<std::string_view, 6> known{ "agent",       "chunk",       "size",
                                                    "startOffset", "allowedSize", "tables" };
   Fields fields( json, "", known );
   Plan plan{ .agent = fields.text( "agent" ),
              .chunk = chunkNameIn( fields ),
              .size = fields.number( "size" ),
              .startOffset = fields.number( "startOffset" ),
              .allowedSize = fields.number( "allowedSize" ),
              .tables = tablesIn( fields ) };
   placeTables( plan );
   return plan;
}

} // namespace

bool isChunkName( std::string_view name ) {
   return name.size() >= 2 && name.size() <= NAME_MAX && name.front() == '/' &&
          name.find( '/', 1 ) == std::string_view::npos &&
          name.find( '\0' ) == std::string_view::npos && name != "/." && name != "/..";
}

std::string_view nameOf( TableKind kind ) {
   return kind == TableKind::direct ? "direct" : "exact";
}

void placeTables( Plan& plan ) {
   if ( plan.size == 0 ) {
      throw Failure( "size: a chunk needs at least 1 byte" );
   }
   if ( plan.startOffset > plan.size ) {
      throw Failure( joined(
         "startOffset: ", plan.startOffset, " lies outside the chunk of ", plan.size, " bytes" ) );
   }
   if ( U64{ plan.startOffset } + plan.allowedSize > addressableBytes ) {
      throw Failure(
         joined( "allowedSize: startOffset and allowedSize together pass ", addressableBytes ) );
   }
   U64 start = plan.startOffset;
   for ( std::size_t i = 0; i < plan.tables.size(); ++i ) {
      start = place( plan.tables[ i ], start, plan, i );
   }
}

Plan parsePlan( std::string_view json, std::string_view source ) {
   try {
      return planIn( parseStrictly( json ) );
   } catch ( Failure const& failure ) {
      throw Failure( joined( source, ": ", failure.what() ) );
   }
}

Plan readPlan( std::string const& path ) {
   constexpr std::streamsize largest = 16 << 20;
   if ( path.empty() ) {
      throw Failure( "an empty word names no plan: name its file", ExitStatus::usage );
   }
   std::ifstream file( path, std::ios::binary );
   if ( !file ) {
      throw Failure(
         joined( path,
                 ": cannot be opened: ",
                 std::generic_category().message( errno ),
                 errno == ENOENT ? "; name an agent's plan, or have tessel init write one" : "" ) );
   }
   std::string text( static_cast<std::size_t>( largest ) + 1, '\0' );
   file.read( text.data(), largest + 1 );
   if ( file.bad() ) {
      throw Failure( joined( path, ": cannot be read: is it a file?" ) );
   }
   if ( file.gcount() > largest ) {
      throw Failure( joined( path, ": is larger than 16 MiB, which no plan is" ) );
   }
   text.resize( static_cast<std::size_t>( file.gcount() ) );
   return parsePlan( text, path );
}

PlannedTable const& plannedTable( Plan const& plan, std::string_view name ) {
   std::vector<std::string_view> names;
   for ( PlannedTable const& table : plan.tables ) {
      if ( table.name == name ) {
         return table;
      }
      names.emplace_back( table.name );
   }
   throw Failure(
      joined( "the plan has no table ", inQuotes( name ), suggestion( name, names, inQuotes ) ) );
}

} // namespace TesselTool
