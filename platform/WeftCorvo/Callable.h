// SPDX-License-Identifier: Apache-2.0
#pragma once

/// What can be called for an attribute: member functions, functions and captureless lambdas, with
/// their signatures taken apart.
///
/// Threads: no state.

#include "WeftCorvo/Slots.h"

#include <functional>
#include <memory>
#include <utility>

namespace WeftCorvo {

template<class... T>
struct Types {
   static constexpr std::size_t count = sizeof...( T );
};

/// The signature of `F`: Result, and Arguments without the object that a member function is called
/// on. Anything but the types below is a lambda.
template<class F>
struct Callable : Callable<decltype( &F::operator() )> {
   static constexpr bool member = false;
};

template<class R, class... A>
struct Callable<R ( * )( A... )> {
   using Result = R;
   using Arguments = Types<A...>;
   static constexpr bool member = false;
};
template<class R, class... A>
struct Callable<R ( * )( A... ) noexcept> : Callable<R ( * )( A... )> {};

template<class R, class C, class... A>
struct Callable<R ( C::* )( A... )> {
   using Result = R;
   using Arguments = Types<A...>;
   static constexpr bool member = true;
};
template<class R, class C, class... A>
struct Callable<R ( C::* )( A... ) const> : Callable<R ( C::* )( A... )> {};
template<class R, class C, class... A>
struct Callable<R ( C::* )( A... ) noexcept> : Callable<R ( C::* )( A... )> {};
template<class R, class C, class... A>
struct Callable<R ( C::* )( A... ) const noexcept> : Callable<R ( C::* )( A... )> {};

template<class T>
struct WithoutFirst;
template<class First, class... Rest>
struct WithoutFirst<Types<First, Rest...>> {
   using Result = Types<Rest...>;
};

template<class F, bool member>
struct OperationArgumentsOf {
   using Result = typename Callable<F>::Arguments;
};
template<class F>
struct OperationArgumentsOf<F, false> : WithoutFirst<typename Callable<F>::Arguments> {};

/// The arguments of an operation: what a member function takes, or what a function or lambda takes
/// behind the object.
template<class F>
using OperationArguments = typename OperationArgumentsOf<F, Callable<F>::member>::Result;

template<class F>
using ResultOf = typename Callable<F>::Result;

/// Picks one of several member functions of a name by its signature:
/// overload<bool( U32 ) const>( &Table::find ).
template<class Signature, class C>
constexpr auto overload( Signature C::*member ) {
   return member;
}

/// Calls `function` with `leading` (the object, where there is one) and the arguments.
template<class F, class... A, class... Leading>
decltype( auto ) callWith( Types<A...>,
                           F const& function,
                           [[maybe_unused]] void* const* arguments,
                           Leading&... leading ) {
   return [ & ]<std::size_t... I>( std::index_sequence<I...> ) -> decltype( auto ) {
      return std::invoke( function, leading..., argument<A>( arguments, I )... );
   }( std::index_sequence_for<A...>() );
}

/// An argument that callers by name may leave out. Made by byDefault.
template<class Value>
struct OptionalArgument {
   std::string_view name;
   Value value;
};

/// In the place of an argument's name: .opStatic( "open", &open, "name", byDefault( "mode", 0U ) )
template<class Value>
OptionalArgument<Value> byDefault( std::string_view name, Value value ) {
   return { name, std::move( value ) };
}

template<class A>
Weft::Argument namedArgument( std::string_view name ) {
   return { name, typeReference<A>() };
}
template<class A, class Value>
Weft::Argument namedArgument( OptionalArgument<Value> const& argument ) {
   return { argument.name,
            typeReference<A>(),
            std::make_shared<SlotOf<A> const>( SlotTraits<Value>::toSlot( argument.value ) ) };
}

/// Names and types of arguments. There is one name for each type.
template<class... A, class... Names>
std::vector<Weft::Argument> namedArguments( Types<A...>, Names... names ) {
   static_assert( sizeof...( A ) == sizeof...( Names ), "one name for each argument" );
   std::vector<Weft::Argument> arguments;
   arguments.reserve( sizeof...( A ) );
   ( arguments.push_back( namedArgument<A>( names ) ), ... );
   return arguments;
}

} // namespace WeftCorvo
