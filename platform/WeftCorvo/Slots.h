// SPDX-License-Identifier: Apache-2.0
#pragma once

/// How C++ types travel through the registry: which slot stands for a type, and under which name.
///
/// Threads: no state.

#include "Corvo/Bytes.h"
#include "Corvo/Ptr.h"
#include "Corvo/String.h"
#include "Weft/TypeInfo.h"

#include <concepts>
#include <string>
#include <type_traits>

namespace WeftCorvo {

/// Enumerations travel as U32. Specialise this beside the enumeration, with the highest number that
/// it has a name for; callers that hand over more are refused with std::out_of_range.
///
///    template<> struct WeftCorvo::EnumValues<BitState> { static constexpr U32 last = 1; };
template<class E>
struct EnumValues;

template<class T>
inline constexpr bool isPtr = false;
template<class T>
inline constexpr bool isPtr<Corvo::Ptr<T>> = true;

template<class T>
struct SlotTraits {
   using Slot = T;
   static T& fromSlot( T& slot ) { return slot; }
   static T const& toSlot( T const& value ) { return value; }
   static T&& toSlot( T&& value ) { return std::move( value ); }
};

template<class T>
struct SlotTraits<Corvo::Ptr<T const>> {
   using Slot = Corvo::Ptr<T>;
   static Slot& fromSlot( Slot& slot ) { return slot; }
   static Slot toSlot( Corvo::Ptr<T const> const& pointer ) {
      return Slot( const_cast<T*>( pointer.get() ) );
   }
};

template<class T>
   requires std::is_enum_v<T>
struct SlotTraits<T> {
   using Slot = U32;
   static T fromSlot( U32 slot ) { return static_cast<T>( slot ); }
   static U32 toSlot( T value ) { return static_cast<U32>( value ); }
};

/// The slot of a type as a function takes or returns it.
template<class T>
using SlotOf = typename SlotTraits<std::remove_cvref_t<T>>::Slot;

/// The name of a built-in slot type; empty for a described one.
template<class Slot>
constexpr std::string_view builtInName() {
   if constexpr ( std::is_void_v<Slot> ) {
      return "void";
   } else if constexpr ( std::same_as<Slot, bool> ) {
      return "bool";
   } else if constexpr ( std::same_as<Slot, U8> ) {
      return "U8";
   } else if constexpr ( std::same_as<Slot, U16> ) {
      return "U16";
   } else if constexpr ( std::same_as<Slot, U32> ) {
      return "U32";
   } else if constexpr ( std::same_as<Slot, U64> ) {
      return "U64";
   } else if constexpr ( std::same_as<Slot, Corvo::String> ) {
      return "Weft::String";
   } else if constexpr ( std::same_as<Slot, Corvo::Bytes> ) {
      return "Weft::Bytes";
   } else if constexpr ( std::same_as<Slot, Weft::CharPtr> ) {
      return "Weft::CharPtr";
   } else if constexpr ( std::same_as<Slot, Weft::CharPtrConst> ) {
      return "Weft::CharPtrConst";
   } else if constexpr ( std::same_as<Slot, Weft::BytePtr> ) {
      return "Weft::BytePtr";
   } else {
      static_assert( std::is_class_v<Slot>, "a type without a name in the registry" );
      return {};
   }
}

/// The type of a slot, as it is named in the registry.
template<class T>
Weft::TypeReference typeReference() {
   if constexpr ( std::is_void_v<T> ) {
      return Weft::TypeReference( builtInName<T>() );
   } else if constexpr ( isPtr<SlotOf<T>> ) {
      return Weft::TypeReference( typeid( typename SlotOf<T>::Element ) );
   } else if constexpr ( builtInName<SlotOf<T>>().empty() ) {
      return Weft::TypeReference( typeid( SlotOf<T> ) );
   } else {
      return Weft::TypeReference( builtInName<SlotOf<T>>() );
   }
}

/// Argument `index` as a function takes it that declares a `T`. std::invalid_argument when it is
/// missing, std::out_of_range when it is past the last value of an enumeration.
template<class T>
decltype( auto ) argument( void* const* arguments, std::size_t index ) {
   if ( arguments == nullptr || arguments[ index ] == nullptr ) {
      throw std::invalid_argument( "argument " + std::to_string( index + 1 ) + " is missing" );
   }
   using Value = std::remove_cvref_t<T>;
   auto& slot = *static_cast<SlotOf<T>*>( arguments[ index ] );
   if constexpr ( std::is_enum_v<Value> ) {
      if ( slot > EnumValues<Value>::last ) {
         throw std::out_of_range( "argument " + std::to_string( index + 1 ) + " is " +
                                  std::to_string( slot ) + ", past the last value, " +
                                  std::to_string( EnumValues<Value>::last ) );
      }
   }
   return SlotTraits<Value>::fromSlot( slot );
}

/// The key of a collection operation. std::invalid_argument when it is missing.
template<class Key>
Key const& keyAt( void const* key ) {
   if ( key == nullptr ) {
      throw std::invalid_argument( "the key is missing" );
   }
   return *static_cast<Key const*>( key );
}

/// Assigns a result; a null target drops it.
template<class R>
void giveResult( void* result, R&& value ) {
   using Value = std::remove_cvref_t<R>;
   if ( result != nullptr ) {
      *static_cast<SlotOf<R>*>( result ) = SlotTraits<Value>::toSlot( std::forward<R>( value ) );
   }
}

} // namespace WeftCorvo
