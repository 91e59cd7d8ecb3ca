// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Who may be inside the library, and when the interpreter waits for it.
///
/// The library leaves it to its callers that one object is used by one thread at a time. Scripts
/// share objects freely, and a destructor runs wherever the last reference happens to go; so one
/// lock, the library's, is held around everything that this package does in the library, and two
/// Python threads are never in it at once. Reference counts are atomic besides
/// (Corvo::ThreadControl::tsp_), for C++ threads of a program that embeds the interpreter.
///
/// Two locks need an order that cannot block for ever:
///
///  - While the library's lock is held, no Python code runs and the interpreter's lock is not asked
///    for. Slots are filled from Python objects before, results become Python objects after.
///  - Whoever has to wait for the library's lock gives up the interpreter's lock for that time.
///
/// Lengthy work lets go of the interpreter's lock for its whole time, so that other Python threads
/// run; short work keeps it, since handing it over costs more than the work itself.
///
/// A fork waits until nobody is in the library, so a child never inherits half an operation.

#include <pybind11/pybind11.h>

#include <mutex>

namespace TesselPython {

namespace py = pybind11;

/// To be called once, before the library is used.
void prepareThreads();

extern std::mutex libraryMutex;

/// Gives up the interpreter's lock for the object's life. A thread that outlives the interpreter
/// sleeps for good instead of coming back: to end it would unwind frames that own Python objects.
class InterpreterReleased {
 public:
   InterpreterReleased() : thread_( PyEval_SaveThread() ) {}
   InterpreterReleased( InterpreterReleased const& ) = delete;
   InterpreterReleased& operator=( InterpreterReleased const& ) = delete;
   ~InterpreterReleased();

 private:
   PyThreadState* thread_;
};

/// Holds the library's lock, and the interpreter's all the while.
class LibraryLock {
 public:
   LibraryLock();
   LibraryLock( LibraryLock const& ) = delete;
   LibraryLock& operator=( LibraryLock const& ) = delete;
   ~LibraryLock() { libraryMutex.unlock(); }
};

enum class Work { brief, lengthy };

/// Runs `function` in the library.
template<class F>
decltype( auto ) inLibrary( Work work, F const& function ) {
   if ( work == Work::lengthy ) {
      InterpreterReleased const released;
      std::lock_guard const lock( libraryMutex );
      return function();
   }
   LibraryLock const lock;
   return function();
}

template<class F>
decltype( auto ) inLibrary( F const& function ) {
   return inLibrary( Work::brief, function );
}

} // namespace TesselPython
