// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Frames.h"

#include "Tessel/TableManager.h"
#include "tools/tessel/Failure.h"
#include "tools/tessel/Text.h"

#include <algorithm>
#include <array>
#include <optional>
#include <span>

namespace TesselTool {

namespace {

using Tessel::EmTableHeader;
using Tessel::EmTableTrailer;
using Vellum::VellumChunk;

constexpr U32 headerBytes = sizeof( EmTableHeader );
constexpr U32 trailerBytes = sizeof( EmTableTrailer );

template<class Record>
std::optional<Record> recordAt( VellumChunk const& chunk, U64 offset ) {
   if ( offset + sizeof( Record ) > chunk.size() ) {
      return std::nullopt;
   }
   Record record{};
   chunk.readAt( offset, &record, sizeof record );
   return record;
}

std::string nameIn( EmTableHeader const& header ) {
   auto const* const end = std::find( header.tableName.begin(), header.tableName.end(), '\0' );
   return { header.tableName.begin(), end };
}

// ------------------------------------------------------------------------- finding

/// Whether the fields agree with each other and with the header's place.
bool isHeader( EmTableHeader const& header, U64 offset ) {
   auto const* const name = std::find( header.tableName.begin(), header.tableName.end(), '\0' );
   return header.headerMagic == EmTableHeader::magic &&
          header.tableOffset == offset + headerBytes && name != header.tableName.end() &&
          std::all_of( name, header.tableName.end(), []( char c ) { return c == '\0'; } );
}

std::optional<Frame> frameAt( VellumChunk const& chunk, U64 offset ) {
   auto const header = recordAt<EmTableHeader>( chunk, offset );
   if ( !header || !isHeader( *header, offset ) ) {
      return std::nullopt;
   }
   auto const trailer =
      recordAt<EmTableTrailer>( chunk, U64{ header->tableOffset } + header->tableShadowSize );
   return Frame{ .name = nameIn( *header ),
                 .offset = header->tableOffset,
                 .shadowSize = header->tableShadowSize,
                 .intact = trailer && trailer->trailerMagic == EmTableTrailer::magic };
}

U64 endOf( Frame const& frame ) {
   return U64{ frame.offset } + frame.shadowSize + trailerBytes;
}

/// The chunk offsets, from one on, at which the first bytes of a header stand.
class MagicSearch {
 public:
   explicit MagicSearch( VellumChunk const& chunk ) : chunk_( chunk ) {}

   std::optional<U64> next( U64 from ) {
      constexpr std::string_view magic( "\x12\xef\xcd\xab", 4 );
      while ( from + magic.size() <= chunk_.size() ) {
         std::string_view const block = blockAt( from );
         if ( auto const at = block.find( magic ); at != std::string_view::npos ) {
            return from + at;
         }
         from += block.size() - ( magic.size() - 1 ); // one may begin at the block's end
      }
      return std::nullopt;
   }

 private:
   /// The bytes at `from`, up to the end of the block that was read last where that is enough.
   std::string_view blockAt( U64 from ) {
      if ( from < start_ || from + 4 > start_ + length_ ) {
         start_ = from;
         length_ = static_cast<U32>( std::min<U64>( block_.size(), chunk_.size() - from ) );
         chunk_.readAt( start_, block_.data(), length_ );
      }
      return std::string_view( block_.data(), length_ ).substr( from - start_ );
   }

