// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Iteration over what the registry's types walk.
///
/// A value type is a walk when it has a stored bool `done` and an operation `doInc()`. Its items
/// are what the operations answer that change nothing and take nothing, in declaration order: for a
/// walk over a table (chipId, key_py, result_py). An object of a type iterates when the type is a
/// walk itself, or when exactly one such operation of it answers a walk.
///
/// Threads: as python/Convert.h.

#include "python/Frame.h"

namespace TesselPython {

struct Walk {
   Weft::TypeInfo const* type = nullptr; ///< the walk's
   Weft::Attribute const* begin =
      nullptr; ///< the operation that answers one; null on a walk itself
   Weft::Attribute const* done = nullptr;
   Weft::Attribute const* advance = nullptr;
   std::vector<Weft::Attribute const*> item{};

   explicit operator bool() const { return type != nullptr; }
};

/// How objects of the type iterate; false when they do not.
Walk walkOf( Weft::TypeInfo const& type );

/// Makes the type of iterators. To be called once.
void prepareWalks();
/// tp_iter of the classes whose types iterate.
PyObject* iterate( PyObject* self );

} // namespace TesselPython
