// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Tables.h"

#include "tools/tessel/Failure.h"
#include "tools/tessel/Frames.h"
#include "tools/tessel/Text.h"

#include <system_error>

#include <sys/stat.h>
#include <unistd.h>

namespace TesselTool {

namespace {

using Vellum::VellumChunk;
using Chunk = Corvo::Ptr<VellumChunk>;

/// What to do about a chunk that this user may not open, or that others may.
std::string adviceAboutRights( Corvo::String const& name ) {
   std::string const path = "/dev/shm" + name;
   struct stat status {};
   if ( ::lstat( path.c_str(), &status ) != 0 ) {
      return {};
   }
   if ( !S_ISREG( status.st_mode ) ) {
      return "; name another chunk";
   }
   if ( status.st_uid != ::geteuid() ) {
      return joined( "; run tessel as its user, whose number is ", status.st_uid );
   }
   if ( status.st_nlink > 1 ) {
      return "; have its other name removed, under which it is not guarded, or else tessel remove "
             "--force";
   }
   return joined( "; it has to be yours alone: chmod 600 ",
                  shellWord( path ),
                  " if you trust what it holds, or else tessel remove --force" );
}

/// What to do about a chunk that cannot be opened.
std::string adviceFor( std::system_error const& failure, Corvo::String const& name ) {
   if ( failure.code() == std::errc::invalid_argument && isChunkName( name ) ) { // empty
      return "; try again if somebody is creating it just now, or else tessel remove --force";
   }
   if ( failure.code() == std::errc::permission_denied ) {
      return adviceAboutRights( name );
   }
   return failure.code() == std::errc::too_many_symbolic_link_levels
             ? "; name the chunk that it leads to, or have the link removed"
             : "";
}

/// Null when there is no chunk of this name.
Chunk openIfThere( Corvo::String const& name, VellumChunk::Access access ) {
   try {
      return VellumChunk::open( name, access );
   } catch ( std::system_error const& failure ) {
      if ( failure.code() == std::errc::no_such_file_or_directory ) {
         return nullptr;
      }
      throw Failure( joined( failure.what(), adviceFor( failure, name ) ) );
   }
}

/// Null when somebody has created a chunk of this name meanwhile.
Chunk createIfMissing( Plan const& plan ) {
   try {
      return VellumChunk::create( plan.chunk, plan.size );
   } catch ( std::system_error const& failure ) {
      if ( failure.code() == std::errc::file_exists ) {
         return nullptr;
      }
      throw Failure( failure.what() );
   }
}

[[noreturn]] void refuseMissing( Corvo::String const& name ) {
   throw Failure( joined( "chunk ",
                          inQuotes( name ),
                          " does not exist: start its agent, or create it with load or update" ) );
}

[[noreturn]] void refuseSize( VellumChunk const& chunk, Plan const& plan ) {
   throw Failure(
      joined( "chunk ",
              inQuotes( chunk.name() ),
              " has ",
              chunk.size(),
              " bytes, the plan says ",
              plan.size,
              "; nothing was changed: correct the plan",
              chunk.size() < plan.size ? ", or remove a chunk that was cut short" : "" ) );
}

} // namespace

bool isThere( Corvo::String const& chunkName ) {
   return openIfThere( chunkName, VellumChunk::Access::readOnly ) != nullptr;
}

Chunk openForReading( Corvo::String const& chunkName ) {
   Chunk chunk = openIfThere( chunkName, VellumChunk::Access::readOnly );
   if ( !chunk ) {
      refuseMissing( chunkName );
   }
   return chunk;
}

Chunk openForReading( Plan const& plan, PlannedTable const& table ) {
   Chunk chunk = openForReading( plan.chunk );
   if ( std::string const cut = cutText( *chunk, plan, table ); !cut.empty() ) {
      throw Failure( joined( cut, ": ", cutAdvice ) );
   }
   checkForReading( *chunk, table );
   return chunk;
}

std::string cutText( VellumChunk const& chunk, Plan const& plan, PlannedTable const& table ) {
   if ( U64{ table.offset } + table.shadowSize <= chunk.size() ||
        table.kind == TableKind::direct ) {
      return {};
   }
   return joined( "chunk ",
                  inQuotes( chunk.name() ),
                  " has ",
                  chunk.size(),
                  " bytes, the plan says ",
                  plan.size,
                  ", and table ",
                  inQuotes( table.name ),
                  " with ",
                  table.shadowSize,
                  " bytes at offset ",
                  table.offset,
                  " does not fit into it" );
}

Corvo::Ptr<Tessel::EmShadowTable> tableForReading( Chunk const& chunk,
                                                   PlannedTable const& planned ) {
   return Tessel::emShadowTableFactory(
      planned.name,
      Tessel::emTableHelperFactory( planned.entries, planned.key, planned.result ),
      chunk,
      planned.offset );
}

WritingManager openForWriting( Plan const& plan, IfMissing ifMissing ) {
   ChunkLock lock( plan.chunk );
   Chunk chunk = openIfThere( plan.chunk, VellumChunk::Access::readWrite );
   if ( !chunk && ifMissing == IfMissing::create ) {
      chunk = createIfMissing( plan );
      lock = ChunkLock( plan.chunk );
      if ( chunk ) {
         return { std::move( lock ), manageTables( plan, chunk ) };
      }
      chunk = openIfThere( plan.chunk, VellumChunk::Access::readWrite );
   }
   if ( !chunk ) {
      refuseMissing( plan.chunk );
   }
   if ( chunk->size() != plan.size ) {
      refuseSize( *chunk, plan );
   }
   checkForWriting( *chunk, plan );
   return { std::move( lock ), manageTables( plan, chunk ) };
}

Corvo::Ptr<Tessel::TableManager> manageTables( Plan const& plan, Chunk const& chunk ) {
   auto manager =
      Tessel::tableManagerFactory( plan.agent, chunk, plan.startOffset, plan.allowedSize );
   for ( PlannedTable const& table : plan.tables ) {
      if ( table.kind == TableKind::direct ) {
         manager->manageDirectShadow(
            table.name,
            Tessel::directTableHelperFactory( table.entries, table.key, table.result ) );
      } else {
         manager->manageEmShadow(
            table.name, Tessel::emTableHelperFactory( table.entries, table.key, table.result ) );
      }
   }
   return manager;
}

} // namespace TesselTool
