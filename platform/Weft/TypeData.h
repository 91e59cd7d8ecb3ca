// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Weft/Types.h"

namespace Weft {

class Module;

/// A type's place in the type system: the record of its module and its index in that record.
struct TypeData {
   Module const* module;
   U32 index;

   friend bool operator==( TypeData const&, TypeData const& ) = default;
};

} // namespace Weft
