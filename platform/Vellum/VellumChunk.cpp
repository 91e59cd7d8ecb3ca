// SPDX-License-Identifier: Apache-2.0
#include "Vellum/VellumChunk.h"

#include "Weft/CharRange.h"
#include "Weft/Contract.h"
#include "Weft/NamedSystemError.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <limits>
#include <new>
#include <span>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace Vellum {

Weft::AllocTrackTypeInfo VellumChunk::memAllocationTracker_;

namespace {

constexpr Weft::SassertHelper sassert{ "VellumChunk" };

constexpr mode_t ownerOnly = S_IRUSR | S_IWUSR;

[[noreturn]] void refuse( std::error_code cause, Corvo::String const& name, std::string_view why ) {
   throw Weft::NamedSystemError(
      cause, name, "shared memory " + Weft::quoted( name ) + " " + std::string( why ) );
}

[[noreturn]] void refuse( std::errc cause, Corvo::String const& name, std::string_view why ) {
   refuse( std::make_error_code( cause ), name, why );
}

[[noreturn]] void refuseAsSystemSays( Corvo::String const& name, std::string_view why ) {
   refuse( std::error_code( errno, std::generic_category() ), name, why );
}

void checkName( Corvo::String const& name ) {
   bool const wellFormed = name.size() >= 2 && name.size() <= NAME_MAX && name.front() == '/' &&
                           name.find( '/', 1 ) == Corvo::String::npos &&
                           name.find( '\0' ) == Corvo::String::npos && name != "/." &&
                           name != "/..";
   if ( !wellFormed ) {
      refuse( std::errc::invalid_argument,
              name,
              "is no name: a slash and 1 to 254 bytes without a slash are needed" );
   }
}

class FileDescriptor {
 public:
   explicit FileDescriptor( int number ) : number_( number ) {}
   FileDescriptor( FileDescriptor const& ) = delete;
   FileDescriptor& operator=( FileDescriptor const& ) = delete;
   ~FileDescriptor() {
      if ( number_ >= 0 ) {
         ::close( number_ );
      }
   }

   explicit operator bool() const { return number_ >= 0; }
   int number() const { return number_; }
   int release() { return std::exchange( number_, -1 ); }

 private:
   int number_;
};

/// A name just created, removed again unless it is kept.
class NewName {
 public:
   explicit NewName( Corvo::String const& name ) : name_( name ) {}
   NewName( NewName const& ) = delete;
   NewName& operator=( NewName const& ) = delete;
   ~NewName() {
      if ( !kept_ ) {
         ::shm_unlink( name_.c_str() );
      }
   }
   void keep() { kept_ = true; }

