// SPDX-License-Identifier: Apache-2.0
#include "python/Convert.h"

#include "Corvo/Bytes.h"
#include "Corvo/String.h"
#include "WeftCorvo/Entities.h"
#include "python/LibraryLock.h"
#include "python/Objects.h"
#include "python/Texts.h"

#include <limits>
#include <map>
#include <memory>
#include <new>
#include <unordered_map>

namespace TesselPython {

namespace {

[[noreturn]] void refuse( std::string const& wanted, PyObject* object ) {
   throw Refusal( PyExc_TypeError, wanted + " is needed, not " + Py_TYPE( object )->tp_name );
}

/// What every slot does that is a C++ object of a known type.
template<class T>
class Simple : public Converter {
 public:
   std::size_t size() const final { return sizeof( T ); }
   std::size_t alignment() const final { return alignof( T ); }
   void build( void* slot, PyObject* object ) const final {
      std::construct_at( static_cast<T*>( slot ), from( object ) );
   }
   void buildEmpty( void* slot ) const final { std::construct_at( static_cast<T*>( slot ) ); }
   void destroy( void* slot ) const final { std::destroy_at( static_cast<T*>( slot ) ); }
   py::object object( void const* slot ) const final {
      return into( *static_cast<T const*>( slot ) );
   }

 private:
   virtual T from( PyObject* object ) const = 0;
   virtual py::object into( T const& value ) const = 0;
};

class Truth final : public Simple<bool> {
   std::string annotation() const override { return "bool"; }
   bool from( PyObject* object ) const override {
      if ( !PyBool_Check( object ) ) {
         refuse( "a bool", object );
      }
      return object == Py_True;
   }
   py::object into( bool const& value ) const override { return py::bool_( value ); }
};

template<class T>
class Number final : public Simple<T> {
   std::string annotation() const override { return "int"; }
   T from( PyObject* object ) const override {
      if ( !PyIndex_Check( object ) ) {
         refuse( "an int", object );
      }
      py::object const number = owned( PyNumber_Index( object ) );
      U64 const value = PyLong_AsUnsignedLongLong( number.ptr() );
      bool const failed = value == std::numeric_limits<U64>::max() && PyErr_Occurred() != nullptr;
      if ( failed || value > std::numeric_limits<T>::max() ) {
         PyErr_Clear();
         throw Refusal( PyExc_OverflowError,
                        "an int from 0 to " + std::to_string( std::numeric_limits<T>::max() ) +
                           " is needed" );
      }
      return static_cast<T>( value );
   }
   py::object into( T const& value ) const override { return py::int_( value ); }
};

class Text final : public Simple<Corvo::String> {
   std::string annotation() const override { return "str"; }
   Corvo::String from( PyObject* object ) const override { return textFrom( object ); }
   py::object into( Corvo::String const& value ) const override { return textInto( value ); }
};

class ByteString final : public Simple<Corvo::Bytes> {
   std::string annotation() const override { return "bytes"; }
   Corvo::Bytes from( PyObject* object ) const override {
      Py_buffer buffer;
      if ( PyObject_GetBuffer( object, &buffer, PyBUF_SIMPLE ) != 0 ) {
         PyErr_Clear();
         bool const scattered = PyObject_CheckBuffer( object ) != 0;
         refuse( scattered ? "a buffer in one piece" : "bytes", object );
      }
      struct Release {
         void operator()( Py_buffer* held ) const { PyBuffer_Release( held ); }
      };
      std::unique_ptr<Py_buffer, Release> const release( &buffer );
      if ( static_cast<U64>( buffer.len ) > std::numeric_limits<U32>::max() ) {
         throw Refusal( PyExc_OverflowError, "at most 4294967295 bytes are taken" );
      }
      return { buffer.buf, static_cast<U32>( buffer.len ) };
   }
   py::object into( Corvo::Bytes const& value ) const override {
      return owned( PyBytes_FromStringAndSize( value.bytesPtr(), value.size() ) );
   }
};

/// All raw pointers: they have one size, and their slots are never filled from here.
class RawPointer final : public Simple<void*> {
   std::string annotation() const override { return "None"; }
   bool rawPointer() const override { return true; }
   void* from( PyObject* ) const override {
      throw Refusal( PyExc_TypeError, "raw pointers cannot be given by scripts" );
   }
   py::object into( void* const& ) const override { return py::none(); }
};
static_assert( sizeof( void* ) == sizeof( Weft::CharPtr ) );

class Nothing final : public Converter {
   std::size_t size() const override { return 0; }
   std::size_t alignment() const override { return 1; }
   void build( void*, PyObject* ) const override {}
   void buildEmpty( void* ) const override {}
   void destroy( void* ) const override {}
   py::object object( void const* ) const override { return py::none(); }
   std::string annotation() const override { return "None"; }
};

/// A type that no registered module describes, or none that does so yet.
class Undescribed final : public Converter {
   std::size_t size() const override { return 0; }
   std::size_t alignment() const override { return 1; }
   void build( void*, PyObject* ) const override { refuseIt(); }
   void buildEmpty( void* ) const override { refuseIt(); }
   void destroy( void* ) const override {}
   py::object object( void const* ) const override { refuseIt(); }
   std::string annotation() const override { return "object"; }
   [[noreturn]] static void refuseIt() {
      throw Refusal( PyExc_TypeError, "the type is not registered" );
   }
};

class Described : public Converter {
 public:
   explicit Described( Weft::TypeInfo const& type ) : type_( type ) {}

