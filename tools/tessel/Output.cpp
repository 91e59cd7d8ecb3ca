// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Output.h"

#include "tools/tessel/Failure.h"
#include "tools/tessel/Text.h"

#include <cerrno>
#include <system_error>

#include <unistd.h>

namespace TesselTool {

DescriptorBuffer::DescriptorBuffer( int descriptor ) : descriptor_( descriptor ) {
   setp( buffer_.data(), buffer_.data() + buffer_.size() );
}

DescriptorBuffer::int_type DescriptorBuffer::overflow( int_type next ) {
   writeOut();
   if ( !traits_type::eq_int_type( next, traits_type::eof() ) ) {
      *pptr() = traits_type::to_char_type( next );
      pbump( 1 );
   }
   return traits_type::not_eof( next );
}

int DescriptorBuffer::sync() {
   writeOut();
   return 0;
}

void DescriptorBuffer::writeOut() {
   char const* from = pbase();
   char const* const end = pptr();
   setp( buffer_.data(), buffer_.data() + buffer_.size() ); // a failed piece is not tried again
   while ( from != end ) {
      ssize_t const written = ::write( descriptor_, from, static_cast<std::size_t>( end - from ) );
      if ( written >= 0 ) {
         from += written;
      } else if ( errno == EPIPE ) {
         throw BrokenPipe();
      } else if ( errno != EINTR ) {
         throw Failure( joined( "standard output cannot be written: ",
                                std::generic_category().message( errno ) ) );
      }
   }
}

OutputStream::OutputStream( int descriptor ) : std::ostream( nullptr ), buffer_( descriptor ) {
   rdbuf( &buffer_ );
   exceptions( std::ios::badbit ); // what the buffer throws reaches the caller
}

} // namespace TesselTool