 private:
   Corvo::String const& name_;
   bool kept_ = false;
};

int protectionOf( VellumChunk::Access access ) {
   return access == VellumChunk::Access::readOnly ? PROT_READ : PROT_READ | PROT_WRITE;
}

Mapping mapShared( FileDescriptor& memory,
                   Corvo::String const& name,
                   U32 size,
                   VellumChunk::Access access ) {
   void* const base =
      ::mmap( nullptr, size, protectionOf( access ), MAP_SHARED, memory.number(), 0 );
   if ( base == MAP_FAILED ) {
      refuseAsSystemSays( name, "cannot be mapped" );
   }
   if ( access == VellumChunk::Access::readWrite ) {
      announceWriter();
   }
   return { static_cast<U8*>( base ), size, memory.release() };
}

/// Shared memory is promised, not reserved: a page that the system cannot supply when it is first
/// touched ends the process. So a size that could never be there is refused now.
void checkRoom( FileDescriptor const& memory, Corvo::String const& name, U32 size ) {
   struct statvfs system {};
   if ( ::fstatvfs( memory.number(), &system ) != 0 || system.f_blocks == 0 ) {
      return;
   }
   if ( U64{ system.f_blocks } * system.f_frsize < size ) {
      refuse( std::errc::no_space_on_device, name, "cannot be created" );
   }
}

void checkOwner( struct stat const& status, Corvo::String const& name ) {
   if ( !S_ISREG( status.st_mode ) ) {
      refuse( std::errc::permission_denied, name, "is no plain shared memory" );
   }
   if ( status.st_uid != ::geteuid() ) {
      refuse( std::errc::permission_denied, name, "belongs to another user" );
   }
   if ( ( status.st_mode & ( S_IRWXG | S_IRWXO ) ) != 0 ) {
      refuse( std::errc::permission_denied, name, "lets other users in" );
   }
   if ( status.st_nlink > 1 ) {
      refuse( std::errc::permission_denied, name, "is a link: it has a second name" );
   }
}

U32 checkedSize( struct stat const& status, Corvo::String const& name ) {
   if ( status.st_size <= 0 ) {
      refuse( std::errc::invalid_argument, name, "is empty" );
   }
   if ( status.st_size > off_t{ std::numeric_limits<U32>::max() } ) {
      refuse( std::errc::file_too_large, name, "is larger than 4294967295 bytes" );
   }
   return static_cast<U32>( status.st_size );
}

FileDescriptor openedByName( Corvo::String const& name, VellumChunk::Access access ) {
   // Without waiting: the name may turn out to be a pipe that nobody writes to.
   int const mode = O_NONBLOCK | ( access == VellumChunk::Access::readOnly ? O_RDONLY : O_RDWR );
   int const number = ::shm_open( name.c_str(), mode, 0 );
   if ( number < 0 ) {
      refuseAsSystemSays( name, errno == ELOOP ? "is a symbolic link" : "cannot be opened" );
   }
   return FileDescriptor( number );
}

Stretch suppliedToFile( Mapping const& mapping, Stretch within ) {
   off_t const data = ::lseek( mapping.file(), static_cast<off_t>( within.begin ), SEEK_DATA );
   if ( data < 0 ) {
      return errno == ENXIO ? Stretch{ .begin = within.end, .end = within.end } : within;
   }
   off_t const hole = ::lseek( mapping.file(), data, SEEK_HOLE );
   U64 const begin = std::min( static_cast<U64>( data ), within.end );
   return { .begin = begin,
            .end = hole < data ? within.end : std::min( static_cast<U64>( hole ), within.end ) };
}

/// The pages of this process, as the kernel tells it about them: 8 bytes each, of which the two
/// highest bits say that the page is in memory and that it has been moved out of it.
class PageMap {
 public:
   explicit PageMap( U8 const* base )
         : file_( ::open( "/proc/self/pagemap", O_RDONLY | O_CLOEXEC ) ),
           page_( static_cast<U64>( ::sysconf( _SC_PAGESIZE ) ) ),
           firstPage_( reinterpret_cast<std::uintptr_t>( base ) / page_ ) {}

   /// Within one look: the end of the pages from byte `offset` on that are alike, and whether the
   /// system has supplied them. False when it cannot be told.
   bool look( U64 offset, bool& supplied, U64& end ) {
      U64 const first = offset / page_;
      ssize_t const got = ::pread( file_.number(),
                                   entries_.data(),
                                   sizeof entries_,
                                   static_cast<off_t>( ( firstPage_ + first ) * sizeof( U64 ) ) );
      if ( got < static_cast<ssize_t>( sizeof( U64 ) ) ) {
         return false;
      }
      auto const known = std::span( entries_ ).first( static_cast<U64>( got ) / sizeof( U64 ) );
      supplied = known.front() >> 62 != 0;
      auto const alike = std::ranges::find_if(
         known, [ supplied ]( U64 entry ) { return ( entry >> 62 != 0 ) != supplied; } );
      end = ( first + static_cast<U64>( alike - known.begin() ) ) * page_;
      return true;
   }

 private:
   FileDescriptor file_;
   U64 page_;
   U64 firstPage_;
   std::array<U64, 512> entries_;
};

Stretch suppliedToProcess( Mapping const& mapping, Stretch within ) {
   PageMap pages( mapping.base() );
   bool supplied = false;
   U64 end = within.begin;
   for ( U64 at = within.begin; at < within.end; at = end ) {
      if ( !pages.look( at, supplied, end ) ) {
         return { .begin = at, .end = within.end };
      }
      if ( supplied ) {
         return { .begin = at, .end = std::min( end, within.end ) };
      }
   }
   return { .begin = within.end, .end = within.end };
}

} // namespace

