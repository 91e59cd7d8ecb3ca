// SPDX-License-Identifier: Apache-2.0
#include "fuzz/Targets.h"

#include "Tessel/TableManager.h"
#include "Weft/TypeInfo.h"
#include "WeftCorvo/Entities.h"
#include "support/Slots.h"
#include "support/Tables.h"
#include "tools/tessel/Csv.h"
#include "tools/tessel/Failure.h"
#include "tools/tessel/SlotScan.h"
#include "tools/tessel/Verify.h"

#include <cstdio>
#include <cstdlib>
#include <set>
#include <sstream>

namespace Fuzz {

namespace {

using namespace TestSupport;
using namespace Tessel;

void require( bool kept, char const* promise ) {
   if ( !kept ) {
      std::fprintf( stderr, "broken: %s\n", promise );
      std::abort();
   }
}

std::string_view textOf( Input input ) {
   return { reinterpret_cast<char const*>( input.data() ), input.size() };
}

/// What a table says of itself agrees, over whatever bytes.
void requireSound( EmShadowTable const& table ) {
   auto const reader = emShadowTableReaderFactory( Corvo::Ptr<EmShadowTable const>( &table ) );
   U32 walked = 0;
   U32 marked = 0;
   U32 counted = 0;
   for ( auto at = table.managedTableIteratorConst(); at; at.doInc() ) {
      Corvo::Bytes const key = at.key_py();
      auto const slot = table.getTableIndex( at.chipId(), EntryKey( key ) );
      require( slot.valid(), "what is walked is found" );
      require( reader->entryHas_py( at.chipId(), key ), "what is walked is read" );
      require( table.entry_py( at.chipId(), key ).size() ==
                  table.tableHelper()->resultLengthBytes(),
               "a result has the table's length" );
      ++walked;
   }
   for ( U32 slot = 0; slot < table.tableHelper()->numEntries(); ++slot ) {
      bool const used = imageAt( table, slot )[ 0 ] != 0;
      require( table.freeIndexBmp()->bit( slot ) != used, "the bitmap says which slots are used" );
      marked += used;
   }
   for ( U32 chip = 0; chip < 256; ++chip ) {
      counted += table.numUsedEntriesByChipId( Brine::ChipId( static_cast<U8>( chip ) ) );
   }
   require( walked == marked && marked == table.numUsedEntries() && counted == marked,
            "walk, bitmap and counts agree" );
   require( table.keyToIndexListCount() <= marked, "every key has a slot" );
}

/// Other bytes behind the table's back: anything may be answered, nothing may break.
void disturb( EmShadowTable& table, Input bytes ) {
   auto const reader = emShadowTableReaderFactory( Corvo::Ptr<EmShadowTable const>( &table ) );
   std::string buffer( MAX_KEY_LENGTH_IN_BYTE, '\0' );
   U32 const range = table.tableShadowSize();
   for ( std::size_t i = 0; i + 1 < bytes.size() && range != 0; i += 2 ) {
      table.vellumChunk()->write( table.vellumOffset() + bytes[ i ] % range, &bytes[ i + 1 ], 1 );
   }
   for ( EmTableEntry const& entry : table.entries() ) {
      reader->entry( entry.chipId(), buffer.data(), buffer.data() );
      if ( entry.valid() ) {
         reader->entry_py( entry.chipId(), entry.key().bytes() );
      }
   }
   table.reconcile();
}

/// Entries come out however often their pair is there: each round finds one slot of a pair.
void requireEmptied( Chunk const& chunk, Geometry geometry, U32 offset ) {
   for ( U32 round = 0; round <= geometry.entries; ++round ) {
      Table const table = tableOver( chunk, geometry, offset );
      requireSound( *table );
      if ( table->numUsedEntries() == 0 ) {
         return;
      }
      table->clearTable();
   }
   require( false, "a table is empty at last" );
}

/// What `tessel verify` says of the slots of a table is what is wrong with them.
void requireNamed( Vellum::VellumChunk const& chunk, TesselTool::PlannedTable const& table ) {
   U32 const length = TesselTool::slotBytes( table.key, table.result );
   std::set<U64> wrong;
   std::set<std::string> pairs;
   for ( U32 slot = 0; slot < table.entries; ++slot ) {
      std::string image( length, '#' );
      chunk.read( table.offset + slot * length, image.data(), length );
      bool const used = image[ 0 ] != 0;
      std::string const zeros = used ? image.substr( 2 + table.key + table.result ) : image;
      bool const sound =
         static_cast<U8>( image[ 0 ] ) <= 1 && zeros.find_first_not_of( '\0' ) == std::string::npos;
      bool const twice = used && !pairs.insert( image.substr( 1, 1 + table.key ) ).second;
      if ( !sound || twice ) {
         wrong.insert( slot );
      }
   }
   std::set<U64> named;
   TesselTool::verifySlots(
      chunk,
      table,
      [ & ]( auto const& problem ) { named.insert( ( problem.offset - table.offset ) / length ); },
      [] {} );
   require( named == wrong, "verify names the slots that are wrong, and no others" );
}

/// The tool's looks into a chunk.
void inspect( Vellum::VellumChunk const& chunk, Geometry geometry, U32 offset ) {
   auto const frames = TesselTool::findFrames( chunk );
   auto const problems = TesselTool::problemsOf( chunk, frames );
   for ( auto const& frame : frames ) {
      require( !frame.intact || U64{ frame.offset } + frame.shadowSize + 8 <= chunk.size(),
               "an intact frame lies within its chunk" );
      require( frame.intact || !problems.empty(), "verify names a frame that is not intact" );
   }
   TesselTool::Plan plan{ .agent = "a",
                          .chunk = "/c",
                          .size = chunk.size(),
                          .startOffset = offset,
                          .allowedSize = chunk.size() - offset,
                          .tables = { { .name = "mac",
                                        .entries = geometry.entries,
                                        .key = geometry.key,
                                        .result = geometry.result } } };
   try {
      TesselTool::placeTables( plan );
      requireNamed( chunk, plan.tables[ 0 ] );
      TesselTool::checkForWriting( chunk, plan );
   } catch ( TesselTool::Failure const& ) {
      return;
   }
}

void takeOver( Chunk const& chunk, Geometry geometry, U32 offset, Input changes ) {
   Table const table = tableOver( chunk, geometry, offset );
   requireSound( *table );
   std::string const key( geometry.key, 'k' );
   bool const added = add( table, Brine::ChipId( 7 ), key, std::string( 12, 'r' ) );
   require( added == table->entryHas( Brine::ChipId( 7 ), key.data() ), "what is added is there" );
   table->deleteAll( Brine::ChipId( changes[ 0 ] ) );
   requireSound( *tableOver( chunk, geometry, offset ) );
   disturb( *table, changes );
   requireEmptied( chunk, geometry, offset );
}

} // namespace

void recovery( Input input ) {
   constexpr std::size_t choices = 8;
   if ( input.size() <= choices ) {
      return;
   }
   Input const bytes = input.subspan( choices );
   auto const chunk = Vellum::VellumChunk::inProcess( static_cast<U32>( bytes.size() ) );
   for ( U32 at = 0; at < bytes.size(); ++at ) {
      chunk->write( at, &bytes[ at ], 1 );
   }
   Geometry const geometry{ .entries = input[ 0 ],
                            .key = input[ 1 ] % ( MAX_KEY_LENGTH_IN_BYTE + 1 ),
                            .result = input[ 2 ] % ( MAX_RESULT_LENGTH_IN_BYTE + 1 ) };
   U32 const offset = input[ 3 ] % chunk->size();
   inspect( *chunk, geometry, offset );
   try {
      takeOver( chunk, geometry, offset, input.subspan( 4, 4 ) );
   } catch ( Weft::ContractFailure const& failure ) {
      U64 const end = offset + Tessel::EmShadowTable::rangeBytes( *helperOf( geometry ) );
      require( failure.condition() == "offset + length <= size()" && end > chunk->size(),
               "only a table that does not fit is refused" );
   }
}

void stringForm( Input input ) {
   if ( input.empty() ) {
      return;
   }
   std::vector<Weft::TypeInfo const*> values;
   for ( Weft::Module const* const module : Weft::modules() ) {
      for ( Weft::TypeInfo const& type : module->types() ) {
         if ( type.kind() == Weft::TypeKind::value ) {
            values.push_back( &type );
         }
      }
   }
   Weft::TypeInfo const& type = *values[ input[ 0 ] % values.size() ];
   auto const parsed = [ & ]( std::string_view text ) {
      return AnySlot( type, [ & ]( void* memory ) { type.fromStringForm( memory, text ); } );
   };
   try {
      std::string const form = parsed( textOf( input.subspan( 1 ) ) ).text();
      require( parsed( form ).text() == form, "a string form reads back" );
   } catch ( Weft::ParseError const& ) {
      return;
   } catch ( Weft::ContractFailure const& ) { // an iterator over no table
      return;
   }
}

void plan( Input input ) {
   try {
      TesselTool::Plan const plan = TesselTool::parsePlan( textOf( input ), "plan" );
      U64 end = plan.startOffset;
      for ( auto const& table : plan.tables ) {
         require( table.offset >= end && table.name.size() < 32, "tables lie behind each other" );
         end = U64{ table.offset } + table.shadowSize;
      }
      require( end <= plan.size && end <= U64{ plan.startOffset } + plan.allowedSize,
               "every table lies within the chunk and the agent's part" );
   } catch ( TesselTool::Failure const& failure ) {
      require( std::string_view( failure.what() ).starts_with( "plan: " ),
               "a failure names the plan" );
   }
}

void csv( Input input ) {
   if ( input.size() < 2 ) {
      return;
   }
   U32 const keyBytes = input[ 0 ] % ( MAX_KEY_LENGTH_IN_BYTE + 1 );
   U32 const resultBytes = input[ 1 ] % ( MAX_RESULT_LENGTH_IN_BYTE + 1 );
   std::string const text( textOf( input.subspan( 2 ) ) );
   auto const read = [ & ]( std::string const& lines ) {
      std::istringstream stream( lines );
      return TesselTool::readCsv( stream, keyBytes, resultBytes );
   };
   TesselTool::CsvInput const first = read( text );
   auto const ends = static_cast<U64>( std::count( text.begin(), text.end(), '\n' ) );
   require( first.entries.size() + first.badLines <= ends + 1, "a line is one entry at most" );
   std::string written;
   for ( auto const& entry : first.entries ) {
      TesselTool::appendCsvLine( written,
                                 entry.chip,
                                 { entry.key.data(), keyBytes },
                                 { entry.result.data(), resultBytes } );
   }
   TesselTool::CsvInput const again = read( written );
   require( again.badLines == 0 && again.entries.size() == first.entries.size(),
            "what is written is read" );
   for ( std::size_t i = 0; i < first.entries.size(); ++i ) {
      require( first.entries[ i ].chip == again.entries[ i ].chip &&
                  first.entries[ i ].key == again.entries[ i ].key &&
                  first.entries[ i ].result == again.entries[ i ].result,
               "what is written is read as it was" );
   }
}

} // namespace Fuzz
