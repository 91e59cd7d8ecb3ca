// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Trace lines, by facility and level.
///
/// A facility is a name ("TesselEmTable") with 64 levels, each switched by one bit of the level
/// mask; all are off at the start. A line is formatted only when its level is on, so a disabled
/// trace costs one load and one test.
///
/// Tracing never changes what an operation does: a line for which there is no memory is dropped, and
/// so is whatever a sink throws.
///
/// Threads: masks may be read and changed on any thread at any time. Lines of several threads reach
/// the sink one at a time, in no particular order between threads. What a sink itself causes to be
/// traced is dropped.

#include "Weft/Types.h"

#include <atomic>
#include <functional>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>

namespace Weft {

/// One trace line on its way to the sink. The views are valid during the call of the sink only.
struct TraceLine {
   std::string_view facility;
   U32 level;
   std::string_view file; ///< source file, relative to the source tree
   U32 line;              ///< source line
   std::string_view operation;
   std::string_view message;
};

/// The level mask of one facility: bit n switches level n, 0 to 63.
class [[gnu::visibility( "default" )]] TraceHandle {
 public:
   constexpr explicit TraceHandle( std::string_view name ) : name_( name ) {}
   TraceHandle( TraceHandle const& ) = delete;
   TraceHandle& operator=( TraceHandle const& ) = delete;
   ~TraceHandle() = default;

   std::string_view name() const { return name_; }
   /// A level past 63 is never enabled.
   bool enabled( U32 level ) const { return level < 64 && ( ( levelMask() >> level ) & 1 ) != 0; }
   U64 levelMask() const { return levelMask_.load( std::memory_order_relaxed ); }
   void levelMaskIs( U64 mask ) { levelMask_.store( mask, std::memory_order_relaxed ); }

 private:
   std::string_view name_;
   std::atomic<U64> levelMask_{ 0 };
};

/// The facility of this name; created with every level off on first use, and the same object from
/// then on until the process ends. (Modules make theirs known while they are loaded.)
/// std::bad_alloc when there is no memory for a new one.
[[gnu::visibility( "default" )]] TraceHandle& traceHandle( std::string_view facility );

using TraceSink = std::function<void( TraceLine const& )>;
/// Sends every later line to `sink` and returns the sink that was in force before. An empty sink
/// stands for the default one, which writes each line to std::clog.
[[gnu::visibility( "default" )]] TraceSink traceSinkIs( TraceSink sink );

/// A level together with the place of the trace. Made implicitly from the level.
struct TraceSite {
   /// `function` is given where a helper traces for the operation of that name.
   constexpr TraceSite( U32 traceLevel,
                        char const* function = __builtin_FUNCTION(),
                        char const* sourceFile = __builtin_FILE(),
                        U32 sourceLine = __builtin_LINE() )
         : file( sourceFile ), operation( function ), level( traceLevel ), line( sourceLine ) {}

   char const* file;
   char const* operation;
   U32 level;
   U32 line;
};

/// The trace facility of one source module, as an object of static storage:
///
///    Weft::TraceHelper trace{ "TesselEmTable" };
///    trace( 7, "EmShadowTable::", "free", " index:", index );
///
/// A line is the pieces written one after another with nothing between them.
class [[gnu::visibility( "default" )]] TraceHelper {
 public:
   /// `facility` is not copied: pass a literal. Makes the handle known to traceHandle.
   explicit TraceHelper( std::string_view facility );

   bool enabled( U32 level ) const { return handle_.enabled( level ); }
   /// Whether any level is on.
   bool enabled() const { return handle_.levelMask() != 0; }

   // Everything travels by value and in scalars: what is passed by reference or as a large struct
   // has to live in memory, and would cost the untraced path its stores.
   template<class... Pieces>
   [[gnu::always_inline]] void operator()( TraceSite site, Pieces... message ) const {
      if ( handle_.enabled( site.level ) ) [[unlikely]] {
         write( site.file, site.operation, site.level, site.line, message... );
      }
   }

 private:
   template<class... Pieces>
   [[gnu::cold, gnu::noinline]] void write( char const* file,
                                            char const* operation,
                                            U32 level,
                                            U32 line,
                                            Pieces... message ) const noexcept {
      try {
         std::ostringstream text;
         text.exceptions( std::ios::badbit ); // else a stream out of memory cuts the line short
         ( text << ... << message );
         deliver( { level, operation, file, line }, std::move( text ).str() );
      } catch ( ... ) { // NOLINT(bugprone-empty-catch): a lost line must not undo an operation
      }
   }
   void deliver( TraceSite const&, std::string const& message ) const;

   TraceHandle handle_;
};

} // namespace Weft