Mapping::~Mapping() {
   if ( base_ ) {
      ::munmap( base_, size_ );
   }
   if ( file_ != noFile ) {
      ::close( file_ );
   }
}

VellumChunk::VellumChunk( Mapping mapping, Corvo::String name, Access access )
      : mapping_( std::move( mapping ) ), name_( std::move( name ) ), access_( access ),
        writesEndBefore_( access == Access::readWrite ? U64{ mapping_.size() } + 1 : 0 ) {}

Corvo::Ptr<VellumChunk> VellumChunk::inProcess( U32 size ) {
   if ( size == 0 ) {
      return Corvo::makePtr<VellumChunk>( Mapping(), Corvo::String(), Access::readWrite );
   }
   void* const base = ::mmap(
      nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0 );
   if ( base == MAP_FAILED ) {
      throw std::bad_alloc();
   }
   return Corvo::makePtr<VellumChunk>( Mapping( static_cast<U8*>( base ), size, Mapping::noFile ),
                                       Corvo::String(),
                                       Access::readWrite );
}

Corvo::Ptr<VellumChunk> VellumChunk::create( Corvo::String const& name, U32 size ) {
   checkName( name );
   if ( size == 0 ) {
      refuse( std::errc::invalid_argument, name, "needs a size of at least 1 byte" );
   }
   FileDescriptor memory( ::shm_open( name.c_str(), O_RDWR | O_CREAT | O_EXCL, ownerOnly ) );
   if ( !memory ) {
      refuseAsSystemSays( name, "cannot be created" );
   }
   NewName created( name );
   checkRoom( memory, name, size );
   // The mode of creation has passed through the caller's umask.
   if ( ::fchmod( memory.number(), ownerOnly ) != 0 || ::ftruncate( memory.number(), size ) != 0 ) {
      refuseAsSystemSays( name, "cannot be created" );
   }
   auto chunk = Corvo::makePtr<VellumChunk>(
      mapShared( memory, name, size, Access::readWrite ), name, Access::readWrite );
   created.keep();
   return chunk;
}

Corvo::Ptr<VellumChunk> VellumChunk::open( Corvo::String const& name, Access access ) {
   checkName( name );
   FileDescriptor memory = openedByName( name, access );
   struct stat status {};
   if ( ::fstat( memory.number(), &status ) != 0 ) {
      refuseAsSystemSays( name, "cannot be examined" );
   }
   checkOwner( status, name );
   U32 const size = checkedSize( status, name );
   return Corvo::makePtr<VellumChunk>( mapShared( memory, name, size, access ), name, access );
}

void VellumChunk::remove( Corvo::String const& name ) {
   checkName( name );
   if ( ::shm_unlink( name.c_str() ) != 0 ) {
      refuseAsSystemSays( name, "cannot be removed" );
   }
}

Stretch VellumChunk::suppliedFrom( U64 offset ) const {
   Stretch const rest{ .begin = offset, .end = size() };
   if ( offset >= size() ) {
      return { .begin = size(), .end = size() };
   }
   return mapping_.file() == Mapping::noFile ? suppliedToProcess( mapping_, rest )
                                             : suppliedToFile( mapping_, rest );
}

void VellumChunk::refuseWrite( U64 offset, U32 length ) const {
   sassert( access_ == Access::readWrite,
            { "access() == Access::readWrite", "write" },
            "Chunk \"",
            name_,
            "\" is open for reading only" );
   refuseOutside( "write", offset, length );
}

void VellumChunk::refuseOutside( char const* what, U64 offset, U32 length ) const {
   sassert.refuse( { "offset + length <= size()", what },
                   what,
                   " of ",
                   length,
                   " bytes at offset ",
                   offset,
                   " of chunk \"",
                   name_,
                   "\", which has ",
                   size(),
                   " bytes" );
}

} // namespace Vellum
