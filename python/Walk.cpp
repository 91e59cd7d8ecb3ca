// SPDX-License-Identifier: Apache-2.0
#include "python/Walk.h"

#include "python/LibraryLock.h"
#include "python/Objects.h"
#include "python/Texts.h"
#include "python/TypeSlots.h"

#include <map>
#include <optional>

namespace TesselPython {

namespace {

using Kind = Weft::AttributeKind;

bool answersAlone( Weft::Attribute const& attribute ) {
   return attribute.kind() == Kind::opConst && attribute.arguments().empty() &&
          !converterOf( attribute ).rawPointer();
}

/// The type as a walk; false when it is none.
Walk asWalk( Weft::TypeInfo const& type ) {
   auto const* const done = type.attribute( "done" );
   auto const* const advance = type.attribute( "doInc" );
   bool const walks = type.kind() == Weft::TypeKind::value && done && done->printed() &&
                      done->typeName() == "bool" && advance && advance->kind() == Kind::op &&
                      advance->arguments().empty();
   if ( !walks ) {
      return {};
   }
   Walk walk{ .type = &type, .done = done, .advance = advance };
   for ( Weft::Attribute const* const attribute : reachableAttributes( type ) ) {
      if ( answersAlone( *attribute ) ) {
         walk.item.push_back( attribute );
      }
   }
   return walk;
}

/// Walks are looked at again and again while a loop runs.
struct PreparedWalk {
   explicit PreparedWalk( Weft::TypeInfo const& type ) : walk( walkOf( type ) ) {
      for ( Weft::Attribute const* const part : walk.item ) {
         item.add( converterOf( *part ) );
      }
      if ( walk ) {
         position.add( converterOf( walk.type->name(), walk.type ) );
      }
   }

   Walk walk;
   Layout item;
   Layout position; ///< the walk's value alone
};

PreparedWalk const& preparedWalk( Weft::TypeInfo const& type ) {
   static auto& prepared = *new std::map<Weft::TypeInfo const*, PreparedWalk>;
   return prepared.try_emplace( &type, type ).first->second;
}

struct IteratorObject {
   PyObject_HEAD PreparedWalk const* prepared;
   std::optional<Frame> position; ///< one slot: the walk as it stands
};

PyTypeObject* iteratorType = nullptr;

/// With the library's lock held.
void act( Weft::TypeInfo const& type,
          void* object,
          Weft::Attribute const& attribute,
          Weft::Op op,
          void* result ) {
   Weft::TypeInfo const& owner = attribute.owner();
   owner.attributeOp( result, type.viewAs( owner, object ), &attribute, op, nullptr, nullptr );
}

/// Reads the item where the walk stands and goes on; false at the end.
bool takeItem( Walk const& walk, void* position, Frame const& item ) {
   return inLibrary( [ & ] {
      bool done = true;
      act( *walk.type, position, *walk.done, Weft::Op::read, &done );
      if ( done ) {
         return false;
      }
      for ( std::size_t i = 0; i < walk.item.size(); ++i ) {
         act( *walk.type, position, *walk.item[ i ], Weft::Op::call, item.slots()[ i ] );
      }
      act( *walk.type, position, *walk.advance, Weft::Op::call, nullptr );
      return true;
   } );
}

py::object itemAsTuple( Frame const& item ) {
   py::tuple tuple( item.built() );
   for ( std::size_t i = 0; i < item.built(); ++i ) {
      tuple[ i ] = item.object( i );
   }
   return tuple;
}

PyObject* next( PyObject* self ) {
   auto const* const iterator = reinterpret_cast<IteratorObject*>( self );
   PreparedWalk const& prepared = *iterator->prepared;
   return answering( [ & ]() -> py::object {
      Frame item( prepared.item );
      for ( std::size_t i = 0; i < prepared.item.count(); ++i ) {
         item.buildEmpty();
      }
      bool const onEntry = takeItem( prepared.walk, iterator->position->slots()[ 0 ], item );
      return onEntry ? itemAsTuple( item ) : py::object(); // no object and no exception: the end
   } );
}

void freeIterator( PyObject* self ) {
   PyTypeObject* const type = Py_TYPE( self );
   std::destroy_at( &reinterpret_cast<IteratorObject*>( self )->position );
   type->tp_free( self );
   Py_DECREF( type );
}

} // namespace

Walk walkOf( Weft::TypeInfo const& type ) {
   Walk walk = asWalk( type );
   if ( walk || type.kind() == Weft::TypeKind::value ) {
      return walk;
   }
   for ( Weft::Attribute const* const attribute : reachableAttributes( type ) ) {
      Walk const answered =
         attribute->type() && answersAlone( *attribute ) ? asWalk( *attribute->type() ) : Walk();
      if ( answered && walk ) {
         return {}; // two ways to walk are none
      }
      if ( answered ) {
         walk = answered;
         walk.begin = attribute;
      }
   }
   return walk;
}

PyObject* iterate( PyObject* self ) {
   return answering( [ & ] {
      PreparedWalk const& prepared = preparedWalk( *registeredType( self ) );
      Walk const& walk = prepared.walk;
      if ( !walk ) { // of a class that a script has put in the place of its own
         throw Refusal( PyExc_TypeError, nameOf( self ) + " does not iterate" );
      }
      py::object object = owned( iteratorType->tp_alloc( iteratorType, 0 ) );
      auto* const iterator = reinterpret_cast<IteratorObject*>( object.ptr() );
      std::construct_at( &iterator->position );
      iterator->prepared = &prepared;
      Frame& position = iterator->position.emplace( prepared.position );
      if ( walk.begin == nullptr ) {
         position.build( self ); // a copy: the object itself stays where it stands
         return object;
      }
      void* const owner = objectOf( self, walk.begin->owner() );
      void* const begin = position.buildEmpty();
      inLibrary( [ & ] {
         walk.begin->owner().attributeOp(
            begin, owner, walk.begin, Weft::Op::call, nullptr, nullptr );
      } );
      return object;
   } );
}

void prepareWalks() {
   PyType_Slot slots[] = {
      typeSlot( Py_tp_iter, PyObject_SelfIter ),
      typeSlot( Py_tp_iternext, next ),
      typeSlot( Py_tp_dealloc, freeIterator ),
      {},
   };
   PyType_Spec layout{ "tessel.Iterator",
                       sizeof( IteratorObject ),
                       0,
                       Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION |
                          Py_TPFLAGS_IMMUTABLETYPE,
                       slots };
   iteratorType = typeFrom( layout );
}

} // namespace TesselPython
