// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Identifies one forwarding chip of an agent.
///
/// Threads: a plain value.

#include "Weft/Types.h"

#include <compare>
#include <cstddef>
#include <functional>
#include <ostream>

namespace Brine {

class ChipId {
 public:
   constexpr explicit ChipId( U8 value ) : value_( value ) {}
   constexpr U8 value() const { return value_; }

   friend constexpr bool operator==( ChipId, ChipId ) = default;
   friend constexpr std::strong_ordering operator<=>( ChipId, ChipId ) = default;

   /// Prints the identifier as a decimal number.
   friend std::ostream& operator<<( std::ostream& stream, ChipId chip ) {
      return stream << static_cast<U32>( chip.value_ );
   }

 private:
   U8 value_;
};

} // namespace Brine

template<>
struct std::hash<Brine::ChipId> {
   std::size_t operator()( Brine::ChipId chip ) const { return chip.value(); }
};
