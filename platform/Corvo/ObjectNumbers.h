// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Numbers that stand for objects in text. Text is not to be trusted: a number in it is looked up
/// among the objects that were given one and still live, and never turned into a pointer.
///
/// An object gets its number when it is first asked for; the next objects get higher ones, and none
/// is given twice. Objects that are never asked pay one load when they are destroyed.
///
/// Threads: everything may be called on any thread, as far as the object itself may be used there.

#include "Corvo/Ptr.h"
#include "Weft/Types.h"

namespace Corvo {

/// The object's number, 1 or more; the same as long as the object lives. std::bad_alloc is possible
/// the first time.
[[gnu::visibility( "default" )]] U64 objectNumber( Node const& object );

/// The object of this number; null when no living object has it.
[[gnu::visibility( "default" )]] Ptr<Node> objectByNumber( U64 number );

/// For the destructor of Node.
void forgetObjectNumber( Node const& object ) noexcept;

} // namespace Corvo
