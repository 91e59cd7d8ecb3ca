// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The base of every entity type: an object with an identity, counted by reference and held
/// through Corvo::Ptr.
///
/// Reference word, 32 bits:
///
///    31    30               29                   28 ............ 0
///    .     zombie reactors  notification active  use count
///
/// The last user is gone when the word without its two flags is zero.
///
/// Threads: the reference word follows Corvo::ThreadControl::tsp_; everything else belongs to the
/// derived type.

#include "Corvo/ThreadControl.h"
#include "Quarry/Slab.h"
#include "Weft/TypeData.h"
#include "Weft/Types.h"

#include <atomic>

namespace Corvo {

class [[gnu::visibility( "default" )]] Node {
 public:
   static constexpr U32 notificationActiveFlag = U32{ 1 } << 29;
   static constexpr U32 zombieReactorsFlag = U32{ 1 } << 30;
   static constexpr U32 useCountMask = 0x9fffffff;

   Node( Node const& ) = delete;
   Node& operator=( Node const& ) = delete;
   virtual ~Node();

   /// Every object's memory comes from the slab allocator.
   static void* operator new( std::size_t size ) { return Quarry::slabAllocOrStdMalloc( size ); }
   static void operator delete( void* memory, std::size_t size ) noexcept {
      Quarry::slabFreeOrStdFree( memory, size );
   }

   /// Called once, when the last reference goes: destroys the object and returns its memory.
   virtual void lastUserGone() const;
   /// The object that speaks for this one's changes: the object itself.
   virtual Node const* publisher() const;
   /// The dynamic type's place in the type system: the record of its module, and its index there.
   virtual Weft::TypeData typeData() const = 0;

   void referenceInc() const {
      if ( ThreadControl::tsp_ ) [[unlikely]] {
         word().fetch_add( 1, std::memory_order_relaxed );
      } else {
         ++referenceWord_;
      }
   }

   /// As referenceInc, unless the last user is gone already; returns whether a reference was taken.
   bool referenceIncUnlessGone() const;

   void referenceDec() const {
      U32 const left = ThreadControl::tsp_ ? word().fetch_sub( 1, std::memory_order_acq_rel ) - 1
                                           : --referenceWord_;
      if ( ( left & useCountMask ) == 0 ) {
         lastUserGone();
      }
   }

   /// References held now; of use to tests and state browsers only.
   U32 useCount() const { return word().load( std::memory_order_relaxed ) & useCountMask; }
   bool nodeFlag( U32 flag ) const {
      return ( word().load( std::memory_order_relaxed ) & flag ) != 0;
   }

 protected:
   /// A new object has one user: whoever creates it.
   Node() = default;
   void nodeFlagSet( U32 flag, bool value );

 private:
   std::atomic_ref<U32> word() const { return std::atomic_ref<U32>( referenceWord_ ); }

   mutable U32 referenceWord_ = 1;
};

} // namespace Corvo
