// SPDX-License-Identifier: Apache-2.0
#include "python/Objects.h"

#include "Corvo/ObjectNumbers.h"
#include "WeftCorvo/Entities.h"
#include "WeftCorvo/StringForm.h"
#include "python/Classes.h"
#include "python/LibraryLock.h"
#include "python/Operations.h"
#include "python/Signature.h"
#include "python/Texts.h"
#include "python/TypeSlots.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <new>
#include <optional>

namespace TesselPython {

namespace {

PyTypeObject* theValueBase = nullptr;
PyTypeObject* theEntityBase = nullptr;

/// Of making an object, and of ending it.
Work workOf( Weft::TypeInfo const& type ) {
   return type.lengthy() ? Work::lengthy : Work::brief;
}

/// "size=64", as the registry reads it: the Python class may be another by now.
std::string shown( PyObject* self, Weft::Attribute const& attribute ) {
   py::object const value = valueOf( objectOf( self, attribute.owner() ), attribute );
   return std::string( attribute.name() ) + "=" + textFrom( py::repr( value ).ptr() );
}

// ------------------------------------------------------------------------------------- values

/// Memory for a value that is being built, given back unless the value was.
class ValueMemory {
 public:
   explicit ValueMemory( Weft::TypeInfo const& type )
         : type_( type ), memory_( ::operator new( type.valueSize(), alignment() ) ) {}
   ValueMemory( ValueMemory const& ) = delete;
   ValueMemory& operator=( ValueMemory const& ) = delete;
   ~ValueMemory() {
      if ( memory_ != nullptr ) {
         ::operator delete( memory_, alignment() );
      }
   }
   void* get() const { return memory_; }
   void* release() { return std::exchange( memory_, nullptr ); }

   static void destroyed( Weft::TypeInfo const& type, void* value ) {
      inLibrary( [ & ] { type.destroy( value ); } );
      ::operator delete( value, std::align_val_t( type.valueAlignment() ) );
   }

 private:
   std::align_val_t alignment() const { return std::align_val_t( type_.valueAlignment() ); }

