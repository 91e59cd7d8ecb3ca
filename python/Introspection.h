// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The registry as plain data, for tessel/registry.py, and counts of live objects.
///
/// Threads: as python/Convert.h.

#include "python/Errors.h"

namespace TesselPython {

void addIntrospection( py::module_& module );

} // namespace TesselPython
