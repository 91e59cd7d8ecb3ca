// SPDX-License-Identifier: Apache-2.0
#include "WeftCorvo/Entities.h"

#include "WeftCorvo/Methods.h"

#include <string>

namespace WeftCorvo {

namespace {

EntityMethods const& entityMethods( Weft::TypeInfo const& type ) {
   auto const* const methods = dynamic_cast<EntityMethods const*>( &type.methods() );
   if ( methods == nullptr ) {
      throw Weft::TypeException( std::string( type.name() ) + " is not an entity type" );
   }
   return *methods;
}

[[noreturn]] void refuseObject( Weft::TypeInfo const& type, Corvo::Node const& object ) {
   auto const typeData = object.typeData();
   std::string const name( typeData.module ? Weft::fwkType( typeData ).name() : "an object" );
   throw Weft::TypeException( name + " is not a " + std::string( type.name() ) );
}

} // namespace

bool EntityMethods::hashable() const {
   return true;
}

U32 EntityMethods::hash( void const* slot ) const {
   return foldedHash( std::hash<Corvo::Node*>()( node( slot ).get() ) );
}

void EntityMethods::print( Weft::TypeInfo const&, std::string& text, void const* slot ) const {
   appendObject( text, node( slot ).get() );
}

Weft::Status EntityMethods::perform( bool*, void const*, Weft::Op, void const* ) const {
   return Weft::Status::unsupported;
}

void refuseHash( std::type_info const& cppType ) {
   auto const* const type = Weft::typeByCppType( cppType );
   throw Weft::UnhashableError( std::string( type ? type->name() : cppType.name() ) +
                                " has no hash" );
}

void refuseDefault( std::type_info const& cppType ) {
   auto const* const type = Weft::typeByCppType( cppType );
   throw Weft::TypeException( std::string( type ? type->name() : cppType.name() ) +
                              " has no default value" );
}

Weft::TypeInfo const& typeOfObject( Corvo::Node const& object ) {
   return Weft::fwkType( object.typeData() );
}

Corvo::Ptr<Corvo::Node> nodeIn( Weft::TypeInfo const& type, void const* slot ) {
   return entityMethods( type ).node( slot );
}

void nodeInto( Weft::TypeInfo const& type, void* slot, Corvo::Ptr<Corvo::Node> const& node ) {
   if ( !entityMethods( type ).slotIs( slot, node ) ) {
      refuseObject( type, *node );
   }
}

void* objectAs( Weft::TypeInfo const& type, Corvo::Node& node ) {
   void* const object = entityMethods( type ).object( &node );
   if ( object == nullptr ) {
      refuseObject( type, node );
   }
   return object;
}

} // namespace WeftCorvo
