// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The two layouts of Python objects behind all classes: a value of its own, or a reference to an
/// entity. They are the bases tessel.Value and tessel.Entity; each registered type gets a class
/// derived from one of them (python/Classes.h).
///
/// These are types of the interpreter and no py::class_: their C++ types are known to the registry
/// alone, and an object that __new__ made without __init__, as py::class_ allows it, would hold no
/// C++ object. Here __new__ makes the whole object or none.
///
/// An object carries its registered type. What is done with it follows that, never its Python
/// class, which a script may change.
///
/// Threads: with the interpreter's lock held and the library's not (python/LibraryLock.h).

#include "Corvo/Ptr.h"
#include "Weft/TypeInfo.h"
#include "python/Errors.h"

namespace TesselPython {

struct ValueObject {
   PyObject_HEAD Weft::TypeInfo const* type;
   void* memory; ///< the value; null while the object is being made
};

struct EntityObject {
   PyObject_HEAD Weft::TypeInfo const* type; ///< the dynamic type, or a base of it
   Corvo::Ptr<Corvo::Node> node;             ///< null only while the object is being made
   void* object;                             ///< the node as an object of its type
};

/// Makes the bases and adds them to the module.
void addObjectTypes( py::module_& module );
PyTypeObject* valueBase();
PyTypeObject* entityBase();

/// Null when it is no such object.
ValueObject* asValue( PyObject* object );
EntityObject* asEntity( PyObject* object );

/// The registered type of such an object; null for others.
Weft::TypeInfo const* registeredType( PyObject* object );

/// An object of the type's class that holds a copy of `source`, or the default value.
py::object newValue( Weft::TypeInfo const& type, void const* source );
/// An object of the class of the node's dynamic type; None for null.
py::object newEntity( Corvo::Ptr<Corvo::Node> const& node );

/// What attributeOp and collectionIterator of `owner` work on. Refusal when the object is not of
/// that type.
void* objectOf( PyObject* self, Weft::TypeInfo const& owner );

/// "<tessel.EmShadowTable@3>": for texts about an object.
std::string nameOf( PyObject* object );

} // namespace TesselPython
