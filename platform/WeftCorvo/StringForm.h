// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The string forms of values, both ways. A value type prints and reads itself with one call each:
///
///    std::ostream& operator<<( std::ostream& stream, EntryKey const& key ) {
///       return stream << WeftCorvo::stringForm( key );
///    }
///    EntryKey::EntryKey( Weft::CharRange text ) {
///       WeftCorvo::readAttributes( text, "Tessel::EntryKey", "bytes", bytes_ );
///    }
///
/// Forms of single slots:
///
///    bool, numbers     true, false, decimal digits
///    String, Bytes     "text with \x22 escapes", 0x and two digits per byte
///    value types       TYPE( name: form, name: form ), or the form that the type declares
///    entities          null, or TYPE@NUMBER, found again as long as the object lives
///
/// Text comes from anywhere: whatever it is, reading it gives a value or throws Weft::ParseError.
/// How deep forms nest is bounded by the types, not by the text.
///
/// Threads: as the values; the registry and the objects' numbers may be used on any thread.

#include "WeftCorvo/Slots.h"

#include <array>
#include <atomic>
#include <limits>
#include <memory>
#include <new>

namespace WeftCorvo {

[[noreturn, gnu::visibility( "default" )]] void refuseUndescribed( std::type_info const& cppType );

/// The description of `T`. TypeException when no registered module describes it.
template<class T>
Weft::TypeInfo const& typeOf() {
   static constinit std::atomic<Weft::TypeInfo const*> known{ nullptr };
   Weft::TypeInfo const* type = known.load( std::memory_order_acquire );
   if ( type == nullptr ) {
      type = Weft::typeByCppType( typeid( T ) );
      if ( type == nullptr ) {
         refuseUndescribed( typeid( T ) );
      }
      known.store( type, std::memory_order_release );
   }
   return *type;
}

/// The string form of a value as a `T`; what `stream << stringForm( value )` writes is the form.
template<class T>
std::string stringForm( T const& value ) {
   return typeOf<T>().stringForm( &value );
}

[[gnu::visibility( "default" )]] void appendObject( std::string& text, Corvo::Node const* object );
/// Null, or the living object that the text names. ParseError when there is none, or when it is not
/// of the type that the text says.
[[gnu::visibility( "default" )]] Corvo::Ptr<Corvo::Node> readObject( Weft::CharRange& text );

template<class Slot>
void appendForm( std::string& text, Slot const& slot ) {
   if constexpr ( isPtr<Slot> ) {
      appendObject( text, slot.get() );
   } else if constexpr ( std::same_as<Slot, bool> ) {
      text += slot ? "true" : "false";
   } else if constexpr ( std::unsigned_integral<Slot> ) {
      text += std::to_string( slot );
   } else if constexpr ( std::same_as<Slot, Corvo::String> ) {
      text += Weft::quoted( slot );
   } else if constexpr ( std::same_as<Slot, Corvo::Bytes> ) {
      text += Weft::hexadecimal( std::string_view( slot ) );
   } else {
      static_assert( !std::is_pointer_v<Slot>, "raw pointers have no string form" );
      typeOf<Slot>().appendStringForm( text, &slot );
   }
}

/// Room for a `T` that something else builds, and destroys it.
template<class T>
class Room {
 public:
   Room() = default;
   Room( Room const& ) = delete;
   Room& operator=( Room const& ) = delete;
   ~Room() {
      if ( built_ ) {
         std::destroy_at( built_ );
      }
   }

   void* memory() { return bytes_.data(); }
   /// To be called once the `T` is built.
   T& built() {
      built_ = std::launder( reinterpret_cast<T*>( bytes_.data() ) );
      return *built_;
   }

 private:
   alignas( T ) std::array<std::byte, sizeof( T )> bytes_;
   T* built_ = nullptr;
};

template<class T>
T readObjectAs( Weft::CharRange text ) {
   using Entity = std::remove_const_t<typename T::Element>;
   Weft::CharRange rest = text;
   auto const object = readObject( rest );
   rest.end();
   auto wanted = Corvo::dynamicPtr<Entity>( object );
   if ( object && !wanted ) {
      text.refuse( "the object is not a " + std::string( typeOf<Entity>().name() ) );
   }
   return wanted;
}

template<class T>
T readDescribed( Weft::CharRange text ) {
   Room<T> room;
   typeOf<T>().fromStringForm( room.memory(), text );
   return std::move( room.built() );
}

/// The slot that the whole text stands for.
template<class Slot>
Slot readForm( Weft::CharRange text ) {
   if constexpr ( isPtr<Slot> ) {
      return readObjectAs<Slot>( text );
   } else if constexpr ( std::is_class_v<Slot> && builtInName<Slot>().empty() ) {
      return readDescribed<Slot>( text );
   } else {
      Slot slot{};
      if constexpr ( std::same_as<Slot, bool> ) {
         slot = text.accept( "true" );
         if ( !slot ) {
            text.expect( "false" );
         }
      } else if constexpr ( std::unsigned_integral<Slot> ) {
         slot = static_cast<Slot>( text.takeNumber( std::numeric_limits<Slot>::max() ) );
      } else if constexpr ( std::same_as<Slot, Corvo::String> ) {
         slot = text.takeQuoted();
      } else {
         static_assert( std::same_as<Slot, Corvo::Bytes>, "raw pointers have no string form" );
         slot = Corvo::Bytes( text.takeHexadecimal() );
      }
      text.end();
      return slot;
   }
}

/// Takes the string form of a value apart, attribute by attribute, for a type whose fields lie in
/// several classes; readAttributes does it in one call.
class [[gnu::visibility( "default" )]] AttributeReader {
 public:
   /// ParseError when the whole text is not TYPENAME( name: …, name: … ).
   AttributeReader( Weft::CharRange text, std::string_view typeName );

   /// The attribute's value. ParseError when the text lacks it or has it malformed.
   template<class Field>
   Field value( std::string_view name ) {
      return readForm<Field>( take( name ) );
   }
   template<class Field>
   AttributeReader& read( std::string_view name, Field& field ) {
      field = value<Field>( name );
      return *this;
   }

   /// ParseError when an attribute of the text was not read: an unknown one, or one given twice.
   void end() const;

 private:
   struct Part {
      std::string_view name;
      Weft::CharRange text;
      bool taken = false;
   };

   Weft::CharRange take( std::string_view name );

   Weft::CharRange whole_;
   std::vector<Part> parts_;
};

inline void readFields( AttributeReader const& reader ) {
   reader.end();
}
template<class Field, class... More>
void readFields( AttributeReader& reader, std::string_view name, Field& field, More&&... more ) {
   reader.read( name, field );
   readFields( reader, std::forward<More>( more )... );
}

/// Reads the string form of a value into its fields, given as name, field, name, field, …; all of
/// the text's attributes have to be among them. ParseError, with some fields assigned, otherwise.
template<class... NamesAndFields>
void readAttributes( Weft::CharRange text,
                     std::string_view typeName,
                     NamesAndFields&&... namesAndFields ) {
   AttributeReader reader( text, typeName );
   readFields( reader, std::forward<NamesAndFields>( namesAndFields )... );
}

/// The value of the only attribute of a value's string form. ParseError as readAttributes.
template<class Field>
Field readAttribute( Weft::CharRange text, std::string_view typeName, std::string_view name ) {
   AttributeReader reader( text, typeName );
   auto field = reader.value<Field>( name );
   reader.end();
   return field;
}

} // namespace WeftCorvo
