// SPDX-License-Identifier: Apache-2.0
#include "support/Contract.h"
#include "support/Tables.h"

#include <gtest/gtest.h>

#include <fstream>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

using namespace TestSupport;
using Vellum::VellumChunk;
using Access = VellumChunk::Access;
using namespace std::string_literals;

/// The cause that `action` is refused for; none when it is not.
template<class Action>
std::errc causeOf( Action&& action, std::string const& named = "" ) {
   try {
      action();
   } catch ( std::system_error const& error ) {
      EXPECT_NE( std::string( error.what() ).find( named ), std::string::npos ) << error.what();
      return static_cast<std::errc>( error.code().default_error_condition().value() );
   }
   return std::errc{};
}

std::string pathOf( std::string const& name ) {
   return "/dev/shm" + name;
}

bool mapped( std::string const& name ) {
   std::ifstream maps( "/proc/self/maps" );
   std::string const all( std::istreambuf_iterator<char>( maps ), {} );
   return all.find( pathOf( name ) ) != std::string::npos;
}

TEST( Chunk, inProcessIsZeroAndNameless ) {
   auto const chunk = VellumChunk::inProcess( 1 << 20 );
   EXPECT_EQ( allBytes( chunk ), std::string( 1 << 20, '\0' ) );
   EXPECT_EQ( chunk->name(), "" );
   EXPECT_EQ( chunk->size(), 1U << 20 );
   EXPECT_EQ( chunk->access(), Access::readWrite );
   EXPECT_EQ( VellumChunk::inProcess( 0 )->size(), 0U );
}

TEST( Chunk, refusesWhatLiesOutside ) {
   auto const chunk = VellumChunk::inProcess( 100 );
   std::string bytes( 101, 'x' );
   std::string const outside = "offset + length <= size()";
   chunk->write( 100, bytes.data(), 0 );
   chunk->write( 0, bytes.data(), 100 );
   EXPECT_EQ( failedCondition( [ & ] { chunk->write( 1, bytes.data(), 100 ); } ), outside );
   EXPECT_EQ( failedCondition( [ & ] { chunk->read( 100, bytes.data(), 1 ); } ), outside );
   EXPECT_EQ( failedCondition( [ & ] { chunk->write( 0xFFFFFFFF, bytes.data(), 2 ); } ), outside );
   EXPECT_EQ( failedCondition( [ & ] { chunk->read( 50, bytes.data(), 0xFFFFFFFF ); } ), outside );
   auto const failure = contractFailure( [ & ] { chunk->read( 101, bytes.data(), 0 ); } );
   ASSERT_TRUE( failure );
   EXPECT_EQ( failure->module(), "VellumChunk" );
   EXPECT_EQ( failure->message(),
              "read of 0 bytes at offset 101 of chunk \"\", which has 100 bytes" );
}

TEST( Chunk, isSharedUnderItsNameUntilThatIsRemoved ) {
   UniqueName const name;
   auto const chunk = VellumChunk::create( *name, 100 );
   EXPECT_EQ( allBytes( chunk ), std::string( 100, '\0' ) );
   auto other = VellumChunk::open( *name );
   EXPECT_EQ( other->size(), 100U );
   EXPECT_EQ( other->name(), *name );
   chunk->write( 10, "abc", 3 );
   EXPECT_EQ( bytesAt( other, 10, 3 ), "abc" );
   VellumChunk::remove( *name );
   other->write( 10, "xyz", 3 );
   EXPECT_EQ( bytesAt( chunk, 10, 3 ), "xyz" ) << "who has it mapped keeps it";
   EXPECT_EQ( causeOf( [ & ] { VellumChunk::open( *name ); }, *name ),
              std::errc::no_such_file_or_directory );
   EXPECT_EQ( causeOf( [ & ] { VellumChunk::remove( *name ); }, *name ),
              std::errc::no_such_file_or_directory );
}

TEST( Chunk, isForItsOwnerAloneWhateverTheUmask ) {
   for ( mode_t umask : { 0, 0777 } ) {
      UniqueName const name;
      mode_t const before = ::umask( umask );
      VellumChunk::create( *name, 100 );
      ::umask( before );
      struct stat status {};
      ASSERT_EQ( ::stat( pathOf( *name ).c_str(), &status ), 0 );
      EXPECT_EQ( status.st_mode & 07777, 0600U );
   }
}

TEST( Chunk, isUnmappedWithItsLastReference ) {
   UniqueName const name;
   auto chunk = VellumChunk::create( *name, 100 );
   auto const table = tableOver( chunk, { .entries = 1 } );
   chunk = nullptr;
   EXPECT_TRUE( mapped( *name ) );
   table->entryHas( chip0, "AAAA" );
   const_cast<Table&>( table ) = nullptr;
   EXPECT_FALSE( mapped( *name ) );
}

