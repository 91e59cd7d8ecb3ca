// SPDX-License-Identifier: Apache-2.0
#include "Weft/Contract.h"
#include "python/Collections.h"
#include "python/Introspection.h"
#include "python/LibraryLock.h"
#include "python/Objects.h"
#include "python/Operations.h"
#include "python/Walk.h"

/// The package's C++ part; tessel/__init__.py gives its names to scripts.
PYBIND11_MODULE( _tessel, module ) {
   using namespace TesselPython;
   prepareThreads();
   Weft::onContractFailureIs( Weft::OnContractFailure::raise );
   addContractError( module );
   addObjectTypes( module );
   addCollectionType( module );
   prepareOperations();
   prepareWalks();
   addIntrospection( module );
}
