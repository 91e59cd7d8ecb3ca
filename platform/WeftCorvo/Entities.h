// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Entity objects in the hands of callers who know types by name alone: they hold every object as a
/// Corvo::Ptr<Corvo::Node> and cross over to the slots that the registry wants here. An object of
/// another type is refused, never reinterpreted.
///
/// Every `type` has to be an entity type: Weft::TypeException when it is a value type.
///
/// Threads: as the objects.

#include "Corvo/Ptr.h"
#include "Weft/TypeInfo.h"

namespace WeftCorvo {

/// The object's dynamic type. Weft::TypeException when no module describes it.
[[gnu::visibility( "default" )]] Weft::TypeInfo const& typeOfObject( Corvo::Node const& object );

/// The object in a live slot of `type`; null when the slot is.
[[gnu::visibility( "default" )]] Corvo::Ptr<Corvo::Node> nodeIn( Weft::TypeInfo const& type,
                                                                 void const* slot );

/// Assigns `node`, or null, to a live slot of `type`. Weft::TypeException, nothing assigned, when
/// the object is not of that type.
[[gnu::visibility( "default" )]] void
nodeInto( Weft::TypeInfo const& type, void* slot, Corvo::Ptr<Corvo::Node> const& node );

/// The object as TypeInfo::attributeOp and collectionIterator of `type` want it.
/// Weft::TypeException when it is not of that type. Takes no reference.
[[gnu::visibility( "default" )]] void* objectAs( Weft::TypeInfo const& type, Corvo::Node& node );

} // namespace WeftCorvo
