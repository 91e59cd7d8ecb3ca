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

U64 startOf( Frame const& frame ) {
   return U64{ frame.offset } - headerBytes;
}

U64 trailerOf( Frame const& frame ) {
   return U64{ frame.offset } + frame.shadowSize;
}

U64 endOf( Frame const& frame ) {
   return trailerOf( frame ) + trailerBytes;
}

constexpr std::string_view headerMagic( "\x12\xef\xcd\xab", 4 );
constexpr std::string_view trailerMagic( "\x78\x56\x34\x12\xef\xcd\xab\x90", 8 );

/// The chunk offsets, from one on, at which the first bytes of a header or of a trailer stand.
class MagicSearch {
 public:
   MagicSearch( VellumChunk const& chunk, std::string_view magic )
         : chunk_( chunk ), magic_( magic ) {}

   std::optional<U64> next( U64 from ) {
      while ( enterStretch( from ) ) {
         std::string_view const block = blockAt( from );
         if ( auto const at = block.find( magic_ ); at != std::string_view::npos ) {
            return from + at;
         }
         // One may begin at the block's end, but none at the stretch's: its last byte is not zero.
         from += block.size() < magic_.size() ? block.size() : block.size() - magic_.size() + 1;
      }
      return std::nullopt;
   }

 private:
   /// Moves on to where the system has pages; what lies between is zero.
   bool enterStretch( U64& from ) {
      if ( from >= stretch_.end ) {
         stretch_ = chunk_.suppliedFrom( from );
      }
      from = std::max( from, stretch_.begin );
      return from < stretch_.end;
   }
   /// The bytes at `from`, up to the end of the block that was read last where that is enough.
   std::string_view blockAt( U64 from ) {
      if ( from < start_ || from + magic_.size() > start_ + length_ ) {
         start_ = from;
         length_ = static_cast<U32>( std::min<U64>( block_.size(), stretch_.end - from ) );
         chunk_.readAt( start_, block_.data(), length_ );
      }
      return std::string_view( block_.data(), length_ ).substr( from - start_ );
   }

   VellumChunk const& chunk_;
   std::string_view magic_;
   Vellum::Stretch stretch_{ .begin = 0, .end = 0 };
   std::array<char, 512> block_{}; // small: a read starts again when a writer was in its bytes
   U64 start_ = 0;
   U32 length_ = 0;
};

// ------------------------------------------------------------------------- verifying

using Problems = std::vector<FrameProblem>;

void addBroken( Problems& problems, VellumChunk const& chunk, Frame const& frame ) {
   if ( endOf( frame ) > chunk.size() ) {
      problems.push_back( { startOf( frame ),
                            frame.name,
                            joined( "the header says ",
                                    frame.shadowSize,
                                    " bytes, which do not fit into the chunk" ) } );
   } else if ( !frame.intact ) {
      problems.push_back( { trailerOf( frame ), frame.name, "the trailer is missing or damaged" } );
   }
}

void addOverlap( Problems& problems, Frame const& outer, Frame const& inner ) {
   problems.push_back(
      { startOf( inner ),
        inner.name,
        joined( "the frame lies within that of table ", inQuotes( outer.name ) ) } );
}

/// A whole frame among an intact one's entries is more than entries can look like by chance.
void addFramesWithin( Problems& problems, VellumChunk const& chunk, Frame const& outer ) {
   MagicSearch search( chunk, headerMagic );
   for ( auto at = search.next( outer.offset ); at && *at < trailerOf( outer ); ) {
      if ( auto const inner = frameAt( chunk, *at ); inner && inner->intact ) {
         addOverlap( problems, outer, *inner );
      }
      at = search.next( *at + 1 );
   }
}

/// Of a damaged frame the header alone is sure.
bool belongs( std::vector<Frame> const& frames, U64 offset ) {
   return std::any_of( frames.begin(), frames.end(), [ & ]( Frame const& frame ) {
      U64 const end = frame.intact ? endOf( frame ) : U64{ frame.offset };
      return startOf( frame ) <= offset && offset < end;
   } );
}

/// A trailer holds the first bytes of a header.
bool isWithinTrailer( VellumChunk const& chunk, U64 offset ) {
   constexpr U64 within = 3;
   if ( offset < within ) {
      return false;
   }
   auto const trailer = recordAt<EmTableTrailer>( chunk, offset - within );
   return trailer && trailer->trailerMagic == EmTableTrailer::magic;
}

void addLooseTrailers( Problems& problems,
                       VellumChunk const& chunk,
                       std::vector<Frame> const& frames ) {
   MagicSearch search( chunk, trailerMagic );
   for ( auto at = search.next( 0 ); at; at = search.next( *at + 1 ) ) {
      if ( !belongs( frames, *at ) ) {
         problems.push_back(
            { *at, "", "a trailer without a header: the table's header is missing or damaged" } );
      }
   }
}

/// A header but for one of its fields, which another's bytes hardly are.
bool isNearlyHeader( EmTableHeader const& header, U64 offset ) {
   EmTableHeader moved = header;
   moved.tableOffset = static_cast<U32>( offset + headerBytes );
   EmTableHeader unnamed = header;
   unnamed.tableName = {};
   bool const placed = isHeader( unnamed, offset );
   bool const named = isHeader( moved, offset ) && header.tableName[ 0 ] != '\0';
   return placed != named;
}

