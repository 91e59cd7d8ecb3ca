// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Inspection.h"
#include "tools/tessel/Json.h"
#include "tools/tessel/Tables.h"
#include "tools/tessel/Text.h"

#include <cerrno>
#include <filesystem>
#include <ostream>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace TesselTool {

namespace {

// ------------------------------------------------------------------------- init

std::string planText( std::string const& name ) {
   return joined( "{ \"agent\": ",
                  jsonText( name ),
                  ", \"chunk\": ",
                  jsonText( '/' + name ),
                  R"(, "size": 1048576,
  "startOffset": 0, "allowedSize": 1048576,
  "tables": [
    { "name": "mac", "kind": "exact", "entries": 4096, "key": 6, "result": 2,
      "keyFormat": "mac", "resultFormat": "uint" },
    { "name": "host", "kind": "exact", "entries": 1024, "key": 4, "result": 6,
      "keyFormat": "ipv4", "resultFormat": "mac" },
    { "name": "vlan", "kind": "direct", "entries": 4096, "key": 2, "result": 2 } ] }
)" );
}

[[noreturn]] void refuseFile( std::string const& path ) {
   throw Failure( joined( path,
                          ": cannot be written: ",
                          std::generic_category().message( errno ),
                          errno == EEXIST ? "; nothing was changed: name another file" : "" ) );
}

void writeNewFile( std::string const& path, std::string const& text ) {
   int const file = ::open( path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666 );
   if ( file < 0 ) {
      refuseFile( path );
   }
   bool const whole =
      ::write( file, text.data(), text.size() ) == static_cast<ssize_t>( text.size() );
   if ( ::close( file ) != 0 || !whole ) {
      refuseFile( path );
   }
}

// ------------------------------------------------------------------------- remove

std::vector<Frame> framesToRemove( std::string const& chunk, U32& bytes, bool force ) {
   try {
      auto const open = openForReading( chunk );
      bytes = open->size();
      return findFrames( *open );
   } catch ( Failure const& ) {
      if ( !force ) {
         throw;
      }
   }
   return {};
}

void removeChunk( std::string const& chunk ) {
   try {
      Vellum::VellumChunk::remove( chunk );
   } catch ( std::system_error const& failure ) {
      throw Failure( failure.what() );
   }
}

void printRemoved( Context const& context,
                   std::string const& chunk,
                   U32 bytes,
                   std::vector<Frame> const& frames ) {
   std::vector<std::string> names;
   std::string list;
   for ( Frame const& frame : frames ) {
      names.push_back( jsonText( frame.name ) );
      list += joined( list.empty() ? ": " : ", ", printable( frame.name ) );
   }
   if ( context.json ) {
      context.out << JsonObject()
                        .text( "chunk", chunk )
                        .number( "size", bytes )
                        .json( "tables", jsonList( names ) )
                        .text()
                  << '\n';
      return;
   }
   context.out << "removed chunk " << printable( chunk ) << ", "
               << counted( bytes, "byte", "bytes" ) << ", "
               << counted( frames.size(), "table", "tables" ) << list << '\n';
}

} // namespace

ExitStatus init( Arguments const& arguments, Context const& context ) {
   std::string const name = std::filesystem::path( arguments.file ).stem().string();
   std::string const chunk = '/' + name;
   if ( !isChunkName( chunk ) || printable( name ) != name ) {
      throw Failure( joined( inQuotes( arguments.file ),
                             " names no chunk: a file NAME.json plans the chunk /NAME" ),
                     ExitStatus::usage );
   }
   std::string const text = planText( name );
   parsePlan( text, arguments.file );
   writeNewFile( arguments.file, text );
   if ( context.json ) {
      context.out << JsonObject().text( "plan", arguments.file ).text( "chunk", chunk ).text()
                  << '\n';
   } else {
      context.out << "wrote " << printable( arguments.file ) << ", a plan for the chunk " << chunk
                  << ": change it as you like, before the first entry is there\n";
   }
   return ExitStatus::done;
}

ExitStatus remove( Arguments const& arguments, Context const& context ) {
   std::string const chunk =
      namesChunk( arguments.plan ) ? arguments.plan : readPlan( arguments.plan ).chunk;
   ChunkLock const lock( chunk );
   U32 bytes = 0;
   std::vector<Frame> const frames = framesToRemove( chunk, bytes, arguments.force );
   if ( frames.empty() && !arguments.force ) {
      throw Failure( joined(
         "chunk ", inQuotes( chunk ), " holds no tables; --force removes it all the same" ) );
   }
   removeChunk( chunk );
   printRemoved( context, chunk, bytes, frames );
   return ExitStatus::done;
}

} // namespace TesselTool
