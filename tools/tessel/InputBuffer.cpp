// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/InputBuffer.h"

#include "tools/tessel/Failure.h"
#include "tools/tessel/Interrupts.h"
#include "tools/tessel/Text.h"

#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace TesselTool {

InputBuffer::InputBuffer( std::string const& file )
      : name_( file == "-" ? "standard input" : file ),
        file_( file == "-" ? STDIN_FILENO : ::open( file.c_str(), O_RDONLY | O_CLOEXEC ) ) {
   if ( file_ < 0 ) {
      throw Failure(
         joined( name_, ": cannot be opened: ", std::generic_category().message( errno ) ) );
   }
}

InputBuffer::~InputBuffer() {
   if ( file_ != STDIN_FILENO ) {
      ::close( file_ );
   }
}

std::optional<U64> InputBuffer::size() const {
   struct stat status {};
   off_t const at = ::lseek( file_, 0, SEEK_CUR );
   bool const known = at >= 0 && ::fstat( file_, &status ) == 0 && S_ISREG( status.st_mode );
   return known && status.st_size >= at ? std::optional( static_cast<U64>( status.st_size - at ) )
                                        : std::nullopt;
}

InputBuffer::int_type InputBuffer::underflow() {
   ssize_t got = -1;
   do {
      error_ = CatchInterrupts::waitForInput( file_ ) ? 0 : EINTR;
      got = error_ == 0 ? ::read( file_, block_.data(), block_.size() ) : -1;
   } while ( got < 0 && error_ == 0 && errno == EINTR );
   if ( got < 0 && error_ == 0 ) {
      error_ = errno;
   }
   if ( got <= 0 ) {
      return traits_type::eof();
   }
   read_ += static_cast<U64>( got );
   if ( progress_ ) {
      progress_->doneIs( read_ );
   }
   setg( block_.data(), block_.data(), block_.data() + got );
   return traits_type::to_int_type( block_[ 0 ] );
}

} // namespace TesselTool