   std::size_t size() const final { return type_.valueSize(); }
   std::size_t alignment() const final { return type_.valueAlignment(); }
   void buildEmpty( void* slot ) const final {
      inLibrary( [ & ] { type_.copy( slot, nullptr ); } );
   }
   void destroy( void* slot ) const final {
      inLibrary( [ & ] { type_.destroy( slot ); } );
   }

 protected:
   Weft::TypeInfo const& type_;
};

class Value final : public Described {
 public:
   using Described::Described;

   std::string annotation() const override { return std::string( shortName( type_ ) ); }
   void build( void* slot, PyObject* object ) const override {
      ValueObject const* const value = asValue( object );
      if ( value == nullptr || !value->type->isA( type_ ) ) {
         refuse( std::string( shortName( type_ ) ), object );
      }
      inLibrary( [ & ] { type_.copy( slot, value->type->viewAs( type_, value->memory ) ); } );
   }
   py::object object( void const* slot ) const override { return newValue( type_, slot ); }
};

/// A value type that is a name for one slot, which stands for it in Python.
class Plain final : public Described {
 public:
   explicit Plain( Weft::TypeInfo const& type )
         : Described( type ), inner_( converterOf( type.constructorArguments()[ 0 ] ) ),
           attribute_( *type.attribute( type.constructorArguments()[ 0 ].name() ) ) {}

   std::string annotation() const override { return inner_.annotation(); }
   void build( void* slot, PyObject* object ) const override {
      ValueObject const* const value = asValue( object );
      if ( value != nullptr && value->type == &type_ ) {
         inLibrary( [ & ] { type_.copy( slot, value->memory ); } );
         return;
      }
      InnerSlot const given( inner_, [ & ]( void* memory ) { inner_.build( memory, object ); } );
      void* const arguments[] = { given.memory() };
      inLibrary( [ & ] { type_.construct( slot, arguments ); } );
   }
   py::object object( void const* slot ) const override {
      InnerSlot const read( inner_, [ & ]( void* memory ) { inner_.buildEmpty( memory ); } );
      inLibrary( [ & ] {
         type_.attributeOp( read.memory(),
                            const_cast<void*>( slot ),
                            &attribute_,
                            Weft::Op::read,
                            nullptr,
                            nullptr );
      } );
      return inner_.object( read.memory() );
   }

 private:
   /// Large enough for the built-in slots, of which a plain type has one.
   class InnerSlot {
    public:
      template<class Build>
      InnerSlot( Converter const& converter, Build const& build ) : converter_( converter ) {
         build( memory() );
      }
      InnerSlot( InnerSlot const& ) = delete;
      InnerSlot& operator=( InnerSlot const& ) = delete;
      ~InnerSlot() { converter_.destroy( memory() ); }
      void* memory() const { return bytes_; }

