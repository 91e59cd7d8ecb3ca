// SPDX-License-Identifier: Apache-2.0
#pragma once

/// What people read about types and attributes: names, help texts, what a repr shows.
///
/// Threads: as python/Convert.h.

#include "Weft/TypeInfo.h"

#include <string>
#include <string_view>
#include <vector>

namespace TesselPython {

/// "EmTableEntry" of "Tessel::EmTableEntry": the name of the type's class.
std::string_view shortName( Weft::TypeInfo const& type );

/// Every attribute of the type, inherited ones first, hidden ones left out.
std::vector<Weft::Attribute const*> reachableAttributes( Weft::TypeInfo const& type );

/// Whether the constructor's arguments are all that the value prints, so that a call of it can
/// stand for the value.
bool constructorSaysAll( Weft::TypeInfo const& type );
/// What tells one object from another at a glance: its constant attributes of built-in types.
std::vector<Weft::Attribute const*> tellingAttributes( Weft::TypeInfo const& type );

/// In the form in which the interpreter takes the doc of a C type: NAME(ARGUMENTS), a line of
/// dashes, the text.
std::string classDoc( Weft::TypeInfo const& type );
std::string propertyDoc( Weft::Attribute const& attribute );
std::string operationDoc( Weft::Attribute const& operation );

/// What scripts call in place of an operation that takes raw pointers: of `entry`, "entry_py with
/// byte strings"; of `doReadVellum`, "doReadVellum64 or doReadVellum32 or …". Empty where
/// the type has no such form.
std::string formsForScripts( Weft::Attribute const& operation );

/// "readOnly", "opConst": the kind's name.
std::string_view kindName( Weft::AttributeKind kind );

} // namespace TesselPython
