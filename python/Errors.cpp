// SPDX-License-Identifier: Apache-2.0
#include "python/Errors.h"

#include "Weft/Contract.h"
#include "Weft/NamedSystemError.h"
#include "Weft/TypeErrors.h"

#include <cxxabi.h>
#include <new>
#include <stdexcept>

namespace TesselPython {

namespace {

PyObject* contractError = nullptr;

/// As PyErr_SetString, for text that may hold names that are no UTF-8.
void setError( PyObject* kind, std::string_view text ) {
   PyObject* const message = decoded( text );
   if ( message != nullptr ) {
      PyErr_SetObject( kind, message );
      Py_DECREF( message );
   }
}

void raiseContractError( Weft::ContractFailure const& failure ) {
   auto const type = py::reinterpret_borrow<py::object>( contractError );
   py::object const error = type( owned( decoded( failure.what() ) ) );
   error.attr( "condition" ) = owned( decoded( failure.condition() ) );
   error.attr( "message" ) = owned( decoded( failure.message() ) );
   error.attr( "module" ) = owned( decoded( failure.module() ) );
   error.attr( "operation" ) = owned( decoded( failure.operation() ) );
   PyErr_SetObject( contractError, error.ptr() );
}

/// Python picks the kind of OSError by the number: FileExistsError and the like.
void raiseOsError( std::system_error const& failure ) {
   auto const* const named = dynamic_cast<Weft::NamedSystemError const*>( &failure );
   py::object const name = named ? owned( decoded( named->name() ) ) : py::none();
   py::object const error = py::reinterpret_borrow<py::object>( PyExc_OSError )(
      failure.code().value(), owned( decoded( failure.what() ) ), name );
   PyErr_SetObject( reinterpret_cast<PyObject*>( Py_TYPE( error.ptr() ) ), error.ptr() );
}

/// What takes Python objects to be made may fail in turn; then that failure counts.
template<class Raise, class Failure>
void raiseWith( Raise const& raise, Failure const& failure ) {
   try {
      raise( failure );
   } catch ( py::error_already_set& another ) {
      another.restore();
   } catch ( std::exception const& ) {
      setError( PyExc_RuntimeError, failure.what() );
   }
}

void raiseStandard() {
   try {
      throw;
   } catch ( std::bad_alloc const& ) {
      PyErr_NoMemory();
   } catch ( std::system_error const& failure ) {
      raiseWith( raiseOsError, failure );
   } catch ( std::invalid_argument const& failure ) {
      setError( PyExc_ValueError, failure.what() );
   } catch ( std::out_of_range const& failure ) {
      setError( PyExc_ValueError, failure.what() );
   } catch ( std::length_error const& failure ) {
      setError( PyExc_ValueError, failure.what() );
   } catch ( std::exception const& failure ) {
      setError( PyExc_RuntimeError, failure.what() );
   }
}

} // namespace

void addContractError( py::module_& module ) {
   py::dict members;
   for ( char const* const name : { "condition", "message", "module", "operation" } ) {
      members[ name ] = "";
   }
   contractError =
      PyErr_NewExceptionWithDoc( "tessel.ContractError",
                                 "A precondition that did not hold: a mistake of the caller. "
                                 "Everything is as before the call.\n"
                                 "\n"
                                 "condition: the condition, as the check words it\n"
                                 "message: what the check says about it; '' when it says nothing\n"
                                 "module: the source module that checked\n"
                                 "operation: the function that checked",
                                 PyExc_RuntimeError,
                                 members.ptr() );
   module.attr( "ContractError" ) = owned( contractError ).inc_ref();
}

PyObject* decoded( std::string_view text ) {
   return PyUnicode_DecodeUTF8(
      text.data(), static_cast<Py_ssize_t>( text.size() ), "surrogateescape" );
}

void raiseInPython() {
   try {
      throw;
   } catch ( py::error_already_set& error ) {
      error.restore();
   } catch ( py::builtin_exception const& error ) {
      error.set_error();
   } catch ( Refusal const& refusal ) {
      setError( refusal.kind(), refusal.what() );
   } catch ( Weft::ContractFailure const& failure ) {
      raiseWith( raiseContractError, failure );
   } catch ( Weft::TypeException const& failure ) {
      setError( PyExc_TypeError, failure.what() );
   } catch ( std::exception const& ) {
      raiseStandard();
   } catch ( ... ) {
      if ( abi::__cxa_current_exception_type() == nullptr ) {
         throw; // no exception: the thread is being ended and may not be kept
      }
      setError( PyExc_RuntimeError, "an unknown C++ exception" );
   }
}

} // namespace TesselPython