   Weft::TypeInfo const& type_;
   void* memory_;
};

/// An object of `pythonType` with the value that `build` builds in the memory it is given.
template<class Build>
py::object valueObject( PyTypeObject* pythonType, Weft::TypeInfo const& type, Build const& build ) {
   ValueMemory memory( type );
   py::object object = owned( pythonType->tp_alloc( pythonType, 0 ) );
   build( memory.get() );
   auto* const value = reinterpret_cast<ValueObject*>( object.ptr() );
   value->type = &type;
   value->memory = memory.release();
   return object;
}

py::object copied( PyTypeObject* pythonType, Weft::TypeInfo const& type, void const* source ) {
   return valueObject( pythonType, type, [ & ]( void* memory ) {
      inLibrary( [ & ] { type.copy( memory, source ); } );
   } );
}

Weft::TypeInfo const& constructedType( PyTypeObject* pythonType ) {
   auto const* const type = typeOfClass( pythonType );
   if ( type == nullptr ) {
      throw Refusal( PyExc_TypeError,
                     std::string( pythonType->tp_name ) + " cannot be constructed" );
   }
   return *type;
}

PyObject* makeValue( PyTypeObject* pythonType, PyObject* positional, PyObject* keywords ) {
   return answering( [ & ] {
      Weft::TypeInfo const& type = constructedType( pythonType );
      if ( PyTuple_GET_SIZE( positional ) == 0 &&
           ( !keywords || PyDict_GET_SIZE( keywords ) == 0 ) ) {
         return copied( pythonType, type, nullptr );
      }
      Signature const& signature = constructorOf( type );
      Frame frame( signature.layout() );
      signature.bind( frame, positional, keywords );
      return valueObject( pythonType, type, [ & ]( void* memory ) {
         inLibrary( [ & ] { type.construct( memory, frame.slots() ); } );
      } );
   } );
}

void freeValue( PyObject* self ) {
   auto* const value = reinterpret_cast<ValueObject*>( self );
   PyTypeObject* const pythonType = Py_TYPE( self );
   if ( value->memory != nullptr ) {
      ValueMemory::destroyed( *value->type, value->memory );
   }
   pythonType->tp_free( self );
   Py_DECREF( pythonType );
}

ValueObject const& heldBy( PyObject* self ) {
   return *reinterpret_cast<ValueObject const*>( self );
}

std::string formOf( PyObject* self ) {
   ValueObject const& own = heldBy( self );
   return inLibrary( [ & ] { return own.type->stringForm( own.memory ); } );
}

PyObject* valueText( PyObject* self ) {
   return answering( [ & ] { return textInto( formOf( self ) ); } );
}

/// EntryKey(bytes=b'\x01') where that is all there is to say, else the string form.
PyObject* valueRepr( PyObject* self ) {
   return answering( [ & ]() -> py::object {
      Weft::TypeInfo const& type = *heldBy( self ).type;
      std::string text( shortName( type ) );
      if ( !constructorSaysAll( type ) ) {
         return textInto( "<tessel." + text + " " + formOf( self ) + ">" );
      }
      char const* separator = "(";
      for ( Weft::Argument const& argument : type.constructorArguments() ) {
         text += separator + shown( self, *type.attribute( argument.name() ) );
         separator = ", ";
      }
      return textInto( text + ")" );
   } );
}

Py_hash_t valueHash( PyObject* self ) {
   return answeringStatus( [ & ] {
      ValueObject const& own = heldBy( self );
      return static_cast<Py_hash_t>( inLibrary( [ & ] { return own.type->hash( own.memory ); } ) );
   } );
}

int valueTruth( PyObject* self ) {
   return answeringStatus( [ & ] {
      ValueObject const& own = heldBy( self );
      bool truth = true; // of a type that has no other opinion
      inLibrary( [ & ] {
         own.type->attributeOp( &truth, own.memory, nullptr, Weft::Op::truth, nullptr, nullptr );
      } );
      return truth ? 1 : 0;
   } );
}

/// `op` on two values as values of `type`; no answer when the type does not have the operation.
std::optional<bool>
compared( Weft::TypeInfo const& type, ValueObject const& a, Weft::Op op, ValueObject const& b ) {
   return inLibrary( [ & ]() -> std::optional<bool> {
      void* const arguments[] = { b.type->viewAs( type, b.memory ) };
      void* const object = a.type->viewAs( type, a.memory );
      bool result = false;
      auto const status = type.attributeOp( &result, object, nullptr, op, nullptr, arguments );
      return status == Weft::Status::done ? std::optional( result ) : std::nullopt;
   } );
}

std::optional<bool>
orEqual( Weft::TypeInfo const& type, ValueObject const& a, ValueObject const& b ) {
   auto const less = compared( type, a, Weft::Op::less, b );
   return less == false ? compared( type, a, Weft::Op::equal, b ) : less;
}

std::optional<bool>
answerTo( int question, Weft::TypeInfo const& type, ValueObject const& a, ValueObject const& b ) {
   switch ( question ) {
   case Py_LT:
      return compared( type, a, Weft::Op::less, b );
   case Py_GT:
      return compared( type, b, Weft::Op::less, a );
   case Py_LE:
      return orEqual( type, a, b );
   case Py_GE:
      return orEqual( type, b, a );
   default:
      auto const equal = compared( type, a, Weft::Op::equal, b );
      return equal ? std::optional( *equal == ( question == Py_EQ ) ) : equal;
   }
}

PyObject* compareValues( PyObject* self, PyObject* other, int question ) {
   return answering( [ & ]() -> py::object {
      ValueObject const* const a = asValue( self );
      ValueObject const* const b = asValue( other );
      std::optional<bool> answer;
      if ( b != nullptr && a->type->isA( *b->type ) ) {
         answer = answerTo( question, *b->type, *a, *b );
      } else if ( b != nullptr && b->type->isA( *a->type ) ) {
         answer = answerTo( question, *a->type, *a, *b );
      }
      return answer ? py::object( py::bool_( *answer ) )
                    : py::reinterpret_borrow<py::object>( Py_NotImplemented );
   } );
}

PyObject* copyValue( PyObject* self, PyObject* ) {
   return answering(
      [ & ] { return copied( Py_TYPE( self ), *heldBy( self ).type, heldBy( self ).memory ); } );
}

PyObject* valueFromString( PyObject* pythonType, PyObject* text ) {
   return answering( [ & ] {
      auto* const wanted = reinterpret_cast<PyTypeObject*>( pythonType );
      Weft::TypeInfo const& type = constructedType( wanted );
      std::string const form = textFrom( text );
      return valueObject( wanted, type, [ & ]( void* memory ) {
         inLibrary( [ & ] { type.fromStringForm( memory, form ); } );
      } );
   } );
}

/// Whether its text names entities, by numbers of this process.
bool namesEntities( Weft::TypeInfo const& type ) {
   return std::ranges::any_of( reachableAttributes( type ), []( Weft::Attribute const* attribute ) {
      auto const* const inner = attribute->printed() ? attribute->type() : nullptr;
      return inner && ( inner->kind() == Weft::TypeKind::entity || namesEntities( *inner ) );
   } );
}

/// For pickle: the text, and what attributes a script's own class has added.
PyObject* reduceValue( PyObject* self, PyObject* ) {
   return answering( [ & ] {
      if ( namesEntities( *heldBy( self ).type ) ) {
         throw Refusal( PyExc_TypeError,
                        "cannot pickle " + nameOf( self ) +
                           ": it refers to objects of this process" );
      }
      py::object const pythonType = py::type::of( self );
      return py::make_tuple( pythonType.attr( "fromString" ),
                             py::make_tuple( textInto( formOf( self ) ) ),
                             py::getattr( self, "__dict__", py::none() ) );
   } );
}

PyMethodDef valueMethods[] = {
   { "fromString",
     valueFromString,
     METH_O | METH_CLASS,
     "fromString($type, text)\n--\n\nThe value whose str() the text is. ValueError says where a "
     "text "
     "is not one." },
   { "__copy__", copyValue, METH_NOARGS, "__copy__($self)\n--\n\nA value of its own." },
   { "__deepcopy__",
     copyValue,
     METH_O,
     "__deepcopy__($self, memo)\n--\n\nAs copy.copy: entities that a value refers to are never "
     "copied." },
   { "__reduce__", reduceValue, METH_NOARGS, "__reduce__($self)\n--\n\nFor pickle: its text." },
   {},
};

// ----------------------------------------------------------------------------------- entities

py::object entityObject( PyTypeObject* pythonType,
                         Weft::TypeInfo const& type,
                         Corvo::Ptr<Corvo::Node> const& node ) {
   py::object object = owned( pythonType->tp_alloc( pythonType, 0 ) );
   auto* const entity = reinterpret_cast<EntityObject*>( object.ptr() );
   entity->type = &type;
   std::construct_at( &entity->node, node );
   entity->object = WeftCorvo::objectAs( type, *node );
   return object;
}

/// A slot that holds a new object; the object goes with it unless somebody else takes it.
class NewObject {
 public:
   NewObject( Weft::TypeInfo const& type, void* const* arguments ) : type_( type ) {
      inLibrary( workOf( type ), [ & ] { type_.construct( slot_, arguments ); } );
   }
   NewObject( NewObject const& ) = delete;
   NewObject& operator=( NewObject const& ) = delete;
   ~NewObject() {
      inLibrary( workOf( type_ ), [ & ] { type_.destroy( slot_ ); } );
   }
   Corvo::Ptr<Corvo::Node> node() const { return WeftCorvo::nodeIn( type_, slot_ ); }

