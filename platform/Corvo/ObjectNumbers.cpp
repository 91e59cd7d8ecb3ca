// SPDX-License-Identifier: Apache-2.0
#include "Corvo/ObjectNumbers.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace Corvo {

namespace {

class ObjectNumbers {
 public:
   U64 numberOf( Node const& object ) {
      std::scoped_lock const lock( mutex_ );
      if ( auto const known = numbers_.find( &object ); known != numbers_.end() ) {
         return known->second;
      }
      auto const added = objects_.emplace( last_ + 1, &object ).first;
      try {
         numbers_.emplace( &object, last_ + 1 );
      } catch ( ... ) {
         objects_.erase( added );
         throw;
      }
      return ++last_;
   }

   Ptr<Node> object( U64 number ) {
      std::scoped_lock const lock( mutex_ );
      auto const known = objects_.find( number );
      // An object whose last user is gone waits, in its destructor, for this lock at the latest.
      bool const held = known != objects_.end() && known->second->referenceIncUnlessGone();
      return held ? Ptr<Node>::adopt( const_cast<Node*>( known->second ) ) : nullptr;
   }

   void forget( Node const& object ) {
      std::scoped_lock const lock( mutex_ );
      if ( auto const known = numbers_.find( &object ); known != numbers_.end() ) {
         objects_.erase( known->second );
         numbers_.erase( known );
      }
   }

 private:
   std::mutex mutex_;
   U64 last_ = 0;
   std::unordered_map<Node const*, U64> numbers_;
   std::unordered_map<U64, Node const*> objects_;
};

/// Null until the first number is given. Never destroyed: objects may outlive every static object.
constinit std::atomic<ObjectNumbers*> objectNumbers{ nullptr };

ObjectNumbers& startedObjectNumbers() {
   static ObjectNumbers& started = *std::make_unique<ObjectNumbers>().release();
   objectNumbers.store( &started, std::memory_order_release );
   return started;
}

} // namespace

U64 objectNumber( Node const& object ) {
   return startedObjectNumbers().numberOf( object );
}

Ptr<Node> objectByNumber( U64 number ) {
   auto* const known = objectNumbers.load( std::memory_order_acquire );
   return known ? known->object( number ) : nullptr;
}

void forgetObjectNumber( Node const& object ) noexcept {
   if ( auto* const known = objectNumbers.load( std::memory_order_acquire ) ) [[unlikely]] {
      known->forget( object );
   }
}

} // namespace Corvo
