// SPDX-License-Identifier: Apache-2.0
#pragma once

/// C++ failures as Python exceptions:
///
///    Weft::ContractFailure        tessel.ContractError
///    Weft::TypeException          TypeError
///    std::invalid_argument, std::out_of_range, std::length_error, Weft::ParseError
///                                 ValueError
///    std::bad_alloc               MemoryError
///    std::system_error            OSError, with the name of a Weft::NamedSystemError as file name
///    Refusal                      the exception that it names
///    anything else                RuntimeError
///
/// Threads: with the interpreter's lock held.

#include <pybind11/pybind11.h>

#include <exception>
#include <string>
#include <string_view>
#include <utility>

namespace TesselPython {

namespace py = pybind11;

/// A Python object that is not what is wanted here.
class Refusal : public std::exception {
 public:
   /// `kind` is one of Python's own exception types.
   Refusal( PyObject* kind, std::string text ) : kind_( kind ), text_( std::move( text ) ) {}

   PyObject* kind() const { return kind_; }
   char const* what() const noexcept override { return text_.c_str(); }
   /// Says where the object was given, in front of what is wrong with it.
   void placeIs( std::string const& place ) { text_ = place + ": " + text_; }

 private:
   PyObject* kind_;
   std::string text_;
};

/// Makes tessel.ContractError and adds it to the module.
void addContractError( py::module_& module );

/// A new str, null with the interpreter's exception when there is no memory. Bytes that are no
/// UTF-8 become lone surrogates.
PyObject* decoded( std::string_view text );

/// Makes the C++ exception that is being handled the interpreter's current one.
void raiseInPython();

/// The two forms in which the interpreter calls: for an object, null when `function` threw, and for
/// a status, -1 when it did.
template<class F>
PyObject* answering( F const& function ) {
   try {
      py::object answer = function();
      return answer.release().ptr();
   } catch ( ... ) {
      raiseInPython();
      return nullptr;
   }
}

template<class F>
auto answeringStatus( F const& function ) -> decltype( function() ) {
   try {
      return function();
   } catch ( ... ) {
      raiseInPython();
      return -1;
   }
}

/// Takes over a new reference from the interpreter; throws its exception when there is none.
inline py::object owned( PyObject* object ) {
   if ( object == nullptr ) {
      throw py::error_already_set();
   }
   return py::reinterpret_steal<py::object>( object );
}

} // namespace TesselPython
