// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Weft/Types.h"

namespace Corvo {

struct [[gnu::visibility( "default" )]] ThreadControl {
   /// Non-zero: every change of a reference count is one atomic read-modify-write, so references
   /// to one object may be taken and dropped on several threads. Zero, the default: counts are
   /// plain words and all references are handled on one thread. Change it only while a single
   /// thread runs.
   static U8 tsp_;
};

} // namespace Corvo
