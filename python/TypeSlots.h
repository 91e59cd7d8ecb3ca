// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Types of the interpreter made from C++ functions.
///
/// Threads: with the interpreter's lock held.

#include "python/Errors.h"

namespace TesselPython {

template<class Function>
PyType_Slot typeSlot( int which, Function* function ) {
   return { which, reinterpret_cast<void*>( function ) };
}

/// A new type, which lives as long as the process.
inline PyTypeObject* typeFrom( PyType_Spec& layout ) {
   return reinterpret_cast<PyTypeObject*>( owned( PyType_FromSpec( &layout ) ).release().ptr() );
}

} // namespace TesselPython