void addBrokenHeaders( Problems& problems,
                       VellumChunk const& chunk,
                       std::vector<Frame> const& frames ) {
   MagicSearch search( chunk, headerMagic );
   for ( auto at = search.next( 0 ); at; at = search.next( *at + 1 ) ) {
      auto const header = recordAt<EmTableHeader>( chunk, *at );
      if ( header && !belongs( frames, *at ) && !isWithinTrailer( chunk, *at ) &&
           isNearlyHeader( *header, *at ) ) {
         bool const misplaced = header->tableOffset != *at + headerBytes;
         problems.push_back(
            { *at,
              nameIn( *header ),
              misplaced ? joined( "the header says that its table lies at offset ",
                                  header->tableOffset,
                                  ", not behind it" )
                        : std::string( "the name in the header is no text that ends in zeros" ) } );
      }
   }
}

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

[[noreturn]] void refuseDamage( VellumChunk const& chunk, std::string_view what ) {
   throw Failure( joined( "chunk ",
                          inQuotes( chunk.name() ),
                          " is damaged: ",
                          what,
                          "; nothing was changed: see what tessel verify finds, then remove the "
                          "chunk and have its tables filled again" ) );
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
   std::string const what = joined( "at offset ",
                                    table.offset - headerBytes,
                                    ", where the header of table ",
                                    inQuotes( table.name ),
                                    " with ",
                                    table.shadowSize,
                                    " bytes belongs, stands ",
                                    otherThan( chunk, table ) );
   // A trailer where the plan has it says that the plan is right.
   if ( !frameAt( chunk, table.offset - headerBytes ) &&
        trailerState( chunk, table ) == RecordState::there ) {
      refuseDamage( chunk, what );
   }
   refuse( chunk, what );
}

void checkTrailer( VellumChunk const& chunk, PlannedTable const& table, bool framed ) {
   RecordState const trailer = trailerState( chunk, table );
   // The manager writes the trailer first, so there is no header without one.
   if ( trailer == RecordState::other || ( framed && trailer == RecordState::notYet ) ) {
      refuseDamage( chunk,
                    joined( "the trailer of table ",
                            inQuotes( table.name ),
                            " at offset ",
                            U64{ table.offset } + table.shadowSize,
                            " is damaged" ) );
   }
}

/// Whether the table's header is there.
bool checkHeader( VellumChunk const& chunk, PlannedTable const& table ) {
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
   return header == RecordState::there;
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
      if ( !planned && startOf( frame ) < last && endOf( frame ) > first ) {
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
   MagicSearch search( chunk, headerMagic );
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

std::string_view unframedText( VellumChunk const& chunk ) {
   Vellum::Stretch stretch = chunk.suppliedFrom( 0 );
   while ( stretch.begin < stretch.end ) {
      if ( !isZero( chunk, stretch.begin, stretch.end - stretch.begin ) ) {
         return "its bytes hold no table's frame: they are no agent's, or damaged";
      }
      stretch = chunk.suppliedFrom( stretch.end );
   }
   return "it is all zero: its agent has made no table yet";
}

Problems problemsOf( VellumChunk const& chunk, std::vector<Frame> const& frames ) {
   Problems problems;
   for ( std::size_t i = 0; i < frames.size(); ++i ) {
      addBroken( problems, chunk, frames[ i ] );
      if ( i > 0 && startOf( frames[ i ] ) < endOf( frames[ i - 1 ] ) ) {
         addOverlap( problems, frames[ i - 1 ], frames[ i ] );
      }
      if ( frames[ i ].intact ) {
         addFramesWithin( problems, chunk, frames[ i ] );
      }
   }
   addLooseTrailers( problems, chunk, frames );
   addBrokenHeaders( problems, chunk, frames );
   return problems;
}

Problems
problemsWith( VellumChunk const& chunk, std::vector<Frame> const& frames, Plan const& plan ) {
   Problems problems;
   std::vector<U64> planned;
   for ( PlannedTable const& table : plan.tables ) {
      if ( table.kind == TableKind::direct ) {
         continue;
      }
      U64 const start = U64{ table.offset } - headerBytes;
      planned.push_back( table.offset );
      auto const there = recordAt<EmTableHeader>( chunk, start );
      if ( !there || *there != headerOf( table ) ) {
         problems.push_back( { start,
                               table.name,
                               joined( "where its header with ",
                                       table.shadowSize,
                                       " bytes belongs, stands ",
                                       otherThan( chunk, table ) ) } );
      }
   }
   for ( Frame const& frame : frames ) {
      bool const within = endOf( frame ) > plan.startOffset &&
                          startOf( frame ) < U64{ plan.startOffset } + plan.allowedSize;
      if ( within && std::find( planned.begin(), planned.end(), frame.offset ) == planned.end() ) {
         problems.push_back(
            { startOf( frame ), frame.name, "the plan has no table with a frame here" } );
      }
   }
   return problems;
}

void checkForReading( VellumChunk const& chunk, PlannedTable const& table ) {
   if ( table.kind == TableKind::exact ) {
      checkHeader( chunk, table );
   }
}

void checkForWriting( VellumChunk const& chunk, Plan const& plan ) {
   bool allFramed = true;
   for ( PlannedTable const& table : plan.tables ) {
      if ( table.kind == TableKind::exact ) {
         bool const framed = checkHeader( chunk, table );
         checkTrailer( chunk, table, framed );
         allFramed = allFramed && framed;
      }
   }
   if ( !allFramed ) {
      checkNobodyElse( chunk, plan );
   }
}

} // namespace TesselTool
