// SPDX-License-Identifier: Apache-2.0
#include "python/LibraryLock.h"

#include "Corvo/ThreadControl.h"

#include <pthread.h>
#include <unistd.h>

namespace TesselPython {

std::mutex libraryMutex;

namespace {

void lockLibrary() {
   libraryMutex.lock();
}

void unlockLibrary() {
   libraryMutex.unlock();
}

} // namespace

void prepareThreads() {
   Corvo::ThreadControl::tsp_ = 1;
   if ( pthread_atfork( lockLibrary, unlockLibrary, unlockLibrary ) != 0 ) {
      throw std::bad_alloc();
   }
}

InterpreterReleased::~InterpreterReleased() {
   try {
      PyEval_RestoreThread( thread_ );
   } catch ( ... ) { // the interpreter ends the thread
      for ( ;; ) {
         ::pause();
      }
   }
}

// Never waits for the interpreter with the library's lock in hand: whoever is in the library with
// the interpreter's lock could not leave it.
LibraryLock::LibraryLock() {
   while ( !libraryMutex.try_lock() ) {
      InterpreterReleased const released;
      std::lock_guard const untilFree( libraryMutex );
   }
}

} // namespace TesselPython
