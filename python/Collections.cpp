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

/// What of each member an iterator gives.
enum class Part { key, value, item };

struct MemberIteratorObject {
   PyObject_HEAD Members const* members;
   Part part;
   std::unique_ptr<Weft::CollectionIterator> at; ///< keeps the owner alive
};

PyTypeObject* memberIteratorType = nullptr;

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

/// As with any mapping, what cannot be a key is not in it.
int containsKey( PyObject* self, PyObject* key ) {
   return answeringStatus( [ & ] {
      void* const object = ownerObject( self );
      Frame frame( collection( self ).members->key );
      try {
         frame.build( key );
      } catch ( Refusal const& ) {
         return 0;
      }
      return inLibrary( [ & ] { return holds( self, object, frame.slots()[ 0 ] ); } ) ? 1 : 0;
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

PyObject* iterator( PyObject* self, Part part ) {
   return answering( [ & ] {
      Members const& members = *collection( self ).members;
      void* const object = ownerObject( self );
      py::object made = owned( memberIteratorType->tp_alloc( memberIteratorType, 0 ) );
      auto* const iterator = reinterpret_cast<MemberIteratorObject*>( made.ptr() );
      std::construct_at( &iterator->at );
      iterator->members = &members;
      iterator->part = part;
      inLibrary( [ & ] {
         iterator->at = members.attribute.owner().collectionIterator( object, &members.attribute );
      } );
      return made;
   } );
}

PyObject* keyIterator( PyObject* self ) {
   return iterator( self, Part::key );
}

PyObject* valueIterator( PyObject* self, PyObject* ) {
   return iterator( self, Part::value );
}

PyObject* itemIterator( PyObject* self, PyObject* ) {
   return iterator( self, Part::item );
}

/// Reads the member on which the iterator stands and goes on, in one stay in the library: another
/// thread may remove the member before and after, not in between. False at the end.
bool takeMember( MemberIteratorObject const& iterator, Frame const& member ) {
   return inLibrary( [ & ] {
      if ( !iterator.at->onMember() ) {
         return false;
      }
      iterator.at->key( member.slots()[ 0 ] );
      if ( iterator.part != Part::key ) {
         iterator.at->value( member.slots()[ 1 ] );
      }
      iterator.at->advance();
      return true;
   } );
}

py::object partOf( Frame const& member, Part part ) {
   switch ( part ) {
   case Part::key:
      return member.object( 0 );
   case Part::value:
      return member.object( 1 );
   default:
      return py::make_tuple( member.object( 0 ), member.object( 1 ) );
   }
}

PyObject* nextMember( PyObject* self ) {
   auto const& iterator = *reinterpret_cast<MemberIteratorObject const*>( self );
   return answering( [ & ]() -> py::object {
      Frame member( iterator.members->member );
      member.buildEmpty();
      member.buildEmpty();
      bool const onMember = takeMember( iterator, member );
      return onMember ? partOf( member, iterator.part ) : py::object(); // no exception: the end
   } );
}

void freeMemberIterator( PyObject* self ) {
   auto* const iterator = reinterpret_cast<MemberIteratorObject*>( self );
   PyTypeObject* const type = Py_TYPE( self );
   // Its owner, a table perhaps, may end with it.
   bool const lengthy = iterator->members->attribute.owner().lengthy();
   inLibrary( lengthy ? Work::lengthy : Work::brief, [ & ] { iterator->at.reset(); } );
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

PyGetSetDef accessMembers[] = {
   { "capacity",
     collectionCapacity,
     nullptr,
     "Members held before the collection takes more memory.",
     nullptr },
   {},
};

PyMethodDef accessMethods[] = {
   { "iterateValues", valueIterator, METH_NOARGS, "iterateValues($self)\n--\n\nThe values." },
   { "iterateItems",
     itemIterator,
     METH_NOARGS,
     "iterateItems($self)\n--\n\nTuples (key, value), each of one moment." },
   {},
};

/// tessel.Collection, which the package derives from the access type.
PyTypeObject* collectionType() {
   static auto const& type =
      *new py::object( py::module_::import( "tessel.collection" ).attr( "Collection" ) );
   return reinterpret_cast<PyTypeObject*>( type.ptr() );
}

} // namespace

void addCollectionType( py::module_& module ) {
   PyType_Slot accessSlots[] = {
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
      { Py_tp_getset, accessMembers },
      { Py_tp_methods, accessMethods },
      {},
   };
   PyType_Spec access{ "tessel.CollectionAccess",
                       sizeof( CollectionObject ),
                       0,
                       Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC |
                          Py_TPFLAGS_IMMUTABLETYPE,
                       accessSlots };
   module.attr( "CollectionAccess" ) =
      py::handle( reinterpret_cast<PyObject*>( typeFrom( access ) ) );

   PyType_Slot iteratorSlots[] = {
      typeSlot( Py_tp_iter, PyObject_SelfIter ),
      typeSlot( Py_tp_iternext, nextMember ),
      typeSlot( Py_tp_dealloc, freeMemberIterator ),
      {},
   };
   PyType_Spec layout{ "tessel.MemberIterator",
                       sizeof( MemberIteratorObject ),
                       0,
                       Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION |
                          Py_TPFLAGS_IMMUTABLETYPE,
                       iteratorSlots };
   memberIteratorType = typeFrom( layout );
}

py::object newCollection( PyObject* owner, Weft::Attribute const& attribute ) {
   PyTypeObject* const type = collectionType();
   py::object made = owned( type->tp_alloc( type, 0 ) );
   auto* const collection = reinterpret_cast<CollectionObject*>( made.ptr() );
   collection->owner = Py_NewRef( owner );
   collection->members = &membersOf( attribute );
   return made;
}

} // namespace TesselPython
