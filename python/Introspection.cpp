// SPDX-License-Identifier: Apache-2.0
#include "python/Introspection.h"

#include "python/Classes.h"
#include "python/Objects.h"
#include "python/Texts.h"
#include "python/Walk.h"

namespace TesselPython {

namespace {

using namespace py::literals;

py::tuple argumentsData( std::span<Weft::Argument const> arguments ) {
   py::list list;
   for ( Weft::Argument const& argument : arguments ) {
      list.append(
         py::dict( "name"_a = argument.name(),
                   "type"_a = argument.typeName(),
                   "annotation"_a = givenAnnotation( argument ),
                   "optional"_a = argument.defaultSlot() != nullptr,
                   "default"_a = argument.defaultSlot() ? defaultOf( argument ) : py::none() ) );
   }
   return list;
}

/// A stored entity may be missing; an operation answers one.
std::string readAnnotation( Weft::Attribute const& attribute ) {
   Converter const& converter = converterOf( attribute );
   bool const maybeNone = attribute.printed() && converter.takesNone();
   return converter.annotation() + ( maybeNone ? " | None" : "" );
}

py::dict attributeData( Weft::Attribute const& attribute ) {
   bool const isCollection = attribute.kind() == Weft::AttributeKind::collection;
   py::object const keyAnnotation =
      isCollection
         ? py::cast( converterOf( attribute.keyTypeName(), attribute.keyType() ).annotation() )
         : py::none();
   return py::dict( "name"_a = attribute.name(),
                    "id"_a = attribute.id(),
                    "kind"_a = kindName( attribute.kind() ),
                    "type"_a = attribute.typeName(),
                    "annotation"_a = readAnnotation( attribute ),
                    "keyType"_a = attribute.keyTypeName(),
                    "keyAnnotation"_a = keyAnnotation,
                    "arguments"_a = argumentsData( attribute.arguments() ),
                    "hidden"_a = attribute.hidden(),
                    "doc"_a = attribute.doc() );
}

py::dict typeData( Weft::TypeInfo const& type ) {
   py::list attributes;
   for ( Weft::Attribute const& attribute : type.attributes() ) {
      attributes.append( attributeData( attribute ) );
   }
   py::list walks;
   for ( Weft::Attribute const* const part : walkOf( type ).item ) {
      walks.append( converterOf( *part ).annotation() );
   }
   py::object const base = type.base() ? py::cast( type.base()->name() ) : py::none();
   return py::dict( "name"_a = type.name(),
                    "module"_a = type.module().name(),
                    "index"_a = type.index(),
                    "kind"_a = type.kind() == Weft::TypeKind::value ? "value" : "entity",
                    "base"_a = base,
                    "constructible"_a = type.constructible(),
                    "hashable"_a = type.hashable(),
                    "arguments"_a = argumentsData( type.constructorArguments() ),
                    "attributes"_a = py::tuple( attributes ),
                    "walks"_a = py::tuple( walks ),
                    "doc"_a = type.doc() );
}

py::list modules() {
   py::list all;
   for ( Weft::Module const* const module : Weft::modules() ) {
      py::list types;
      for ( Weft::TypeInfo const& type : module->types() ) {
         types.append( type.name() );
      }
      all.append( py::make_tuple( module->name(), py::tuple( types ) ) );
   }
   return all;
}

Weft::TypeInfo const& typeNamed( std::string const& name ) {
   auto const* const type = Weft::typeByName( name );
   return type ? *type : throw py::key_error( name );
}

py::object classNamed( std::string const& name ) {
   auto* const found = reinterpret_cast<PyObject*>( classOf( typeNamed( name ) ) );
   return py::reinterpret_borrow<py::object>( found );
}

/// The registered type of a class or of an object.
Weft::TypeInfo const& typeBehind( py::handle classOrObject ) {
   PyObject* const object = classOrObject.ptr();
   auto const* const type = PyType_Check( object )
                               ? typeOfClass( reinterpret_cast<PyTypeObject*>( object ) )
                               : registeredType( object );
   return type ? *type : throw py::type_error( "not of a registered type" );
}

U64 liveObjects( py::handle ofClass ) {
   auto const* const tracker = typeBehind( ofClass ).allocationTracker();
   return tracker ? tracker->live() : throw py::type_error( "the type's objects are not counted" );
}

U32 useCount( py::handle object ) {
   auto const* const entity = asEntity( object.ptr() );
   return entity ? entity->node->useCount() : throw py::type_error( "not an entity" );
}

} // namespace

void addIntrospection( py::module_& module ) {
   module.def( "modules", modules );
   module.def( "typeData",
               []( std::string const& name ) { return typeData( typeNamed( name ) ); } );
   module.def( "classNamed", classNamed );
   module.def( "typeName", []( py::handle object ) { return typeBehind( object ).name(); } );
   module.def( "liveObjects",
               liveObjects,
               "How many objects of the class are alive in the process, whoever holds them.",
               "ofClass"_a );
   module.def( "useCount",
               useCount,
               "How many references to the object there are, one for each handle of it.",
               "object"_a );
}

} // namespace TesselPython
