// SPDX-License-Identifier: Apache-2.0
#pragma once

/// What the slots of described types can do, derived from the C++ types.
///
/// Threads: no state that changes once a type is described.

#include "Corvo/Node.h"
#include "WeftCorvo/StringForm.h"

#include <memory>
#include <optional>

namespace WeftCorvo {

template<class T>
concept Entity = std::derived_from<T, Corvo::Node>;

/// An object that is converted to bool by hand.
template<class T>
concept HasTruth = requires( T const& value ) { static_cast<bool>( value ); };

template<class T>
concept HasLess = requires( T const& a, T const& b ) {
   { a < b } -> std::convertible_to<bool>;
};

template<class T>
concept HasOwnHash = requires( T const& value ) {
   { value.hash() } -> std::same_as<U32>;
};

template<class T>
concept HasStdHash = requires( T const& value ) {
   { std::hash<T>()( value ) } -> std::same_as<std::size_t>;
};

inline U32 foldedHash( std::size_t hash ) {
   return static_cast<U32>( hash ^ ( hash >> 32 ) );
}

[[noreturn, gnu::visibility( "default" )]] void refuseHash( std::type_info const& cppType );
[[noreturn, gnu::visibility( "default" )]] void refuseDefault( std::type_info const& cppType );

template<class T>
T const& secondValue( void const* other ) {
   if ( other == nullptr ) {
      throw std::invalid_argument( "the second value is missing" );
   }
   return *static_cast<T const*>( other );
}

/// `Base` is void for a value type that stands alone.
template<class T, class Base>
class ValueMethods final : public Weft::TypeMethods {
 public:
   using Print = std::function<void( std::string&, T const& )>;
   using Parse = std::function<T( Weft::CharRange )>;

   void unhashableIs() { unhashable_ = true; }
   void defaultValueIs( T const& value ) { default_ = value; }
   void formIs( Print print, Parse parse ) {
      print_ = std::move( print );
      parse_ = std::move( parse );
   }

   std::size_t size() const override { return sizeof( T ); }
   std::size_t alignment() const override { return alignof( T ); }

   void copy( void* target, void const* source ) const override {
      if ( source != nullptr ) {
         std::construct_at( static_cast<T*>( target ), *static_cast<T const*>( source ) );
      } else if ( default_ ) {
         std::construct_at( static_cast<T*>( target ), *default_ );
      } else if constexpr ( std::default_initializable<T> ) {
         std::construct_at( static_cast<T*>( target ) );
      } else {
         refuseDefault( typeid( T ) );
      }
   }
   void destroy( void* slot ) const override { std::destroy_at( static_cast<T*>( slot ) ); }

   bool hashable() const override { return !unhashable_ && ( HasOwnHash<T> || HasStdHash<T> ); }
   U32 hash( void const* slot ) const override {
      if ( hashable() ) {
         if constexpr ( HasOwnHash<T> ) {
            return static_cast<T const*>( slot )->hash();
         } else if constexpr ( HasStdHash<T> ) {
            return foldedHash( std::hash<T>()( *static_cast<T const*>( slot ) ) );
         }
      }
      refuseHash( typeid( T ) );
   }

   void print( Weft::TypeInfo const& type, std::string& text, void const* slot ) const override {
      if ( print_ ) {
         print_( text, *static_cast<T const*>( slot ) );
         return;
      }
      text.append( type.name() ).append( "(" );
      text += type.printAttributes( text, slot ) ? " )" : ")";
   }
   void parse( void* target, Weft::CharRange text ) const override {
      if ( parse_ ) {
         std::construct_at( static_cast<T*>( target ), parse_( text ) );
      } else if constexpr ( std::constructible_from<T, Weft::CharRange> ) {
         std::construct_at( static_cast<T*>( target ), text );
      } else {
         throw Weft::TypeException( "a type without a constructor from its string form" );
      }
   }

