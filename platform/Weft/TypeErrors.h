// SPDX-License-Identifier: Apache-2.0
#pragma once

/// What a type cannot do is answered by these.
///
/// Threads: plain values.

#include <stdexcept>

namespace Weft {

/// A value or object taken for one of a type that it is not of, or something asked of a type that
/// the type does not have: construction of an abstract type, a default value where there is none.
class [[gnu::visibility( "default" )]] TypeException : public std::logic_error {
 public:
   using std::logic_error::logic_error;
};

/// The hash of a value whose type has none.
class [[gnu::visibility( "default" )]] UnhashableError : public TypeException {
 public:
   using TypeException::TypeException;
};

} // namespace Weft
