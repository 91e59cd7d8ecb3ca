// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Slots (Weft/TypeInfo.h) from Python objects, and Python objects from slots.
///
///    bool                    bool, nothing else
///    U8, U16, U32, U64       int, or what has __index__; OverflowError outside the range
///    Weft::String            str; bytes that are no UTF-8 travel as lone surrogates, both ways
///    Weft::Bytes             bytes, or what has a buffer
///    raw pointers            None from the library; nothing to it
///    a plain value type      its one slot: a chip is an int. Also taken as an object of its class
///    another value type      an object of its class, which is copied
///    an entity type          an object of its class, or None
///
/// Threads: with the interpreter's lock held and the library's not (python/LibraryLock.h).

#include "Weft/TypeInfo.h"
#include "python/Errors.h"

#include <string>
#include <string_view>

namespace TesselPython {

/// One type of slot. Converters live as long as the process.
class Converter {
 public:
   Converter() = default;
   Converter( Converter const& ) = delete;
   Converter& operator=( Converter const& ) = delete;
   virtual ~Converter() = default;

   virtual std::size_t size() const = 0;
   virtual std::size_t alignment() const = 0;
   /// Builds the slot that the object stands for. Refusal, nothing built, when it stands for none.
   virtual void build( void* slot, PyObject* object ) const = 0;
   /// Builds a live slot for a result to be assigned to.
   virtual void buildEmpty( void* slot ) const = 0;
   virtual void destroy( void* slot ) const = 0;
   virtual py::object object( void const* slot ) const = 0;
   /// How Python programs annotate the type: "int", "bytes", "EmTableHelper".
   virtual std::string annotation() const = 0;
   /// Whether None stands for one of its slots.
   virtual bool takesNone() const { return false; }
   virtual bool rawPointer() const { return false; }
};

/// The converter for a slot that the registry declares by this name, or by this type when it is
/// described; for "void", one of no size whose object is None.
Converter const& converterOf( std::string_view typeName, Weft::TypeInfo const* type );

template<class Declared>
Converter const& converterOf( Declared const& argumentOrAttribute ) {
   return converterOf( argumentOrAttribute.typeName(), argumentOrAttribute.type() );
}

std::string textFrom( PyObject* str );
py::object textInto( std::string_view text );

} // namespace TesselPython
