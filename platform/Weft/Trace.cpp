// SPDX-License-Identifier: Apache-2.0
#include "Weft/Trace.h"

#include <deque>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

namespace Weft {

namespace {

/// Every facility by name. Handles of modules live in the modules; handles first asked for by name
/// live here, at addresses that never change.
class Facilities {
 public:
   TraceHandle& handle( std::string_view name ) {
      std::lock_guard const guard( mutex_ );
      if ( auto const known = byName_.find( name ); known != byName_.end() ) {
         return *known->second;
      }
      Named& added = named_.emplace_back( name );
      byName_.emplace( added.handle.name(), &added.handle );
      return added.handle;
   }

   void moduleHandleIs( TraceHandle& handle ) {
      std::lock_guard const guard( mutex_ );
      byName_.insert_or_assign( handle.name(), &handle );
   }

 private:
   struct Named {
      explicit Named( std::string_view facility ) : name( facility ), handle( name ) {}
      std::string name;
      TraceHandle handle;
   };

   std::mutex mutex_;
   std::deque<Named> named_;
   std::map<std::string_view, TraceHandle*> byName_;
};

// Leaked on purpose: objects of static storage elsewhere may trace while the process ends.
Facilities& facilities() {
   static auto& all = *std::make_unique<Facilities>().release();
   return all;
}

void writeToClog( TraceLine const& line ) {
   std::clog << line.facility << ' ' << line.level << ' ' << line.file << ':' << line.line << ' '
             << line.operation << ": " << line.message << '\n';
}

struct SinkInForce {
   std::mutex mutex; ///< of `sink`, never held while a sink runs: a sink may exchange the sink
   std::shared_ptr<TraceSink const> sink = std::make_shared<TraceSink const>( writeToClog );
   std::mutex oneAtATime;
};

/// Marks this thread as being inside the sink.
class Delivery {
 public:
   explicit Delivery( bool* delivering ) : delivering_( delivering ) { *delivering_ = true; }
   Delivery( Delivery const& ) = delete;
   Delivery& operator=( Delivery const& ) = delete;
   ~Delivery() { *delivering_ = false; }

 private:
   bool* delivering_;
};

SinkInForce& sinkInForce() {
   static auto& inForce = *std::make_unique<SinkInForce>().release();
   return inForce;
}

} // namespace

TraceHandle& traceHandle( std::string_view facility ) {
   return facilities().handle( facility );
}

TraceSink traceSinkIs( TraceSink sink ) {
   if ( !sink ) {
      sink = writeToClog;
   }
   auto next = std::make_shared<TraceSink const>( std::move( sink ) );
   std::lock_guard const guard( sinkInForce().mutex );
   return *std::exchange( sinkInForce().sink, std::move( next ) );
}

TraceHelper::TraceHelper( std::string_view facility ) : handle_( facility ) {
   facilities().moduleHandleIs( handle_ );
}

void TraceHelper::deliver( TraceSite const& site, std::string const& message ) const {
   static thread_local bool delivering = false;
   if ( delivering ) {
      return;
   }
   std::shared_ptr<TraceSink const> const sink = [] {
      std::lock_guard const guard( sinkInForce().mutex );
      return sinkInForce().sink;
   }();
   std::lock_guard const guard( sinkInForce().oneAtATime );
   Delivery const delivery( &delivering );
   ( *sink )( { .facility = handle_.name(),
                .level = site.level,
                .file = site.file,
                .line = site.line,
                .operation = site.operation,
                .message = message } );
}

} // namespace Weft