 private:
   using Slot = Corvo::Ptr<Corvo::Node>; // of the size and alignment of every entity's slot

   Weft::TypeInfo const& type_;
   alignas( Slot ) std::byte slot_[ sizeof( Slot ) ];
};

PyObject* makeEntity( PyTypeObject* pythonType, PyObject* positional, PyObject* keywords ) {
   return answering( [ & ] {
      Weft::TypeInfo const& type = constructedType( pythonType );
      if ( !type.constructible() ) {
         throw Refusal( PyExc_TypeError,
                        std::string( type.name() ) + " cannot be constructed by scripts" );
      }
      Signature const& signature = constructorOf( type );
      Frame frame( signature.layout() );
      signature.bind( frame, positional, keywords );
      NewObject const made( type, frame.slots() );
      return entityObject( pythonType, type, made.node() );
   } );
}

void freeEntity( PyObject* self ) {
   auto* const entity = reinterpret_cast<EntityObject*>( self );
   PyTypeObject* const pythonType = Py_TYPE( self );
   if ( entity->node ) {
      inLibrary( workOf( *entity->type ), [ & ] { entity->node = nullptr; } );
   }
   std::destroy_at( &entity->node );
   pythonType->tp_free( self );
   Py_DECREF( pythonType );
}

Corvo::Node& node( PyObject* self ) {
   return *reinterpret_cast<EntityObject*>( self )->node;
}

Py_hash_t entityHash( PyObject* self ) {
   auto const hash = static_cast<Py_hash_t>( std::hash<Corvo::Node*>()( &node( self ) ) >> 4 );
   return hash == -1 ? -2 : hash;
}

PyObject* compareEntities( PyObject* self, PyObject* other, int question ) {
   EntityObject const* const second = asEntity( other );
   if ( second == nullptr || ( question != Py_EQ && question != Py_NE ) ) {
      Py_RETURN_NOTIMPLEMENTED;
   }
   bool const same = &node( self ) == second->node.get();
   return PyBool_FromLong( same == ( question == Py_EQ ) );
}

PyObject* entityText( PyObject* self ) {
   return answering( [ & ] {
      std::string text;
      inLibrary( [ & ] { WeftCorvo::appendObject( text, &node( self ) ); } );
      return textInto( text );
   } );
}

/// <tessel.EmTableHelper@2 numEntries=64 keyLengthBytes=6 resultLengthBytes=2>
PyObject* entityRepr( PyObject* self ) {
   return answering( [ & ] {
      std::string text = nameOf( self );
      text.pop_back();
      for ( Weft::Attribute const* const attribute :
            tellingAttributes( *registeredType( self ) ) ) {
         text += " " + shown( self, *attribute );
      }
      return textInto( text + ">" );
   } );
}

// ---------------------------------------------------------------------------------- the bases

char valueDoc[] = "A registered value: copied, compared and printed; it has no identity.";
char entityDoc[] = "A registered object, held by reference: two handles of one object are equal.";

PyTypeObject* addBase( py::module_& module, PyType_Spec& layout, char const* name ) {
   PyTypeObject* const type = typeFrom( layout );
   module.attr( name ) = py::handle( reinterpret_cast<PyObject*>( type ) );
   return type;
}

} // namespace

void addObjectTypes( py::module_& module ) {
   unsigned const flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_IMMUTABLETYPE;
   PyType_Slot valueSlots[] = {
      { Py_tp_doc, valueDoc },
      typeSlot( Py_tp_new, makeValue ),
      typeSlot( Py_tp_dealloc, freeValue ),
      typeSlot( Py_tp_str, valueText ),
      typeSlot( Py_tp_repr, valueRepr ),
      typeSlot( Py_tp_hash, valueHash ),
      typeSlot( Py_nb_bool, valueTruth ),
      typeSlot( Py_tp_richcompare, compareValues ),
      { Py_tp_methods, valueMethods },
      {},
   };
   PyType_Spec valueSpec{ "tessel.Value", sizeof( ValueObject ), 0, flags, valueSlots };
   theValueBase = addBase( module, valueSpec, "Value" );

   PyType_Slot entitySlots[] = {
      { Py_tp_doc, entityDoc },
      typeSlot( Py_tp_new, makeEntity ),
      typeSlot( Py_tp_dealloc, freeEntity ),
      typeSlot( Py_tp_str, entityText ),
      typeSlot( Py_tp_repr, entityRepr ),
      typeSlot( Py_tp_hash, entityHash ),
      typeSlot( Py_tp_richcompare, compareEntities ),
      {},
   };
   PyType_Spec entitySpec{ "tessel.Entity", sizeof( EntityObject ), 0, flags, entitySlots };
   theEntityBase = addBase( module, entitySpec, "Entity" );
}

PyTypeObject* valueBase() {
   return theValueBase;
}

PyTypeObject* entityBase() {
   return theEntityBase;
}

ValueObject* asValue( PyObject* object ) {
   return PyObject_TypeCheck( object, theValueBase ) ? reinterpret_cast<ValueObject*>( object )
                                                     : nullptr;
}

EntityObject* asEntity( PyObject* object ) {
   return PyObject_TypeCheck( object, theEntityBase ) ? reinterpret_cast<EntityObject*>( object )
                                                      : nullptr;
}

py::object newValue( Weft::TypeInfo const& type, void const* source ) {
   return copied( classOf( type ), type, source );
}

py::object newEntity( Corvo::Ptr<Corvo::Node> const& node ) {
   if ( !node ) {
      return py::none();
   }
   Weft::TypeInfo const& type = WeftCorvo::typeOfObject( *node );
   return entityObject( classOf( type ), type, node );
}

Weft::TypeInfo const* registeredType( PyObject* object ) {
   if ( ValueObject const* const value = asValue( object ) ) {
      return value->type;
   }
   EntityObject const* const entity = asEntity( object );
   return entity ? entity->type : nullptr;
}

void* objectOf( PyObject* self, Weft::TypeInfo const& owner ) {
   auto const* const type = registeredType( self );
   if ( type == nullptr || !type->isA( owner ) ) {
      throw Refusal( PyExc_TypeError,
                     std::string( Py_TYPE( self )->tp_name ) + " is not a " +
                        std::string( owner.name() ) );
   }
   ValueObject const* const value = asValue( self );
   return type->viewAs( owner, value ? value->memory : asEntity( self )->object );
}

std::string nameOf( PyObject* object ) {
   std::string name = std::string( "<" ) + Py_TYPE( object )->tp_name;
   if ( EntityObject const* const entity = asEntity( object ) ) {
      name += "@" + std::to_string( inLibrary( [ & ] { return objectNumber( *entity->node ); } ) );
   }
   return name + ">";
}

} // namespace TesselPython
