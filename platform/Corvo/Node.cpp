// SPDX-License-Identifier: Apache-2.0
#include "Corvo/Node.h"

#include "Corvo/ObjectNumbers.h"

namespace Corvo {

U8 ThreadControl::tsp_ = 0;

Node::~Node() {
   forgetObjectNumber( *this );
}

bool Node::referenceIncUnlessGone() const {
   U32 held = word().load( std::memory_order_relaxed );
   while ( ( held & useCountMask ) != 0 ) {
      if ( word().compare_exchange_weak( held, held + 1, std::memory_order_relaxed ) ) {
         return true;
      }
   }
   return false;
}

void Node::lastUserGone() const {
   delete this;
}

Node const* Node::publisher() const {
   return this;
}

void Node::nodeFlagSet( U32 flag, bool value ) {
   if ( value ) {
      word().fetch_or( flag, std::memory_order_relaxed );
   } else {
      word().fetch_and( ~flag, std::memory_order_relaxed );
   }
}

} // namespace Corvo