   VellumChunk const& chunk_;
   std::array<char, 512> block_{}; // small: a read starts again when a writer was in its bytes
   U64 start_ = 0;
   U32 length_ = 0;
};

// ------------------------------------------------------------------------- checking

EmTableHeader headerOf( PlannedTable const& table ) {
   EmTableHeader header{ .headerMagic = EmTableHeader::magic,
                         .tableName = {},
                         .tableShadowSize = table.shadowSize,
                         .tableOffset = table.offset };
   table.name.copy( header.tableName.data(), EmTableHeader::nameCapacity - 1 );
   return header;
}

enum class RecordState { there, notYet, other };

/// A record that was not yet written to its end has a zero first byte and, behind it, zeros and
/// bytes of the record.
template<class Record>
RecordState stateOf( VellumChunk const& chunk, U64 offset, Record const& planned ) {
   using Bytes = std::array<U8, sizeof( Record )>;
   Record there{};
   chunk.readAt( offset, &there, sizeof there );
   if ( there == planned ) {
      return RecordState::there;
   }
   auto const found = std::bit_cast<Bytes>( there );
   auto const wanted = std::bit_cast<Bytes>( planned );
   bool const begun = std::equal(
      found.begin(), found.end(), wanted.begin(), []( U8 f, U8 w ) { return f == 0 || f == w; } );
   return found[ 0 ] == 0 && begun ? RecordState::notYet : RecordState::other;
}

RecordState headerState( VellumChunk const& chunk, PlannedTable const& table ) {
   return stateOf( chunk, U64{ table.offset } - headerBytes, headerOf( table ) );
}

RecordState trailerState( VellumChunk const& chunk, PlannedTable const& table ) {
   return stateOf(
      chunk, U64{ table.offset } + table.shadowSize, EmTableTrailer{ EmTableTrailer::magic } );
}

bool isZero( VellumChunk const& chunk, U64 offset, U64 length ) {
   std::array<char, 512> block{}; // as in MagicSearch
   while ( length > 0 ) {
      auto const bytes = static_cast<U32>( std::min<U64>( block.size(), length ) );
      chunk.readAt( offset, block.data(), bytes );
      auto const read = std::span( block ).first( bytes );
      if ( std::any_of( read.begin(), read.end(), []( char c ) { return c != '\0'; } ) ) {
         return false;
      }
      offset += bytes;
      length -= bytes;
   }
   return true;
}

[[noreturn]] void refuse( VellumChunk const& chunk, std::string_view what ) {
   throw Failure( joined( "chunk ",
                          inQuotes( chunk.name() ),
                          " does not match the plan: ",
                          what,
                          "; nothing was changed: correct the plan" ) );
}

/// What stands where the table's header belongs.
std::string otherThan( VellumChunk const& chunk, PlannedTable const& table ) {
   auto const there = recordAt<EmTableHeader>( chunk, table.offset - headerBytes );
   if ( !there || !isHeader( *there, table.offset - headerBytes ) ) {
      return "something that is no header";
   }
   if ( std::string const name = nameIn( *there ); name != table.name ) {
      return joined( "the header of a table ", inQuotes( name ) );
   }
   return joined( "a header that says ", there->tableShadowSize, " bytes" );
}

[[noreturn]] void refuseHeader( VellumChunk const& chunk, PlannedTable const& table ) {
   refuse( chunk,
           joined( "at offset ",
                   table.offset - headerBytes,
                   ", where the header of table ",
                   inQuotes( table.name ),
                   " with ",
                   table.shadowSize,
                   " bytes belongs, stands ",
                   otherThan( chunk, table ) ) );
}

void checkTrailer( VellumChunk const& chunk, PlannedTable const& table, bool framed ) {
   RecordState const trailer = trailerState( chunk, table );
   // The manager writes the trailer first, so there is no header without one.
   if ( trailer == RecordState::other || ( framed && trailer == RecordState::notYet ) ) {
      refuse( chunk,
              joined( "the trailer of table ",
                      inQuotes( table.name ),
                      " at offset ",
                      U64{ table.offset } + table.shadowSize,
                      " is damaged" ) );
   }
}

/// Whether the table's header is there.
bool checkTable( VellumChunk const& chunk, PlannedTable const& table, FrameUse use ) {
   RecordState header = headerState( chunk, table );
   if ( header == RecordState::notYet && !isZero( chunk, table.offset, table.shadowSize ) ) {
      // Entries follow their header, which an agent may have written just now.
      header = headerState( chunk, table );
      if ( header == RecordState::notYet ) {
         refuseHeader( chunk, table );
      }
   }
   if ( header == RecordState::other ) {
      refuseHeader( chunk, table );
   }
   bool const framed = header == RecordState::there;
   if ( use == FrameUse::writing ) {
      checkTrailer( chunk, table, framed );
   }
   return framed;
}

/// Zeros may also be the free slots of somebody else's table.
void checkNobodyElse( VellumChunk const& chunk, Plan const& plan ) {
   U64 const first = plan.startOffset;
   U64 const last = U64{ plan.tables.back().offset } + plan.tables.back().shadowSize;
   for ( Frame const& frame : findFrames( chunk ) ) {
      bool const planned =
         std::any_of( plan.tables.begin(), plan.tables.end(), [ & ]( PlannedTable const& table ) {
            return table.kind == TableKind::exact && table.offset == frame.offset;
         } );
      if ( !planned && frame.offset - headerBytes < last && endOf( frame ) > first ) {
         refuse( chunk,
                 joined( "table ",
                         inQuotes( frame.name ),
                         " at offset ",
                         frame.offset,
                         " lies where the plan has other tables" ) );
      }
   }
}

} // namespace

std::vector<Frame> findFrames( VellumChunk const& chunk ) {
   std::vector<Frame> frames;
   MagicSearch search( chunk );
   for ( auto at = search.next( 0 ); at; ) {
      U64 from = *at + 1;
      if ( auto frame = frameAt( chunk, *at ) ) {
         from = frame->intact ? endOf( *frame ) : frame->offset;
         frames.push_back( std::move( *frame ) );
      }
      at = search.next( from );
   }
   return frames;
}

void checkFrames( VellumChunk const& chunk, Plan const& plan, FrameUse use ) {
   bool allFramed = true;
   for ( PlannedTable const& table : plan.tables ) {
      if ( table.kind == TableKind::exact ) {
         allFramed = checkTable( chunk, table, use ) && allFramed;
      }
   }
   if ( !allFramed && use == FrameUse::writing ) {
      checkNobodyElse( chunk, plan );
   }
}

} // namespace TesselTool
