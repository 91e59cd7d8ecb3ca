// SPDX-License-Identifier: Apache-2.0
#pragma once

/// What the type registry knows of this folder: module "Vellum" with the entity type
/// "Vellum::VellumChunk", whose operations of the type itself make and remove chunks.
///
/// Threads: constants.

#include "Weft/Module.h"

[[gnu::visibility( "default" )]] extern Weft::Module const _Vellum_53db2e1eaa5780fc_weftModule;
