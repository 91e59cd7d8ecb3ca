// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Operations as methods, stored attributes as properties: the members of a class that reach into
/// the registry. What is made here lives as long as the process, as the classes do.
///
/// Threads: as python/Convert.h.

#include "python/Signature.h"

namespace TesselPython {

/// Makes the type of methods. To be called once.
void prepareOperations();

/// The method, or static method, for an operation that is not hidden.
py::object methodFor( Weft::Attribute const& operation );

/// What a class has for a stored attribute or a collection that is not hidden.
PyGetSetDef propertyFor( Weft::Attribute const& attribute );

/// The value of an attribute of the type itself.
py::object fixedValueOf( Weft::Attribute const& attribute );

/// The value of a stored attribute.
py::object valueOf( void* object, Weft::Attribute const& attribute );

} // namespace TesselPython
