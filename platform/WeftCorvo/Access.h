// SPDX-License-Identifier: Apache-2.0
#pragma once

/// How described attributes are reached: from the functions that a description names to the
/// operations of Weft::AttributeAccess. `T` is the owner throughout.
///
/// Threads: no state that changes.

#include "Quarry/Slab.h"
#include "WeftCorvo/Callable.h"
#include "WeftCorvo/Methods.h"

#include <concepts>

namespace WeftCorvo {

using Weft::Op;
using Weft::Status;

/// Stands for a function that an attribute does not have.
struct None {};

template<class Getter, class T>
using ReadBy = std::invoke_result_t<Getter const&, T const&>;

/// A stored attribute of a slot type that a value's string form can hold is printed there.
template<class T, class Getter, class Setter = None, class Remover = None>
class StoredAccess final : public Weft::AttributeAccess {
 public:
   StoredAccess( Getter getter, Setter setter, Remover remover )
         : getter_( getter ), setter_( setter ), remover_( remover ) {}

   Status perform( void* result,
                   void* object,
                   Op op,
                   void const*,
                   [[maybe_unused]] void* const* arguments ) const override {
      T& owner = *static_cast<T*>( object );
      if ( op == Op::read ) {
         giveResult( result, std::invoke( getter_, std::as_const( owner ) ) );
         return Status::done;
      }
      if constexpr ( !std::same_as<Setter, None> ) {
         if ( op == Op::write ) {
            callWith( OperationArguments<Setter>(), setter_, arguments, owner );
            return Status::done;
         }
      }
      if constexpr ( !std::same_as<Remover, None> ) {
         if ( op == Op::del ) {
            giveResult( result, std::invoke( remover_, owner ) );
            return Status::done;
         }
      }
      return Status::unsupported;
   }

   void print( std::string& text, void const* object ) const override {
      using Value = std::remove_cvref_t<ReadBy<Getter, T>>;
      if constexpr ( !Entity<T> ) {
         static_assert( !std::is_pointer_v<Value>, "a value's string form has no raw pointers" );
         appendForm(
            text,
            SlotTraits<Value>::toSlot( std::invoke( getter_, *static_cast<T const*>( object ) ) ) );
      }
   }

 private:
   Getter getter_;
   [[no_unique_address]] Setter setter_;
   [[no_unique_address]] Remover remover_;
};

template<class Value>
class FixedAccess final : public Weft::AttributeAccess {
 public:
   explicit FixedAccess( Value value ) : value_( std::move( value ) ) {}

   Status perform( void* result, void*, Op op, void const*, void* const* ) const override {
      if ( op != Op::read ) {
         return Status::unsupported;
      }
      giveResult( result, value_ );
      return Status::done;
   }

 private:
   Value value_;
};

/// Calls and gives the result, where there is one.
template<class Result, class Arguments, class F, class... Leading>
void callForResult(
   void* result, Arguments types, F const& function, void* const* arguments, Leading&... leading ) {
   if constexpr ( std::is_void_v<Result> ) {
      callWith( types, function, arguments, leading... );
   } else {
      giveResult( result, callWith( types, function, arguments, leading... ) );
   }
}

/// `Object` is the owner, const for an operation that does not change it.
template<class Object, class F>
class OpAccess final : public Weft::AttributeAccess {
 public:
   explicit OpAccess( F function ) : function_( function ) {}

   Status perform(
      void* result, void* object, Op op, void const*, void* const* arguments ) const override {
      if ( op != Op::call ) {
         return Status::unsupported;
      }
      callForResult<ResultOf<F>>(
         result, OperationArguments<F>(), function_, arguments, *static_cast<Object*>( object ) );
      return Status::done;
   }

 private:
   F function_;
};

template<class F>
class StaticOpAccess final : public Weft::AttributeAccess {
 public:
   explicit StaticOpAccess( F function ) : function_( function ) {}

