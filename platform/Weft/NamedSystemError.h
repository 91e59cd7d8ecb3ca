// SPDX-License-Identifier: Apache-2.0
#pragma once

/// What the operating system refused, and about which of its objects.
///
/// Threads: plain values.

#include <string>
#include <system_error>
#include <utility>

namespace Weft {

class [[gnu::visibility( "default" )]] NamedSystemError : public std::system_error {
 public:
   /// `name` is the object's, as the system knows it; `text` says what could not be done with it.
   NamedSystemError( std::error_code cause, std::string name, std::string const& text )
         : std::system_error( cause, text ), name_( std::move( name ) ) {}

   std::string const& name() const { return name_; }

 private:
   std::string name_;
};

} // namespace Weft
