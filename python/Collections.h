// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Collections as mappings: what tessel.Collection, a collections.abc.MutableMapping, is derived
/// from. One is a view on one collection attribute of one object, which it keeps alive. It holds no
/// members of its own: every use looks into the object.
///
/// Threads: as python/Convert.h.

#include "python/Convert.h"

namespace TesselPython {

/// Makes the base of tessel.Collection and adds it to the module.
void addCollectionType( py::module_& module );

/// The mapping for a collection attribute of `owner`, an object of the attribute's owner.
py::object newCollection( PyObject* owner, Weft::Attribute const& attribute );

} // namespace TesselPython
