// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/ChunkLock.h"

#include "tools/tessel/Failure.h"
#include "tools/tessel/Text.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace TesselTool {

namespace {

int openedByName( std::string const& chunk ) {
   // Without waiting: the name may turn out to be a pipe that nobody writes to.
   return ::shm_open( chunk.c_str(), O_RDONLY | O_NONBLOCK, 0 );
}

/// Whether the name still leads to the open file, and not to one that came after it.
bool isStillNamed( int file, std::string const& chunk ) {
   int const now = openedByName( chunk );
   if ( now < 0 ) {
      return false;
   }
   struct stat held {};
   struct stat named {};
   bool const same = ::fstat( file, &held ) == 0 && ::fstat( now, &named ) == 0 &&
                     held.st_dev == named.st_dev && held.st_ino == named.st_ino;
   ::close( now );
   return same;
}

} // namespace

ChunkLock::ChunkLock( std::string const& chunk ) {
   while ( ( file_ = openedByName( chunk ) ) >= 0 ) {
      int const locked = ::flock( file_, LOCK_EX | LOCK_NB );
      if ( locked != 0 && errno == EWOULDBLOCK ) {
         ::close( file_ );
         throw Failure( joined( "chunk ",
                                inQuotes( chunk ),
                                " is being written to by another tessel; nothing was changed: try "
                                "again when that has ended" ) );
      }
      if ( locked != 0 || isStillNamed( file_, chunk ) ) {
         return;
      }
      ::close( file_ ); // its last holder has removed the name
   }
}

ChunkLock::~ChunkLock() {
   if ( file_ != none ) {
      ::close( file_ );
   }
}

} // namespace TesselTool