   Status
   perform( void* result, void*, Op op, void const*, void* const* arguments ) const override {
      if ( op != Op::call ) {
         return Status::unsupported;
      }
      callForResult<ResultOf<F>>( result, typename Callable<F>::Arguments(), function_, arguments );
      return Status::done;
   }

 private:
   F function_;
};

/// A walk; Cursor has onMember(), key(), value() and advance().
template<class T, class Cursor>
class CursorIterator final : public Weft::CollectionIterator {
 public:
   CursorIterator( T& owner, Cursor cursor ) : owner_( &owner ), cursor_( std::move( cursor ) ) {}

   static void* operator new( std::size_t size ) { return Quarry::slabAllocOrStdMalloc( size ); }
   static void operator delete( void* memory, std::size_t size ) noexcept {
      Quarry::slabFreeOrStdFree( memory, size );
   }

   bool onMember() const override { return cursor_.onMember(); }
   void key( void* target ) const override {
      checkMember();
      giveResult( target, cursor_.key() );
   }
   void value( void* target ) const override {
      checkMember();
      giveResult( target, cursor_.value() );
   }
   void advance() override {
      if ( cursor_.onMember() ) {
         cursor_.advance();
      }
   }

 private:
   void checkMember() const {
      if ( !cursor_.onMember() ) {
         throw std::out_of_range( "the iterator stands on no member" );
      }
   }

   // Keeps an entity alive for the cursor; a value outlives its iterator by the caller's care.
   std::conditional_t<Entity<T>, Corvo::Ptr<T>, T*> owner_;
   Cursor cursor_;
};

/// The functions of a collection. See TypeDescription::collection.
template<class Get, class Set, class Del, class Count, class Capacity, class Contains, class Walk>
struct CollectionFunctions {
   Get get;
   Set set;
   Del del;
   Count count;
   Capacity capacity;
   Contains contains;
   Walk walk;
};

template<class T, class Key, class Functions>
class CollectionAccess final : public Weft::AttributeAccess {
 public:
   explicit CollectionAccess( Functions functions ) : functions_( functions ) {}

   Status perform(
      void* result, void* object, Op op, void const* key, void* const* arguments ) const override {
      T& owner = *static_cast<T*>( object );
      T const& unchanged = owner;
      switch ( op ) {
      case Op::read:
         giveResult( result, std::invoke( functions_.get, unchanged, keyAt<Key>( key ) ) );
         return Status::done;
      case Op::write:
         set( owner, keyAt<Key>( key ), arguments );
         return Status::done;
      case Op::del:
         giveResult( result, std::invoke( functions_.del, owner, keyAt<Key>( key ) ) );
         return Status::done;
      case Op::count:
         giveResult( result, static_cast<U32>( std::invoke( functions_.count, unchanged ) ) );
         return Status::done;
      case Op::capacity:
         giveResult( result, static_cast<U32>( std::invoke( functions_.capacity, unchanged ) ) );
         return Status::done;
      case Op::contains:
         giveResult(
            result,
            static_cast<bool>( std::invoke( functions_.contains, unchanged, keyAt<Key>( key ) ) ) );
         return Status::done;
      default:
         return Status::unsupported;
      }
   }

   std::unique_ptr<Weft::CollectionIterator> iterator( void* object,
                                                       void const* startKey ) const override {
      T& owner = *static_cast<T*>( object );
      auto cursor = std::invoke(
         functions_.walk, std::as_const( owner ), static_cast<Key const*>( startKey ) );
      return std::make_unique<CursorIterator<T, decltype( cursor )>>( owner, std::move( cursor ) );
   }

 private:
   using Value = std::invoke_result_t<decltype( Functions::get ) const&, T const&, Key const&>;

   void set( T& owner, Key const& key, void* const* arguments ) const {
      std::invoke( functions_.set, owner, key, argument<Value>( arguments, 0 ) );
   }

   Functions functions_;
};

} // namespace WeftCorvo