   Weft::Status
   perform( bool* result, void const* object, Weft::Op op, void const* other ) const override {
      [[maybe_unused]] T const& value = *static_cast<T const*>( object );
      if constexpr ( HasTruth<T> ) {
         if ( op == Weft::Op::truth ) {
            giveResult( result, static_cast<bool>( value ) );
            return Weft::Status::done;
         }
      }
      if constexpr ( std::equality_comparable<T> ) {
         if ( op == Weft::Op::equal ) {
            giveResult( result, static_cast<bool>( value == secondValue<T>( other ) ) );
            return Weft::Status::done;
         }
      }
      if constexpr ( HasLess<T> ) {
         if ( op == Weft::Op::less ) {
            giveResult( result, static_cast<bool>( value < secondValue<T>( other ) ) );
            return Weft::Status::done;
         }
      }
      return Weft::Status::unsupported;
   }

   bool plain() const override { return static_cast<bool>( print_ ); }
   Weft::AllocTrackTypeInfo const* allocationTracker() const override { return nullptr; }
   void* asBase( void* object ) const override {
      if constexpr ( std::is_void_v<Base> ) {
         return object;
      } else {
         return static_cast<Base*>( static_cast<T*>( object ) );
      }
   }

 private:
   bool unhashable_ = false;
   std::optional<T> default_;
   Print print_;
   Parse parse_;
};

/// The slots of an entity type as slots of Corvo::Node, for callers who do not know the type.
class [[gnu::visibility( "default" )]] EntityMethods : public Weft::TypeMethods {
 public:
   virtual Corvo::Ptr<Corvo::Node> node( void const* slot ) const = 0;
   /// Assigns the object to the slot; false, nothing assigned, when it is of another type.
   virtual bool slotIs( void* slot, Corvo::Ptr<Corvo::Node> const& node ) const = 0;
   /// The object as an object of the type; null when it is of another type.
   virtual void* object( Corvo::Node* node ) const = 0;

   bool plain() const final { return false; }
   bool hashable() const final;
   U32 hash( void const* slot ) const final;
   void print( Weft::TypeInfo const& type, std::string& text, void const* slot ) const final;
   Weft::Status
   perform( bool* result, void const* object, Weft::Op op, void const* other ) const final;
};

template<Entity T, class Base>
class PtrMethods final : public EntityMethods {
 public:
   using Slot = Corvo::Ptr<T>;

   std::size_t size() const override { return sizeof( Slot ); }
   std::size_t alignment() const override { return alignof( Slot ); }

   void copy( void* target, void const* source ) const override {
      Slot const* const from = static_cast<Slot const*>( source );
      std::construct_at( static_cast<Slot*>( target ), from ? *from : Slot() );
   }
   void destroy( void* slot ) const override { std::destroy_at( static_cast<Slot*>( slot ) ); }
   void parse( void* target, Weft::CharRange text ) const override {
      std::construct_at( static_cast<Slot*>( target ), readForm<Slot>( text ) );
   }
   Weft::AllocTrackTypeInfo const* allocationTracker() const override {
      if constexpr ( requires { T::memAllocationTracker_; } ) {
         return &T::memAllocationTracker_;
      } else {
         return nullptr;
      }
   }
   void* asBase( void* object ) const override {
      return static_cast<Base*>( static_cast<T*>( object ) );
   }

   Corvo::Ptr<Corvo::Node> node( void const* slot ) const override {
      return *static_cast<Slot const*>( slot );
   }
   bool slotIs( void* slot, Corvo::Ptr<Corvo::Node> const& node ) const override {
      auto const wanted = Corvo::dynamicPtr<T>( node );
      bool const fits = wanted || !node;
      if ( fits ) {
         *static_cast<Slot*>( slot ) = wanted;
      }
      return fits;
   }
   void* object( Corvo::Node* node ) const override { return dynamic_cast<T*>( node ); }
};

} // namespace WeftCorvo
