// SPDX-License-Identifier: Apache-2.0
#pragma once

/// What the type registry knows of this folder: module "Brine" with the value type "Brine::ChipId"
/// and the entity type "Brine::HBitmap".
///
/// A ChipId's string form is its decimal number; its default value is 255.
///
/// Threads: constants.

#include "Brine/HBitmap.h"
#include "Weft/Module.h"
#include "WeftCorvo/Slots.h"

[[gnu::visibility( "default" )]] extern Weft::Module const _Brine_6976e5cea9b1a850_weftModule;

template<>
struct WeftCorvo::EnumValues<Brine::HBitmap::BitState> {
   static constexpr U32 last = 1;
};
template<>
struct WeftCorvo::EnumValues<Brine::HBitmap::IndexPreference> {
   static constexpr U32 last = 0;
};
