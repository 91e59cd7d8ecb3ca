// SPDX-License-Identifier: Apache-2.0
#include "python/Classes.h"

#include "python/Objects.h"
#include "python/Operations.h"
#include "python/Texts.h"
#include "python/TypeSlots.h"
#include "python/Walk.h"

#include <memory>
#include <unordered_map>

namespace TesselPython {

namespace {

using Kind = Weft::AttributeKind;

struct Class {
   explicit Class( Weft::TypeInfo const& described )
         : name( "tessel." + std::string( shortName( described ) ) ), doc( classDoc( described ) ),
           constructor( shortName( described ), described.constructorArguments(), nullptr ) {}

   std::string name;
   std::string doc;
   std::vector<PyGetSetDef> properties; ///< the last one is empty
   Signature constructor;
   PyTypeObject* pythonType = nullptr;
};

auto& classes() {
   static auto& all = *new std::unordered_map<Weft::TypeInfo const*, std::unique_ptr<Class>>;
   return all;
}

auto& types() {
   static auto& all = *new std::unordered_map<PyTypeObject*, Weft::TypeInfo const*>;
   return all;
}

bool isOperation( Kind kind ) {
   return kind == Kind::op || kind == Kind::opConst || kind == Kind::opStatic;
}

PyTypeObject* baseOf( Weft::TypeInfo const& type ) {
   if ( type.base() != nullptr ) {
      return classOf( *type.base() );
   }
   return type.kind() == Weft::TypeKind::value ? valueBase() : entityBase();
}

std::vector<PyGetSetDef> propertiesOf( Weft::TypeInfo const& type ) {
   std::vector<PyGetSetDef> properties;
   for ( Weft::Attribute const& attribute : type.attributes() ) {
      bool const stored = attribute.printed() || attribute.kind() == Kind::collection;
      if ( stored && !attribute.hidden() ) {
         properties.push_back( propertyFor( attribute ) );
      }
   }
   properties.push_back( {} );
   return properties;
}

py::object makeClass( Weft::TypeInfo const& type, Class& made ) {
   std::vector<PyType_Slot> slots{
      { Py_tp_doc, made.doc.data() },
      { Py_tp_getset, made.properties.data() },
   };
   if ( walkOf( type ) ) {
      slots.push_back( typeSlot( Py_tp_iter, iterate ) );
   }
   if ( type.kind() == Weft::TypeKind::value && !type.hashable() ) {
      slots.push_back( typeSlot( Py_tp_hash, PyObject_HashNotImplemented ) );
      // Inherited only together with the hash.
      slots.push_back( typeSlot( Py_tp_richcompare, valueBase()->tp_richcompare ) );
   }
   slots.push_back( {} );
   PyType_Spec layout{ made.name.c_str(),
                       0,
                       0,
                       Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_IMMUTABLETYPE,
                       slots.data() };
   auto const base =
      py::reinterpret_borrow<py::object>( reinterpret_cast<PyObject*>( baseOf( type ) ) );
   return owned( PyType_FromSpecWithBases( &layout, base.ptr() ) );
}

/// The interpreter has no slots for methods that know their attribute, nor for constants. Nobody
/// else may set a class attribute, so these go where the class keeps its own.
void addOperationsAndConstants( PyTypeObject* pythonType, Weft::TypeInfo const& type ) {
   auto const members = py::reinterpret_borrow<py::dict>( pythonType->tp_dict );
   for ( Weft::Attribute const& attribute : type.attributes() ) {
      std::string const name( attribute.name() );
      if ( attribute.kind() == Kind::fixedValue ) {
         members[ name.c_str() ] = fixedValueOf( attribute );
      } else if ( isOperation( attribute.kind() ) ) {
         py::object method = methodFor( attribute );
         if ( attribute.kind() == Kind::opStatic ) {
            method = owned( PyStaticMethod_New( method.ptr() ) );
         }
         members[ name.c_str() ] = method;
      }
   }
   PyType_Modified( pythonType );
}

} // namespace

PyTypeObject* classOf( Weft::TypeInfo const& type ) {
   auto const known = classes().find( &type );
   if ( known != classes().end() ) {
      return known->second->pythonType;
   }
   auto made = std::make_unique<Class>( type );
   made->properties = propertiesOf( type );
   py::object const pythonType = makeClass( type, *made );
   made->pythonType = reinterpret_cast<PyTypeObject*>( pythonType.ptr() );
   types().emplace( made->pythonType, &type );
   classes().emplace( &type, std::move( made ) );
   addOperationsAndConstants( reinterpret_cast<PyTypeObject*>( pythonType.ptr() ), type );
   return reinterpret_cast<PyTypeObject*>( pythonType.inc_ref().ptr() );
}

Weft::TypeInfo const* typeOfClass( PyTypeObject* pythonType ) {
   for ( ; pythonType != nullptr; pythonType = pythonType->tp_base ) {
      auto const known = types().find( pythonType );
      if ( known != types().end() ) {
         return known->second;
      }
   }
   return nullptr;
}

Signature const& constructorOf( Weft::TypeInfo const& type ) {
   classOf( type );
   return classes().at( &type )->constructor;
}

} // namespace TesselPython
