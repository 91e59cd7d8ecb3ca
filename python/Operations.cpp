// SPDX-License-Identifier: Apache-2.0
#include "python/Operations.h"

#include "python/Collections.h"
#include "python/LibraryLock.h"
#include "python/Objects.h"
#include "python/Texts.h"
#include "python/TypeSlots.h"

#include <structmember.h>

#include <deque>

namespace TesselPython {

namespace {

// --------------------------------------------------------------------------------- operations

struct Operation {
   explicit Operation( Weft::Attribute const& described )
         : attribute( described ), name( described.name() ),
           signature( name, described.arguments(), &converterOf( described ) ),
           doc( operationDoc( described ) ), takesRawPointers( signature.takesRawPointers() ),
           isStatic( described.kind() == Weft::AttributeKind::opStatic ),
           work( described.lengthy() ? Work::lengthy : Work::brief ) {}

   Weft::Attribute const& attribute;
   std::string name;
   Signature signature;
   std::string doc;
   bool takesRawPointers;
   bool isStatic;
   Work work;
};

/// A method of a class: called with the object in front of the arguments, unless it is static.
struct MethodObject {
   PyObject_HEAD vectorcallfunc call;
   Operation const* operation;
};

PyTypeObject* methodType = nullptr;

Operation const& operationOf( PyObject* method ) {
   return *reinterpret_cast<MethodObject*>( method )->operation;
}

[[noreturn]] void refuseRawPointers( Operation const& operation ) {
   std::string const instead = formsForScripts( operation.attribute );
   throw Refusal( PyExc_TypeError,
                  operation.name + "() takes raw pointers" +
                     ( instead.empty() ? "" : "; call " + instead ) );
}

py::object perform( Operation const& operation,
                    void* object,
                    std::span<PyObject* const> positional,
                    PyObject* names ) {
   if ( operation.takesRawPointers ) {
      refuseRawPointers( operation );
   }
   Frame frame( operation.signature.layout() );
   operation.signature.bind( frame, positional, names );
   void* const result = frame.buildEmpty();
   Weft::Attribute const& attribute = operation.attribute;
   inLibrary( operation.work, [ & ] {
      attribute.owner().attributeOp(
         result, object, &attribute, Weft::Op::call, nullptr, frame.slots() );
   } );
   return frame.object( frame.built() - 1 );
}

PyObject* call( PyObject* method, PyObject* const* given, std::size_t flags, PyObject* names ) {
   return answering( [ & ] {
      Operation const& operation = operationOf( method );
      std::span<PyObject* const> arguments(
         given, static_cast<std::size_t>( PyVectorcall_NARGS( flags ) ) );
      if ( operation.isStatic ) {
         return perform( operation, nullptr, arguments, names );
      }
      if ( arguments.empty() ) {
         throw Refusal( PyExc_TypeError, operation.name + "() needs an object" );
      }
      void* const object = objectOf( arguments[ 0 ], operation.attribute.owner() );
      return perform( operation, object, arguments.subspan( 1 ), names );
   } );
}

PyObject* boundMethod( PyObject* method, PyObject* object, PyObject* ) {
   bool const bare = object == nullptr || operationOf( method ).isStatic;
   return bare ? Py_NewRef( method ) : PyMethod_New( method, object );
}

PyObject* methodName( PyObject* method, void* ) {
   return answering( [ & ] { return textInto( operationOf( method ).name ); } );
}

/// The doc holds the signature in front of a line of dashes, as the docs of the interpreter's own
/// functions do.
constexpr std::string_view behindSignature = "\n--\n\n";

PyObject* methodDoc( PyObject* method, void* ) {
   return answering( [ & ] {
      std::string_view const doc = operationOf( method ).doc;
      return textInto( doc.substr( doc.find( behindSignature ) + behindSignature.size() ) );
   } );
}

PyObject* methodSignature( PyObject* method, void* ) {
   return answering( [ & ] {
      std::string_view const doc = operationOf( method ).doc;
      auto const begin = doc.find( '(' );
      return textInto( doc.substr( begin, doc.find( behindSignature ) - begin ) );
   } );
}

PyObject* methodRepr( PyObject* method ) {
   return answering( [ & ] {
      Operation const& operation = operationOf( method );
      return textInto( "<operation " + std::string( operation.attribute.owner().name() ) +
                       "::" + operation.name + ">" );
   } );
}

void freeMethod( PyObject* method ) {
   PyTypeObject* const type = Py_TYPE( method );
   type->tp_free( method );
   Py_DECREF( type );
}

PyGetSetDef methodMembers[] = {
   { "__name__", methodName, nullptr, nullptr, nullptr },
   { "__qualname__", methodName, nullptr, nullptr, nullptr },
   { "__doc__", methodDoc, nullptr, nullptr, nullptr },
   { "__text_signature__", methodSignature, nullptr, nullptr, nullptr },
   {},
};

PyMemberDef methodPlaces[] = {
   { "__vectorcalloffset__", T_PYSSIZET, offsetof( MethodObject, call ), READONLY, nullptr },
   {},
};

// --------------------------------------------------------------------------------- properties

struct Property {
   explicit Property( Weft::Attribute const& described )
         : attribute( described ), name( described.name() ), doc( propertyDoc( described ) ),
           assignment( name, described.arguments(), nullptr ) {
      layout.add( converterOf( described ) );
   }

