// SPDX-License-Identifier: Apache-2.0
#pragma once

/// A cursor over text that is being read, and the error that ends the reading of bad text.
///
/// A range does not own its text, which has to outlive it and every range cut out of it. Spaces,
/// tabs and line ends in front of a token carry no meaning; behind the last one they are left over.
///
/// Threads: a plain value.

#include "Weft/Types.h"

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Weft {

/// Text that is not what was to be read. what() names the offset and what is wrong there.
class [[gnu::visibility( "default" )]] ParseError : public std::invalid_argument {
 public:
   ParseError( std::size_t offset, std::string_view problem );

   /// Bytes of the whole text in front of the place.
   std::size_t offset() const { return offset_; }

 private:
   std::size_t offset_;
};

class [[gnu::visibility( "default" )]] CharRange {
 public:
   /// `offset` is where `text` begins in the whole text; errors are reported relative to that.
   constexpr explicit CharRange( std::string_view text, std::size_t offset = 0 )
         : text_( text ), offset_( offset ) {}

   /// What has not been read yet, and where it begins.
   constexpr std::string_view text() const { return text_; }
   constexpr std::size_t offset() const { return offset_; }

   /// Goes past `token` when the text goes on with it; false, nothing moved, when it does not.
   bool accept( std::string_view token );
   /// As accept. ParseError when the text goes on otherwise.
   void expect( std::string_view token );
   /// ParseError when a character is left.
   void end() const;

   /// Goes past a name, letters, digits and '_' with "::" between its parts, and returns it.
   /// ParseError when there is none.
   std::string_view takeName();
   /// Goes past an unsigned decimal number of at most `last` and returns it. ParseError when there
   /// is none, and when it is larger.
   U64 takeNumber( U64 last );
   /// Goes past text in double quotes, as quoted() makes it, and returns what it stands for.
   std::string takeQuoted();
   /// Goes past bytes in hexadecimal, as hexadecimal() makes them, and returns them.
   std::string takeHexadecimal();
   /// Goes to the next ',' or ')' outside of any parentheses and quotes and returns the text before
   /// it, without the space at its end. ParseError when there is none.
   CharRange takePart();

   [[noreturn]] void refuse( std::string_view problem ) const;

 private:
   void skipSpace();
   std::string_view take( std::size_t length );

   std::string_view text_;
   std::size_t offset_;
};

/// "…" with every byte that is not printable ASCII, the quote and the backslash as `\xNN`.
[[gnu::visibility( "default" )]] std::string quoted( std::string_view text );
/// 0x and two digits per byte.
[[gnu::visibility( "default" )]] std::string hexadecimal( std::string_view bytes );

} // namespace Weft
