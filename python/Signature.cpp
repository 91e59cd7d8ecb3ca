// SPDX-License-Identifier: Apache-2.0
#include "python/Signature.h"

#include <algorithm>

namespace TesselPython {

namespace {

py::object interned( std::string_view name ) {
   PyObject* text = textInto( name ).release().ptr();
   PyUnicode_InternInPlace( &text );
   return owned( text );
}

/// Where `name` stands in the tuple; its size when it does not.
Py_ssize_t placeOf( PyObject* name, PyObject* names ) {
   Py_ssize_t const count = PyTuple_GET_SIZE( names );
   for ( Py_ssize_t i = 0; i < count; ++i ) {
      if ( PyTuple_GET_ITEM( names, i ) == name ) {
         return i;
      }
   }
   for ( Py_ssize_t i = 0; i < count; ++i ) {
      if ( PyUnicode_Compare( PyTuple_GET_ITEM( names, i ), name ) == 0 ) {
         return i;
      }
   }
   return count;
}

std::string defaultText( Weft::Argument const& argument ) {
   return argument.defaultSlot() ? py::repr( defaultOf( argument ) ).cast<std::string>() : "";
}

} // namespace

py::object defaultOf( Weft::Argument const& argument ) {
   return argument.defaultSlot() ? converterOf( argument ).object( argument.defaultSlot() )
                                 : py::object();
}

std::string givenAnnotation( Weft::Argument const& argument ) {
   Converter const& converter = converterOf( argument );
   return converter.annotation() + ( converter.takesNone() ? " | None" : "" );
}

std::string annotation( Weft::Argument const& argument ) {
   std::string const text = std::string( argument.name() ) + ": " + givenAnnotation( argument );
   return argument.defaultSlot() ? text + " = " + defaultText( argument ) : text;
}

Signature::Signature( std::string_view name,
                      std::span<Weft::Argument const> arguments,
                      Converter const* result )
      : name_( name ), arguments_( arguments ), result_( result ) {
   for ( Weft::Argument const& argument : arguments ) {
      names_.push_back( interned( argument.name() ) );
      layout_.add( converterOf( argument ) );
   }
   if ( result != nullptr ) {
      layout_.add( *result );
   }
}

bool Signature::takesRawPointers() const {
   return std::ranges::any_of( arguments_, []( Weft::Argument const& argument ) {
      return converterOf( argument ).rawPointer();
   } );
}

void Signature::bind( Frame& frame, PyObject* positional, PyObject* keywords ) const {
   auto const count = static_cast<std::size_t>( PyTuple_GET_SIZE( positional ) );
   std::vector<PyObject*> given( count );
   for ( std::size_t i = 0; i < count; ++i ) {
      given[ i ] = PyTuple_GET_ITEM( positional, static_cast<Py_ssize_t>( i ) );
   }
   if ( keywords == nullptr ) {
      bind( frame, given, nullptr );
      return;
   }
   py::tuple const names = py::reinterpret_borrow<py::dict>( keywords ).attr( "keys" )();
   py::tuple const values = py::reinterpret_borrow<py::dict>( keywords ).attr( "values" )();
   for ( py::handle const value : values ) {
      given.push_back( value.ptr() );
   }
   bind( frame, std::span( given ).first( count ), names.ptr() );
}

void Signature::bind( Frame& frame, std::span<PyObject* const> positional, PyObject* names ) const {
   checkCount( positional.size() );
   if ( names != nullptr ) {
      checkNames( positional.size(), names );
   }
   for ( std::size_t i = 0; i < arguments_.size(); ++i ) {
      if ( i < positional.size() ) {
         bindOne( frame, i, positional[ i ] );
         continue;
      }
      Py_ssize_t const place = names ? placeOf( names_[ i ].ptr(), names ) : 0;
      bool const named = names && place < PyTuple_GET_SIZE( names );
      bindOne( frame,
               i,
               named ? positional.data()[ positional.size() + static_cast<std::size_t>( place ) ]
                     : nullptr );
   }
}

void Signature::checkCount( std::size_t given ) const {
   if ( given > arguments_.size() ) {
      throw Refusal( PyExc_TypeError,
                     name_ + "() takes " + std::to_string( arguments_.size() ) +
                        " arguments, not " + std::to_string( given ) );
   }
}

void Signature::checkNames( std::size_t given, PyObject* names ) const {
   for ( py::handle const name : py::reinterpret_borrow<py::tuple>( names ) ) {
      if ( !PyUnicode_Check( name.ptr() ) ) {
         throw Refusal( PyExc_TypeError, name_ + "() takes names of arguments as str only" );
      }
      auto const known = std::ranges::find_if( names_, [ & ]( py::object const& own ) {
         return PyUnicode_Compare( own.ptr(), name.ptr() ) == 0;
      } );
      if ( known == names_.end() ) {
         throw Refusal( PyExc_TypeError,
                        name_ + "() has no argument " + py::repr( name ).cast<std::string>() );
      }
      if ( static_cast<std::size_t>( known - names_.begin() ) < given ) {
         throw Refusal( PyExc_TypeError,
                        name_ + "() is given " + py::repr( name ).cast<std::string>() + " twice" );
      }
   }
}

void Signature::bindOne( Frame& frame, std::size_t index, PyObject* given ) const {
   Weft::Argument const& argument = arguments_[ index ];
   if ( given == nullptr && argument.defaultSlot() != nullptr ) {
      frame.borrow( argument.defaultSlot() );
      return;
   }
   if ( given == nullptr ) {
      throw Refusal( PyExc_TypeError,
                     name_ + "() needs the argument '" + std::string( argument.name() ) + "'" );
   }
   buildNamed( frame, given, name_ + "() argument '" + std::string( argument.name() ) + "'" );
}

std::string Signature::plainText( std::string_view self ) const {
   std::string text = "(" + std::string( self );
   for ( Weft::Argument const& argument : arguments_ ) {
      text += ( text.size() > 1 ? ", " : "" ) + std::string( argument.name() );
      if ( argument.defaultSlot() != nullptr ) {
         text += "=" + defaultText( argument );
      }
   }
   return text + ")";
}

std::string Signature::annotatedText() const {
   std::string text = "(";
   for ( Weft::Argument const& argument : arguments_ ) {
      text += ( text.size() > 1 ? ", " : "" ) + annotation( argument );
   }
   return text + ")" + ( result_ ? " -> " + result_->annotation() : "" );
}

} // namespace TesselPython