TEST( Chunk, openedReadOnlyRefusesToBeWritten ) {
   UniqueName const name;
   VellumChunk::create( *name, 100 );
   auto const chunk = VellumChunk::open( *name, Access::readOnly );
   EXPECT_EQ( chunk->access(), Access::readOnly );
   EXPECT_EQ( failedCondition( [ & ] { chunk->write( 0, "a", 1 ); } ),
              "access() == Access::readWrite" );
   EXPECT_EQ( failedCondition( [ & ] { chunk->write( 0, "a", 0 ); } ),
              "access() == Access::readWrite" );
   EXPECT_EQ( bytesAt( chunk, 0, 1 ), "\0"s );
}

TEST( Chunk, isCreatedNewOrNotAtAll ) {
   UniqueName const name;
   VellumChunk::create( *name, 100 )->write( 0, "abc", 3 );
   EXPECT_EQ( causeOf( [ & ] { VellumChunk::create( *name, 200 ); }, *name ),
              std::errc::file_exists );
   EXPECT_EQ( VellumChunk::open( *name )->size(), 100U );
   EXPECT_EQ( bytesAt( VellumChunk::open( *name ), 0, 3 ), "abc" );
   UniqueName const link;
   ASSERT_EQ( ::symlink( "/nonexistent", pathOf( *link ).c_str() ), 0 );
   EXPECT_EQ( causeOf( [ & ] { VellumChunk::create( *link, 200 ); } ), std::errc::file_exists );
   UniqueName const empty;
   EXPECT_EQ( causeOf( [ & ] { VellumChunk::create( *empty, 0 ); } ), std::errc::invalid_argument );
   EXPECT_NE( ::access( pathOf( *empty ).c_str(), F_OK ), 0 ) << "no name is left behind";
}

TEST( Chunk, refusesWhatIsNoName ) {
   for ( std::string const& name : { ""s,
                                     "/"s,
                                     "name"s,
                                     "/a/b"s,
                                     "//a"s,
                                     "/."s,
                                     "/.."s,
                                     "/a\0b"s,
                                     "/" + std::string( 255, 'n' ) } ) {
      EXPECT_EQ( causeOf( [ & ] { VellumChunk::create( name, 10 ); } ),
                 std::errc::invalid_argument )
         << name;
      EXPECT_EQ( causeOf( [ & ] { VellumChunk::open( name ); } ), std::errc::invalid_argument );
      EXPECT_EQ( causeOf( [ & ] { VellumChunk::remove( name ); } ), std::errc::invalid_argument );
   }
}

TEST( Chunk, opensNothingThatDoesNotBelong ) {
   UniqueName const name;
   auto const path = pathOf( *name );
   auto const refusal = [ & ]( Access access ) {
      return causeOf( [ & ] { VellumChunk::open( *name, access ); }, *name );
   };
   auto const expectRefusal = [ & ]( std::errc cause, char const* what ) {
      EXPECT_EQ( refusal( Access::readWrite ), cause ) << what;
      EXPECT_EQ( refusal( Access::readOnly ), cause ) << what;
   };
   ASSERT_EQ( ::symlink( "/dev/zero", path.c_str() ), 0 );
   expectRefusal( std::errc::too_many_symbolic_link_levels, "a symbolic link" );
   ::unlink( path.c_str() );

   VellumChunk::create( *name, 100 );
   for ( mode_t const right : { 0040, 0020, 0010, 0004, 0002, 0001 } ) {
      ::chmod( path.c_str(), 0600 | right );
      expectRefusal( std::errc::permission_denied, "others may read, write or run it" );
   }
   ::chmod( path.c_str(), 0600 );
   UniqueName const second;
   ASSERT_EQ( ::link( path.c_str(), pathOf( *second ).c_str() ), 0 );
   expectRefusal( std::errc::permission_denied, "a second name" );
   ::unlink( pathOf( *second ).c_str() );
   EXPECT_EQ( refusal( Access::readWrite ), std::errc{} );

   ASSERT_EQ( ::truncate( path.c_str(), 0 ), 0 );
   expectRefusal( std::errc::invalid_argument, "an empty one" );
   ASSERT_EQ( ::truncate( path.c_str(), off_t{ 1 } << 32 ), 0 );
   expectRefusal( std::errc::file_too_large, "one larger than 32 bits say" );
   if ( ::geteuid() == 0 ) {
      ASSERT_EQ( ::truncate( path.c_str(), 100 ), 0 );
      ASSERT_EQ( ::chown( path.c_str(), 65534, 65534 ), 0 );
      expectRefusal( std::errc::permission_denied, "another user's" );
   }
}

