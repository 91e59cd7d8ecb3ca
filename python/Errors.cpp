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

void raiseContractError( Weft::ContractFailure const& failure ) {
   auto const type = py::reinterpret_borrow<py::object>( contractError );
   py::object const error = type( failure.what() );
   error.attr( "condition" ) = failure.condition();
   error.attr( "message" ) = failure.message();
   error.attr( "module" ) = failure.module();
   error.attr( "operation" ) = failure.operation();
   PyErr_SetObject( contractError, error.ptr() );
}

/// Python picks the kind of OSError by the number: FileExistsError and the like.
void raiseOsError( std::system_error const& failure ) {
   auto const* const named = dynamic_cast<Weft::NamedSystemError const*>( &failure );
   py::object const name = named ? py::cast( named->name() ) : py::none();
   py::object const error = py::reinterpret_borrow<py::object>( PyExc_OSError )(
      failure.code().value(), failure.what(), name );
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
      PyErr_SetString( PyExc_RuntimeError, failure.what() );
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
      PyErr_SetString( PyExc_ValueError, failure.what() );
   } catch ( std::out_of_range const& failure ) {
      PyErr_SetString( PyExc_ValueError, failure.what() );
   } catch ( std::length_error const& failure ) {
      PyErr_SetString( PyExc_ValueError, failure.what() );
   } catch ( std::exception const& failure ) {
      PyErr_SetString( PyExc_RuntimeError, failure.what() );
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

void raiseInPython() {
   try {
      throw;
   } catch ( abi::__forced_unwind const& ) {
      throw; // the thread is being ended and may not be kept
   } catch ( py::error_already_set& error ) {
      error.restore();
   } catch ( py::builtin_exception const& error ) {
      error.set_error();
   } catch ( Refusal const& refusal ) {
      PyErr_SetString( refusal.kind(), refusal.what() );
   } catch ( Weft::ContractFailure const& failure ) {
      raiseWith( raiseContractError, failure );
   } catch ( Weft::TypeException const& failure ) {
      PyErr_SetString( PyExc_TypeError, failure.what() );
   } catch ( std::exception const& ) {
      raiseStandard();
   } catch ( ... ) {
      PyErr_SetString( PyExc_RuntimeError, "an unknown C++ exception" );
   }
}

} // namespace TesselPython