    private:
      Converter const& converter_;
      alignas( Corvo::String ) mutable std::byte bytes_[ sizeof( Corvo::String ) ];
   };
   static_assert( sizeof( Corvo::Bytes ) <= sizeof( Corvo::String ) );

   Converter const& inner_;
   Weft::Attribute const& attribute_;
};

class Entity final : public Described {
 public:
   using Described::Described;

   std::string annotation() const override { return std::string( shortName( type_ ) ); }
   bool takesNone() const override { return true; }
   void build( void* slot, PyObject* object ) const override {
      EntityObject const* const entity = asEntity( object );
      if ( object != Py_None && ( entity == nullptr || !entity->type->isA( type_ ) ) ) {
         refuse( annotation() + " or None", object );
      }
      type_.copy( slot, nullptr );
      if ( entity != nullptr ) {
         WeftCorvo::nodeInto( type_, slot, entity->node );
      }
   }
   py::object object( void const* slot ) const override {
      return newEntity( WeftCorvo::nodeIn( type_, slot ) );
   }
};

/// A plain type is one slot; whatever a description says, only one that can be read back is taken.
bool travelsPlain( Weft::TypeInfo const& type ) {
   auto const arguments = type.constructorArguments();
   if ( !type.plain() || arguments.size() != 1 || arguments[ 0 ].type() != nullptr ) {
      return false;
   }
   auto const* const attribute = type.attribute( arguments[ 0 ].name() );
   return attribute != nullptr && attribute->printed() &&
          attribute->typeName() == arguments[ 0 ].typeName();
}

std::unique_ptr<Converter const> converterFor( Weft::TypeInfo const& type ) {
   if ( type.kind() == Weft::TypeKind::entity ) {
      return std::make_unique<Entity>( type );
   }
   if ( travelsPlain( type ) ) {
      return std::make_unique<Plain>( type );
   }
   return std::make_unique<Value>( type );
}

Converter const& builtIn( std::string_view name ) {
   static Truth const truth;
   static Number<U8> const u8;
   static Number<U16> const u16;
   static Number<U32> const u32;
   static Number<U64> const u64;
   static Text const text;
   static ByteString const bytes;
   static RawPointer const pointer;
   static Nothing const nothing;
   static Undescribed const undescribed;
   static std::map<std::string_view, Converter const*> const known{
      { "bool", &truth },
      { "U8", &u8 },
      { "U16", &u16 },
      { "U32", &u32 },
      { "U64", &u64 },
      { "Weft::String", &text },
      { "Weft::Bytes", &bytes },
      { "Weft::CharPtr", &pointer },
      { "Weft::BytePtr", &pointer },
      { "Weft::CharPtrConst", &pointer },
      { "void", &nothing },
   };
   auto const found = known.find( name );
   return found == known.end() ? undescribed : *found->second;
}

} // namespace

Converter const& converterOf( std::string_view typeName, Weft::TypeInfo const* type ) {
   if ( type == nullptr ) {
      return builtIn( typeName );
   }
   static auto& known =
      *new std::unordered_map<Weft::TypeInfo const*, std::unique_ptr<Converter const>>;
   auto& converter = known[ type ];
   if ( !converter ) {
      converter = converterFor( *type );
   }
   return *converter;
}

std::string textFrom( PyObject* str ) {
   if ( !PyUnicode_Check( str ) ) {
      refuse( "a str", str );
   }
   PyObject* const encoded = PyUnicode_AsEncodedString( str, "utf-8", "surrogateescape" );
   if ( encoded == nullptr && PyErr_ExceptionMatches( PyExc_UnicodeEncodeError ) != 0 ) {
      PyErr_Clear();
      throw Refusal( PyExc_ValueError, "text with lone surrogates stands for no bytes" );
   }
   py::object const bytes = owned( encoded );
   return { PyBytes_AS_STRING( bytes.ptr() ),
            static_cast<std::size_t>( PyBytes_GET_SIZE( bytes.ptr() ) ) };
}

py::object textInto( std::string_view text ) {
   return owned( decoded( text ) );
}

} // namespace TesselPython