   Weft::Attribute const& attribute;
   std::string name;
   std::string doc;
   Signature assignment; ///< of a state attribute that takes more than its value
   Layout layout;        ///< the value alone
};

Property const& propertyOf( void* closure ) {
   return *static_cast<Property const*>( closure );
}

void performOn( void* object,
                Weft::Attribute const& attribute,
                Weft::Op op,
                void* result,
                void* const* arguments ) {
   auto const status = inLibrary( [ & ] {
      return attribute.owner().attributeOp( result, object, &attribute, op, nullptr, arguments );
   } );
   if ( status != Weft::Status::done ) {
      throw Refusal( PyExc_AttributeError,
                     std::string( attribute.name() ) + " cannot be " +
                        ( op == Weft::Op::del ? "deleted" : "used like this" ) );
   }
}

PyObject* getProperty( PyObject* self, void* closure ) {
   return answering( [ & ] {
      Property const& property = propertyOf( closure );
      Frame frame( property.layout );
      void* const object = objectOf( self, property.attribute.owner() );
      performOn( object, property.attribute, Weft::Op::read, frame.buildEmpty(), nullptr );
      return frame.object( 0 );
   } );
}

void assign( void* object, Property const& property, PyObject* value ) {
   bool const several = property.assignment.argumentCount() != 0;
   if ( several && !PyTuple_Check( value ) ) {
      throw Refusal( PyExc_TypeError,
                     property.name + " takes a tuple " + property.assignment.plainText( "" ) );
   }
   Frame frame( several ? property.assignment.layout() : property.layout );
   if ( several ) {
      property.assignment.bind( frame, value, nullptr );
   } else {
      buildNamed( frame, value, property.name );
   }
   performOn( object, property.attribute, Weft::Op::write, nullptr, frame.slots() );
}

int setProperty( PyObject* self, PyObject* value, void* closure ) {
   return answeringStatus( [ & ] {
      Property const& property = propertyOf( closure );
      void* const object = objectOf( self, property.attribute.owner() );
      if ( value == nullptr ) {
         performOn( object, property.attribute, Weft::Op::del, nullptr, nullptr );
         return 0;
      }
      assign( object, property, value );
      return 0;
   } );
}

PyObject* getNone( PyObject*, void* ) {
   Py_RETURN_NONE;
}

PyObject* getCollection( PyObject* self, void* closure ) {
   return answering( [ & ] {
      Property const& property = propertyOf( closure );
      objectOf( self, property.attribute.owner() );
      return newCollection( self, property.attribute );
   } );
}

getter getterOf( Weft::Attribute const& attribute ) {
   if ( attribute.kind() == Weft::AttributeKind::collection ) {
      return getCollection;
   }
   return converterOf( attribute ).rawPointer() ? getNone : getProperty;
}

setter setterOf( Weft::Attribute const& attribute ) {
   bool const assignable =
      attribute.kind() == Weft::AttributeKind::state && !converterOf( attribute ).rawPointer();
   return assignable ? setProperty : nullptr;
}

} // namespace

void prepareOperations() {
   PyType_Slot slots[] = {
      typeSlot( Py_tp_call, PyVectorcall_Call ),
      typeSlot( Py_tp_descr_get, boundMethod ),
      typeSlot( Py_tp_repr, methodRepr ),
      typeSlot( Py_tp_dealloc, freeMethod ),
      { Py_tp_getset, methodMembers },
      { Py_tp_members, methodPlaces },
      {},
   };
   PyType_Spec layout{ "tessel.Operation",
                       sizeof( MethodObject ),
                       0,
                       Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_VECTORCALL |
                          Py_TPFLAGS_METHOD_DESCRIPTOR | Py_TPFLAGS_DISALLOW_INSTANTIATION |
                          Py_TPFLAGS_IMMUTABLETYPE,
                       slots };
   methodType = typeFrom( layout );
}

py::object methodFor( Weft::Attribute const& operation ) {
   static auto& operations = *new std::deque<Operation>;
   py::object const method = owned( methodType->tp_alloc( methodType, 0 ) );
   auto* const object = reinterpret_cast<MethodObject*>( method.ptr() );
   object->call = call;
   object->operation = &operations.emplace_back( operation );
   return method;
}

PyGetSetDef propertyFor( Weft::Attribute const& attribute ) {
   static auto& properties = *new std::deque<Property>;
   Property& property = properties.emplace_back( attribute );
   return { property.name.c_str(),
            getterOf( attribute ),
            setterOf( attribute ),
            property.doc.c_str(),
            &property };
}

py::object fixedValueOf( Weft::Attribute const& attribute ) {
   return valueOf( nullptr, attribute );
}

py::object valueOf( void* object, Weft::Attribute const& attribute ) {
   Layout layout;
   layout.add( converterOf( attribute ) );
   Frame frame( layout );
   performOn( object, attribute, Weft::Op::read, frame.buildEmpty(), nullptr );
   return frame.object( 0 );
}

} // namespace TesselPython