TEST( Chunk, opensNoPipeAndDoesNotWaitForOne ) {
   UniqueName const name;
   ASSERT_EQ( ::mkfifo( pathOf( *name ).c_str(), 0600 ), 0 );
   for ( auto access : { Access::readOnly, Access::readWrite } ) {
      auto const opening = [ & ] {
         ::alarm( 10 ); // ends the child where the opening waits
         ::_exit( causeOf( [ & ] { VellumChunk::open( *name, access ); } ) != std::errc{} ? 0 : 1 );
      };
      EXPECT_EXIT( opening(), testing::ExitedWithCode( 0 ), "" );
   }
}

/// `length` bytes that tell their places apart, the first one given.
std::string imageOf( U32 length, char first, char seed ) {
   std::string image( length, '\0' );
   for ( U32 at = 0; at < length; ++at ) {
      image[ at ] = at == 0 ? first : static_cast<char>( seed + static_cast<char>( at ) );
   }
   return image;
}

/// The pages of a chunk that the system has supplied, one letter each.
std::string suppliedPages( Vellum::VellumChunk const& chunk ) {
   constexpr U32 page = 4096;
   std::string pages( chunk.size() / page, '.' );
   for ( auto at = chunk.suppliedFrom( 0 ); at.begin < at.end; at = chunk.suppliedFrom( at.end ) ) {
      for ( U64 i = at.begin / page; i * page < at.end; ++i ) {
         pages[ i ] = 'x';
      }
   }
   return pages;
}

TEST( Chunk, knowsWhichPagesTheSystemHasSupplied ) {
   UniqueName const name;
   auto const named = Vellum::VellumChunk::create( *name, 8 * 4096 );
   auto const own = Vellum::VellumChunk::inProcess( 8 * 4096 );
   for ( auto const& chunk : { named, own } ) {
      EXPECT_EQ( suppliedPages( *chunk ), "........" );
      chunk->write( 4096 + 5, "a", 1 );
      chunk->write( 3 * 4096 - 1, "bc", 2 );
      chunk->write( 8 * 4096 - 1, "d", 1 );
      EXPECT_EQ( suppliedPages( *chunk ), ".xxx...x" );
      EXPECT_EQ( chunk->suppliedFrom( 5 * 4096 ).begin, 7 * 4096U );
      EXPECT_EQ( chunk->suppliedFrom( 8 * 4096 ).end, 8 * 4096U );
   }
}

TEST( OrderedCopy, leavesExactlyTheImageAtRestAtEveryLengthAndOffset ) {
   for ( U32 length = 0; length <= 64; ++length ) {
      for ( U32 offset = 0; offset < 20; ++offset ) {
         std::string memory( 128, '#' );
         auto* const at = reinterpret_cast<U8*>( memory.data() ) + offset;
         auto const store = [ & ]( std::string const& image ) {
            Vellum::storeImage( at, reinterpret_cast<U8 const*>( image.data() ), length );
            std::string expected( 128, '#' );
            expected.replace( offset, length, image );
            ASSERT_EQ( memory, expected ) << length << " bytes at " << offset;
            std::string back( 128, '#' );
            Vellum::loadImage( at, reinterpret_cast<U8*>( back.data() ), length );
            ASSERT_EQ( back, image + std::string( 128 - length, '#' ) );
         };
         store( imageOf( length, '\1', 'a' ) ); // over something that shows itself
         store( imageOf( length, '\2', 'A' ) );
         store( imageOf( length, '\0', 'a' ) );
         store( imageOf( length, '\1', 'A' ) ); // over something that does not
         store( imageOf( length, '\0', 'b' ) );
         store( imageOf( length, '\0', 'B' ) );
         store( imageOf( length, '\xff', 'B' ) ); // bytes that look like the marks
         store( imageOf( length, '\xfe', 'b' ) );
         store( imageOf( length, '\xff', 'a' ) );
      }
   }
}

TEST( OrderedCopy, marksAnImageWithAnotherVisibleByteThanItsFinalOne ) {
   for ( U32 first = 1; first < 256; ++first ) {
      U8 const mark = Vellum::detail::markFor( static_cast<U8>( first ) );
      EXPECT_NE( mark, 0 );
      EXPECT_NE( mark, first );
      EXPECT_TRUE( Vellum::detail::maybeMark( mark ) );
   }
   EXPECT_FALSE( Vellum::detail::maybeMark( 1 ) ) << "an image at rest is not waited for";
}

TEST( OrderedCopy, shortCopiesAndComparisonsTouchTheirLengthAlone ) {
   for ( U32 length = 0; length <= 48; ++length ) {
      std::string const from = imageOf( length, 'x', 'a' );
      std::string to( 64, '#' );
      Vellum::copyShort( to.data(), from.data(), length );
      ASSERT_EQ( to, from + std::string( 64 - length, '#' ) );
      for ( U32 at = 0; at < length; ++at ) {
         ASSERT_TRUE( Vellum::equalShort( to.data(), from.data(), length ) );
         ++to[ at ];
         ASSERT_FALSE( Vellum::equalShort( to.data(), from.data(), length ) ) << at;
         --to[ at ];
      }
   }
}

} // namespace
