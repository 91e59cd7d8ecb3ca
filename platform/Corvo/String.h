// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace Corvo {

/// Text. Any bytes are allowed, zero bytes included.
using String = std::string;

} // namespace Corvo
