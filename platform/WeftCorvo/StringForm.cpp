// SPDX-License-Identifier: Apache-2.0
#include "WeftCorvo/StringForm.h"

#include "Corvo/ObjectNumbers.h"

#include <algorithm>

namespace WeftCorvo {

namespace {

constexpr std::string_view undescribedObject = "Corvo::Node";

std::string_view typeNameOf( Corvo::Node const& object ) {
   auto const typeData = object.typeData();
   return typeData.module ? Weft::fwkType( typeData ).name() : undescribedObject;
}

} // namespace

void refuseUndescribed( std::type_info const& cppType ) {
   throw Weft::TypeException( std::string( "no module describes " ) + cppType.name() );
}

void appendObject( std::string& text, Corvo::Node const* object ) {
   if ( object == nullptr ) {
      text += "null";
      return;
   }
   text.append( typeNameOf( *object ) ).append( "@" );
   text += std::to_string( Corvo::objectNumber( *object ) );
}

Corvo::Ptr<Corvo::Node> readObject( Weft::CharRange& text ) {
   auto const name = text.takeName();
   if ( name == "null" ) {
      return nullptr;
   }
   text.expect( "@" );
   auto const number = text.takeNumber( std::numeric_limits<U64>::max() );
   auto object = Corvo::objectByNumber( number );
   if ( !object || typeNameOf( *object ) != name ) {
      text.refuse( "no object " + std::string( name ) + "@" + std::to_string( number ) );
   }
   return object;
}

AttributeReader::AttributeReader( Weft::CharRange text, std::string_view typeName )
      : whole_( text ) {
   text.expect( typeName );
   text.expect( "(" );
   if ( !text.accept( ")" ) ) {
      do {
         auto const name = text.takeName();
         text.expect( ":" );
         parts_.push_back( Part{ name, text.takePart() } );
      } while ( text.accept( "," ) );
      text.expect( ")" );
   }
   text.end();
}

void AttributeReader::end() const {
   auto const untaken = std::ranges::find( parts_, false, &Part::taken );
   if ( untaken != parts_.end() ) {
      untaken->text.refuse( "unknown or repeated attribute " + std::string( untaken->name ) );
   }
}

Weft::CharRange AttributeReader::take( std::string_view name ) {
   auto const part = std::ranges::find( parts_, name, &Part::name );
   if ( part == parts_.end() ) {
      whole_.refuse( "no attribute " + std::string( name ) );
   }
   part->taken = true;
   return part->text;
}

} // namespace WeftCorvo
