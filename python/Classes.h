// SPDX-License-Identifier: Apache-2.0
#pragma once

/// One Python class for each registered type, made from its description alone.
///
/// A class is made when it is first asked for, its base first, and lives as long as the process; so
/// a type that is registered after the package was imported has one too.
///
/// Threads: with the interpreter's lock held and the library's not (python/LibraryLock.h).

#include "python/Signature.h"

namespace TesselPython {

PyTypeObject* classOf( Weft::TypeInfo const& type );
/// The type that a class, or the class that it is derived from, was made for; null when it is none
/// of ours.
Weft::TypeInfo const* typeOfClass( PyTypeObject* pythonType );
/// The constructor's arguments.
Signature const& constructorOf( Weft::TypeInfo const& type );

} // namespace TesselPython
