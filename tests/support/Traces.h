// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The trace lines of one facility as a list that a test can compare.
///
/// Threads: one test at a time; the trace sink is one setting of the whole process.

#include "Weft/Trace.h"

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace TestSupport {

/// Switches the levels in `mask` on for `facility` and collects its messages; at its end the former
/// levels and the former sink are back. Lines of other facilities go on to the former sink, so
/// recorders of several facilities may be nested.
class TraceRecorder {
 public:
   explicit TraceRecorder( std::string_view facility, U64 mask = ~U64{ 0 } )
         : handle_( Weft::traceHandle( facility ) ), formerMask_( handle_.levelMask() ) {
      formerSink_ =
         Weft::traceSinkIs( [ this ]( Weft::TraceLine const& line ) { record( line ); } );
      handle_.levelMaskIs( mask );
   }
   ~TraceRecorder() {
      handle_.levelMaskIs( formerMask_ );
      Weft::traceSinkIs( std::move( formerSink_ ) );
   }
   TraceRecorder( TraceRecorder const& ) = delete;
   TraceRecorder& operator=( TraceRecorder const& ) = delete;

   /// The messages so far, oldest first.
   std::vector<std::string> const& messages() const { return messages_; }
   /// The messages so far; the list starts again empty.
   std::vector<std::string> take() { return std::exchange( messages_, {} ); }

 private:
   void record( Weft::TraceLine const& line ) {
      if ( line.facility == handle_.name() ) {
         messages_.emplace_back( line.message );
      } else {
         formerSink_( line );
      }
   }

   Weft::TraceHandle& handle_;
   U64 formerMask_;
   Weft::TraceSink formerSink_;
   std::vector<std::string> messages_;
};

/// `first` and then what one read of the image in slot 0 traces on TesselEmTable, for keys of 4 and
/// results of 2 bytes.
inline std::vector<std::string> thenReadingSlot0( std::vector<std::string> first ) {
   first.insert( first.end(),
                 { "EmShadowTable::readFromVellumMemory index:0",
                   "EmTableEntry::copyFromBuf keyLength:4 resultLength:2",
                   "makeEmTableKey keySize:4",
                   "makeEmTableResult resultSize:2" } );
   return first;
}

} // namespace TestSupport
