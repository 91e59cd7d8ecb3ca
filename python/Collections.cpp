// SPDX-License-Identifier: Apache-2.0
#include "python/Collections.h"

#include "python/Frame.h"
#include "python/LibraryLock.h"
#include "python/Objects.h"
#include "python/TypeSlots.h"

#include <map>
#include <memory>

namespace TesselPython {

namespace {

using Weft::Op;

/// What all collections of one attribute share.
struct Members {
   explicit Members( Weft::Attribute const& described )
         : attribute( described ),
           keys( converterOf( described.keyTypeName(), described.keyType() ) ),
           values( converterOf( described ) ) {
      key.add( keys );
      value.add( values );
      member.add( keys );
      member.add( values );
   }

   Weft::Attribute const& attribute;
   Converter const& keys;
   Converter const& values;
   Layout key;
   Layout value;
   Layout member; ///< key, value
};

Members const& membersOf( Weft::Attribute const& attribute ) {
   static auto& known = *new std::map<Weft::Attribute const*, Members>;
   return known.try_emplace( &attribute, attribute ).first->second;
}

struct CollectionObject {
   PyObject_HEAD PyObject* owner;
   Members const* members;
};

struct KeyIteratorObject {
   PyObject_HEAD Members const* members;
   std::unique_ptr<Weft::CollectionIterator> at; ///< keeps the owner alive
};

PyTypeObject* collectionType = nullptr;
PyTypeObject* keyIteratorType = nullptr;

CollectionObject const& collection( PyObject* self ) {
   return *reinterpret_cast<CollectionObject const*>( self );
}

/// One operation, with the library's lock held.
void perform(
   PyObject* self, void* object, Op op, void* result, void const* key, void* const* value ) {
   Weft::Attribute const& attribute = collection( self ).members->attribute;
   attribute.owner().attributeOp( result, object, &attribute, op, key, value );
}

void* ownerObject( PyObject* self ) {
   return objectOf( collection( self ).owner, collection( self ).members->attribute.owner() );
}

U32 numberOf( PyObject* self, Op op ) {
   U32 answer = 0;
   void* const object = ownerObject( self );
   inLibrary( [ & ] { perform( self, object, op, &answer, nullptr, nullptr ); } );
   return answer;
}

/// With the library's lock held.
bool holds( PyObject* self, void* object, void const* key ) {
   bool answer = false;
   perform( self, object, Op::contains, &answer, key, nullptr );
   return answer;
}

[[noreturn]] void refuseKey( PyObject* key ) {
   PyErr_SetObject( PyExc_KeyError, key );
   throw py::error_already_set();
}

Py_ssize_t memberCount( PyObject* self ) {
   return answeringStatus(
      [ & ] { return static_cast<Py_ssize_t>( numberOf( self, Op::count ) ); } );
}

int containsKey( PyObject* self, PyObject* key ) {
   return answeringStatus( [ & ] {
      Frame frame( collection( self ).members->key );
      void* const wanted = frame.build( key );
      void* const object = ownerObject( self );
      return inLibrary( [ & ] { return holds( self, object, wanted ); } ) ? 1 : 0;
   } );
}

PyObject* memberAt( PyObject* self, PyObject* key ) {
   return answering( [ & ] {
      Frame frame( collection( self ).members->member );
      void* const wanted = frame.build( key );
      void* const value = frame.buildEmpty();
      void* const object = ownerObject( self );
      bool const found = inLibrary( [ & ] {
         bool const held = holds( self, object, wanted );
         if ( held ) {
            perform( self, object, Op::read, value, wanted, nullptr );
         }
         return held;
      } );
      if ( !found ) {
         refuseKey( key );
      }
      return frame.object( 1 );
   } );
}

/// Whether there was such a member.
bool removeMember( PyObject* self, PyObject* key ) {
   Frame frame( collection( self ).members->key );
   void* const wanted = frame.build( key );
   void* const object = ownerObject( self );
   return inLibrary( [ & ] {
      bool const held = holds( self, object, wanted );
      if ( held ) {
         perform( self, object, Op::del, nullptr, wanted, nullptr );
      }
      return held;
   } );
}

void setMember( PyObject* self, PyObject* key, PyObject* value ) {
   Frame frame( collection( self ).members->member );
   void* const wanted = frame.build( key );
   void* const arguments[] = { frame.build( value ) };
   void* const object = ownerObject( self );
   inLibrary( [ & ] { perform( self, object, Op::write, nullptr, wanted, arguments ); } );
}

/// `del m[key]` of an absent key is a KeyError; `m[key] = None` removes what is there, if anything.
int memberIs( PyObject* self, PyObject* key, PyObject* value ) {
   return answeringStatus( [ & ] {
      if ( value != nullptr && value != Py_None ) {
         setMember( self, key, value );
      } else if ( !removeMember( self, key ) && value == nullptr ) {
         refuseKey( key );
      }
      return 0;
   } );
}

PyObject* collectionCapacity( PyObject* self, void* ) {
   return answering( [ & ] { return py::int_( numberOf( self, Op::capacity ) ); } );
}

PyObject* collectionRepr( PyObject* self ) {
   return answering( [ & ] {
      std::string const name( collection( self ).members->attribute.name() );
      return textInto( "<" + name + " of " + nameOf( collection( self ).owner ) + ": " +
                       std::to_string( numberOf( self, Op::count ) ) + " members>" );
   } );
}

PyObject* keyIterator( PyObject* self ) {
   return answering( [ & ] {
      Members const& members = *collection( self ).members;
      void* const object = ownerObject( self );
      py::object made = owned( keyIteratorType->tp_alloc( keyIteratorType, 0 ) );
      auto* const iterator = reinterpret_cast<KeyIteratorObject*>( made.ptr() );
      std::construct_at( &iterator->at );
      iterator->members = &members;
      inLibrary( [ & ] {
         iterator->at = members.attribute.owner().collectionIterator( object, &members.attribute );
      } );
      return made;
   } );
}

PyObject* nextKey( PyObject* self ) {
   auto* const iterator = reinterpret_cast<KeyIteratorObject*>( self );
   return answering( [ & ]() -> py::object {
      Frame frame( iterator->members->key );
      void* const key = frame.buildEmpty();
      bool const onMember = inLibrary( [ & ] {
         bool const on = iterator->at->onMember();
         if ( on ) {
            iterator->at->key( key );
            iterator->at->advance();
         }
         return on;
      } );
      return onMember ? frame.object( 0 ) : py::object();
   } );
}

void freeKeyIterator( PyObject* self ) {
   auto* const iterator = reinterpret_cast<KeyIteratorObject*>( self );
   PyTypeObject* const type = Py_TYPE( self );
   inLibrary( [ & ] { iterator->at.reset(); } );
   std::destroy_at( &iterator->at );
   type->tp_free( self );
   Py_DECREF( type );
}

PyObject* refuseToMakeCollection( PyTypeObject*, PyObject*, PyObject* ) {
   PyErr_SetString( PyExc_TypeError, "a collection is an attribute of its owner" );
   return nullptr;
}

// The owner may be of a class of a script's own, and refer to the collection in turn.
int traverseCollection( PyObject* self, visitproc visit, void* arg ) {
   Py_VISIT( Py_TYPE( self ) );
   Py_VISIT( collection( self ).owner );
   return 0;
}

int clearCollection( PyObject* ) {
   return 0; // a collection without its owner would be of no use to those who still hold it
}

void freeCollection( PyObject* self ) {
   PyTypeObject* const type = Py_TYPE( self );
   PyObject_GC_UnTrack( self );
   Py_XDECREF( collection( self ).owner );
   type->tp_free( self );
   Py_DECREF( type );
}

PyGetSetDef collectionMembers[] = {
   { "capacity",
     collectionCapacity,
     nullptr,
     "Members held before the collection takes more memory.",
     nullptr },
   {},
};

py::object accessType() {
   PyType_Slot slots[] = {
      typeSlot( Py_tp_new, refuseToMakeCollection ),
      typeSlot( Py_tp_dealloc, freeCollection ),
      typeSlot( Py_tp_traverse, traverseCollection ),
      typeSlot( Py_tp_clear, clearCollection ),
      typeSlot( Py_tp_repr, collectionRepr ),
      typeSlot( Py_tp_iter, keyIterator ),
      typeSlot( Py_mp_length, memberCount ),
      typeSlot( Py_mp_subscript, memberAt ),
      typeSlot( Py_mp_ass_subscript, memberIs ),
      typeSlot( Py_sq_contains, containsKey ),
      { Py_tp_getset, collectionMembers },
      {},
   };
   PyType_Spec layout{ "tessel.CollectionAccess",
                       sizeof( CollectionObject ),
                       0,
                       Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC,
                       slots };
   return owned( PyType_FromSpec( &layout ) );
}

} // namespace

void addCollectionType( py::module_& module ) {
   py::object const mapping = py::module_::import( "collections.abc" ).attr( "MutableMapping" );
   py::dict members;
   members[ "__slots__" ] = py::tuple();
   members[ "__module__" ] = "tessel";
   members[ "__doc__" ] =
      "A collection of an object, as a mapping. Assigning None removes a member.";
   py::object const type =
      py::type::of( mapping )( "Collection", py::make_tuple( accessType(), mapping ), members );
   module.attr( "Collection" ) = type;
   collectionType = reinterpret_cast<PyTypeObject*>( type.inc_ref().ptr() );

   PyType_Slot slots[] = {
      typeSlot( Py_tp_iter, PyObject_SelfIter ),
      typeSlot( Py_tp_iternext, nextKey ),
      typeSlot( Py_tp_dealloc, freeKeyIterator ),
      {},
   };
   PyType_Spec layout{ "tessel.KeyIterator",
                       sizeof( KeyIteratorObject ),
                       0,
                       Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION,
                       slots };
   keyIteratorType = typeFrom( layout );
}

py::object newCollection( PyObject* owner, Weft::Attribute const& attribute ) {
   py::object made = owned( collectionType->tp_alloc( collectionType, 0 ) );
   auto* const collection = reinterpret_cast<CollectionObject*>( made.ptr() );
   collection->owner = Py_NewRef( owner );
   collection->members = &membersOf( attribute );
   return made;
}

} // namespace TesselPython
