// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Counted references to entity objects.
///
/// Threads: a Ptr object belongs to one thread at a time; whether several threads may hold Ptrs to
/// one object is said by Corvo::ThreadControl::tsp_.

#include "Corvo/Node.h"
#include "Weft/AllocTrackTypeInfo.h"

#include <compare>
#include <concepts>
#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

namespace Corvo {

/// One reference to a `T`, or null. `T` is an entity type, const for a reference that only reads.
template<class T>
class Ptr {
 public:
   using Element = T;

   constexpr Ptr() = default;
   constexpr Ptr( std::nullptr_t ) {}
   /// Takes a reference of its own on `object`; null is allowed.
   explicit Ptr( T* object ) : object_( object ) { take(); }
   Ptr( Ptr const& other ) : object_( other.object_ ) { take(); }
   Ptr( Ptr&& other ) noexcept : object_( std::exchange( other.object_, nullptr ) ) {}
   template<class U>
      requires std::convertible_to<U*, T*>
   Ptr( Ptr<U> const& other ) : object_( other.get() ) {
      take();
   }
   template<class U>
      requires std::convertible_to<U*, T*>
   Ptr( Ptr<U>&& other ) noexcept : object_( other.release() ) {}
   ~Ptr() { drop(); }

   Ptr& operator=( Ptr other ) noexcept {
      std::swap( object_, other.object_ );
      return *this;
   }

   /// A Ptr that takes over a reference which the caller already holds.
   static Ptr adopt( T* object ) {
      Ptr adopted;
      adopted.object_ = object;
      return adopted;
   }
   /// Hands the reference to the caller and leaves this Ptr null.
   T* release() { return std::exchange( object_, nullptr ); }

   T* get() const { return object_; }
   T* operator->() const { return object_; }
   T& operator*() const { return *object_; }
   explicit operator bool() const { return object_ != nullptr; }

   template<class U>
   bool operator==( Ptr<U> const& other ) const {
      return object_ == other.get();
   }
   bool operator==( std::nullptr_t ) const { return object_ == nullptr; }

 private:
   void take() {
      if ( object_ ) {
         object_->referenceInc();
      }
   }
   void drop() {
      if ( object_ ) {
         object_->referenceDec();
      }
   }

   T* object_ = nullptr;
};

/// The object as a `T`, with one more reference; null when it is of another type (or null).
template<class T, class U>
Ptr<T> dynamicPtr( Ptr<U> const& object ) {
   return Ptr<T>( dynamic_cast<T*>( object.get() ) );
}

/// A `T` that is counted by `T::memAllocationTracker_`
/// while it lives. Only makePtr makes one.
template<class T>
class SlabHeld final : public T {
 public:
   using T::T;

   static void* operator new( std::size_t size ) {
      void* const memory = Node::operator new( size );
      T::memAllocationTracker_.allocationInc();
      return memory;
   }
   static void operator delete( void* memory, std::size_t size ) noexcept {
      T::memAllocationTracker_.allocationDec();
      Node::operator delete( memory, size );
   }
};

/// A new `T` with one reference, held by the result. What the constructor throws is passed on, and
/// std::bad_alloc when there is no memory; then nothing is left behind. `T` has a public constructor
/// for the arguments. Objects of a final `T` are not counted.
template<class T, class... Arguments>
   requires std::derived_from<T, Node>
Ptr<T> makePtr( Arguments&&... arguments ) {
   if constexpr ( std::is_final_v<T> ) {
      return Ptr<T>::adopt( new T( std::forward<Arguments>( arguments )... ) );
   } else {
      return Ptr<T>::adopt( new SlabHeld<T>( std::forward<Arguments>( arguments )... ) );
   }
}

} // namespace Corvo

template<class T>
struct std::hash<Corvo::Ptr<T>> {
   std::size_t operator()( Corvo::Ptr<T> const& pointer ) const {
      return std::hash<T*>()( pointer.get() );
   }
};
