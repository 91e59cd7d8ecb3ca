// SPDX-License-Identifier: Apache-2.0
// The entry that a fuzzer calls; TESSEL_FUZZ_TARGET is one function of Targets.h.

#include "Weft/Contract.h"
#include "fuzz/Targets.h"

extern "C" int LLVMFuzzerTestOneInput( U8 const* data, std::size_t size ) {
   Weft::onContractFailureIs( Weft::OnContractFailure::raise );
   Fuzz::TESSEL_FUZZ_TARGET( { data, size } );
   return 0;
}
