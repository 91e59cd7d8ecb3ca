// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The arguments of an operation or a constructor, as Python callers give them: in order, by name,
/// or not at all where the registry knows a default.
///
/// Threads: as python/Convert.h.

#include "python/Frame.h"

#include <span>

namespace TesselPython {

class Signature {
 public:
   /// `name` is what messages call it. `result` is null for a constructor.
   Signature( std::string_view name,
              std::span<Weft::Argument const> arguments,
              Converter const* result );

   /// Of a frame with the arguments' slots and the result's, in this order.
   Layout const& layout() const { return layout_; }
   std::size_t argumentCount() const { return arguments_.size(); }
   bool takesRawPointers() const;

   /// Builds the arguments' slots. TypeError for arguments that are missing, unknown, too many or
   /// given twice; Refusal, with the argument's name, for one that is not what is wanted.
   void bind( Frame& frame, PyObject* positional, PyObject* keywords ) const;
   /// The same as the interpreter's vector calls give them: the values of `names`, a tuple or null,
   /// stand behind the positional ones.
   void bind( Frame& frame, std::span<PyObject* const> positional, PyObject* names ) const;

   /// "(chipId, key, value)"; `self`, where not empty, stands in front.
   std::string plainText( std::string_view self ) const;
   /// "(chipId: int, key: bytes, value: bytes) -> bool"
   std::string annotatedText() const;

 private:
   void checkCount( std::size_t given ) const;
   void checkNames( std::size_t given, PyObject* names ) const;
   void bindOne( Frame& frame, std::size_t index, PyObject* given ) const;

   std::string name_;
   std::span<Weft::Argument const> arguments_;
   Converter const* result_;
   std::vector<py::object> names_; ///< interned: usually the caller's are the same objects
   Layout layout_;
};

/// What is given for an argument: "int", "EmTableHelper | None".
std::string givenAnnotation( Weft::Argument const& argument );
/// "readOnly: bool = False"
std::string annotation( Weft::Argument const& argument );
/// The default as a Python object; none where it has to be given.
py::object defaultOf( Weft::Argument const& argument );

} // namespace TesselPython
