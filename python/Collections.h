// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Collections as mappings: tessel.Collection, a collections.abc.MutableMapping over one collection
/// attribute of one object, which it keeps alive. It holds no members of its own: every use looks
/// into the object.
///
/// Threads: as python/Convert.h.

#include "python/Convert.h"

namespace TesselPython {

/// Makes tessel.Collection and adds it to the module.
void addCollectionType( py::module_& module );

/// The mapping for a collection attribute of `owner`, an object of the attribute's owner.
py::object newCollection( PyObject* owner, Weft::Attribute const& attribute );

} // namespace TesselPython
