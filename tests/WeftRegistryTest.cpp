// SPDX-License-Identifier: Apache-2.0
// What the type registry says of types compared with what they do, and how misuse is answered.

#include "Vellum/VellumChunk.h"
#include "Vellum/VellumTypes.h"
#include "WeftCorvo/Entities.h"
#include "support/Contract.h"
#include "support/Heap.h"
#include "support/House.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <set>
#include <system_error>
#include <thread>

namespace {

using House::Colour;
using House::Kitchen;
using House::LongVisit;
using House::Room;
using House::Visit;
using testing::ElementsAre;
using Weft::Op;
using Weft::Status;

Weft::TypeInfo const& type( std::string_view name ) {
   auto const* const found = Weft::typeByName( name );
   return found ? *found : throw std::runtime_error( "no type " + std::string( name ) );
}

/// One operation on an attribute of the type's own or an inherited one.
template<class T>
Status perform( std::string_view typeName,
                T* object,
                std::string_view attribute,
                Op op,
                void* result = nullptr,
                void const* key = nullptr,
                std::vector<void*> arguments = {} ) {
   auto const& info = type( typeName );
   return info.attributeOp(
      result, object, info.attribute( attribute ), op, key, arguments.data() );
}

// --- what is registered ---

TEST( WeftRegistry, KnowsModulesAndTypesInOrderAndDescribesOnce ) {
   Weft::weftModuleIs( House::rooms );
   auto const modules = Weft::modules();
   EXPECT_EQ( std::ranges::count( modules, &House::rooms ), 1 );
   ASSERT_GE( modules.size(), 3U );
   EXPECT_EQ( modules[ 0 ], &_Brine_6976e5cea9b1a850_weftModule );
   EXPECT_EQ( modules[ 1 ], &_Vellum_53db2e1eaa5780fc_weftModule );

   std::vector<std::thread> threads;
   for ( int i = 0; i < 4; ++i ) {
      threads.emplace_back( [] { EXPECT_EQ( type( "House::Room" ).index(), 1U ); } );
   }
   for ( auto& thread : threads ) {
      thread.join();
   }
   EXPECT_EQ( House::describings(), 1 );
   std::vector<std::string_view> names;
   for ( auto const& info : House::rooms.types() ) {
      names.push_back( info.name() );
      EXPECT_EQ( &type( info.name() ), &info );
      EXPECT_EQ( &info.module(), &House::rooms );
   }
   EXPECT_THAT(
      names,
      ElementsAre(
         "House::Colour", "House::Room", "House::Kitchen", "House::LongVisit", "House::Visit" ) );
   EXPECT_EQ( Weft::typeByName( "House::Cellar" ), nullptr );
}

void describeShed( Weft::TypeList& types ) {
   WeftCorvo::valueType<Colour>( types, "Shed::Colour" )
      .constructor<U16, Corvo::String const&>( "shade", "name" )
      .state( "shade", &Colour::shade, &Colour::shadeIs )
      .opConst( "mixed", &Colour::mixed, "other" );
}

TEST( WeftRegistry, DescribesAgainWhatRanOutOfMemory ) {
   static constinit Weft::Module const shed( "Shed", describeShed ); // not registered
   EXPECT_GT( TestSupport::failEachAllocation( [] { shed.types(); }, [] {} ), 5U );
   ASSERT_EQ( shed.types().size(), 1U );
   EXPECT_EQ( shed.types()[ 0 ].attribute( "mixed" )->id(), 3U );
}

TEST( WeftRegistry, NumbersAttributesByKindAndLevel ) {
   EXPECT_EQ( type( "House::Colour" ).attribute( "lit" )->id(), 2U );
   EXPECT_EQ( type( "House::Colour" ).attribute( "mixed" )->id(), 8U );
   EXPECT_EQ( type( "House::Room" ).attribute( "name" )->id(), 130U );
   EXPECT_EQ( type( "House::Kitchen" ).firstId(), 258U );
   EXPECT_EQ( type( "House::LongVisit" ).attribute( "colour" )->id(), 131U );
   EXPECT_EQ( type( "House::LongVisit" ).attribute( "room" )->id(), 2U );
}

TEST( WeftRegistry, NamesTheTypesOfAttributesArgumentsKeysAndBases ) {
   auto const& room = type( "House::Room" );
   EXPECT_EQ( room.attribute( "next" )->typeName(), "House::Room" );
   EXPECT_EQ( room.attribute( "next" )->type(), &room );
   EXPECT_EQ( room.attribute( "deed" )->typeName(), "U64" );
   EXPECT_EQ( room.attribute( "scene" )->keyTypeName(), "Weft::String" );
   EXPECT_EQ( room.attribute( "scene" )->typeName(), "House::Colour" );
   EXPECT_EQ( room.attribute( "bitmap" )->arguments()[ 2 ].typeName(), "U32" );
   EXPECT_EQ( type( "House::Colour" ).attribute( "mixed" )->arguments()[ 0 ].name(), "other" );
   EXPECT_EQ( type( "House::Colour" ).constructorArguments()[ 1 ].typeName(), "Weft::String" );
   EXPECT_EQ( type( "Vellum::VellumChunk" ).attribute( "remove" )->typeName(), "void" );
   EXPECT_EQ( type( "House::Kitchen" ).base(), &room );
   EXPECT_EQ( room.base(), nullptr );
   EXPECT_EQ( &type( "House::Kitchen" ).attribute( "name" )->owner(), &room );
   EXPECT_EQ( room.attribute( "attic" ), nullptr );
}

// --- construction, copies, views ---

TEST( WeftRegistry, BuildsCopiesAndDestroysValuesAndEntitiesInRawMemory ) {
   U16 shade = 3;
   Corvo::String name( 40, 'n' );
   void* const arguments[] = { &shade, &name };
   WeftCorvo::Room<Colour> built;
   WeftCorvo::Room<Colour> copied;
   auto const& colour = type( "House::Colour" );
   ASSERT_LE( colour.valueSize(), sizeof built );
   colour.construct( built.memory(), arguments );
   colour.copy( copied.memory(), built.memory() );
   EXPECT_EQ( built.built(), Colour( 3, name ) );
   EXPECT_EQ( copied.built(), built.built() );
   U8 chip = 0;
   type( "Brine::ChipId" ).copy( &chip, nullptr );
   EXPECT_EQ( chip, 255 );

   auto const before = Room::memAllocationTracker_.live();
   void* const roomArguments[] = { &name };
   WeftCorvo::Room<Corvo::Ptr<Room>> slot;
   type( "House::Room" ).construct( slot.memory(), roomArguments );
   EXPECT_EQ( Room::memAllocationTracker_.live(), before + 1 );
   type( "House::Room" ).destroy( slot.memory() );
   EXPECT_EQ( Room::memAllocationTracker_.live(), before );
}

TEST( WeftRegistry, RefusesToConstructWhatOnlyListsItsArguments ) {
   Corvo::Ptr<Kitchen> slot;
   EXPECT_FALSE( type( "House::Kitchen" ).constructible() );
   EXPECT_THROW( type( "House::Kitchen" ).construct( &slot, nullptr ), Weft::TypeException );
   EXPECT_THROW( type( "House::Room" ).construct( &slot, nullptr ), std::invalid_argument );
}

TEST( WeftRegistry, ViewsAValueAsItsOwnTypeAndItsBasesOnly ) {
   LongVisit visit;
   auto const& info = type( "House::LongVisit" );
   EXPECT_EQ( info.viewAs( info, &visit ), &visit );
   EXPECT_EQ( info.viewAs( type( "House::Visit" ), &visit ), static_cast<Visit*>( &visit ) );
   EXPECT_THROW( info.viewAs( type( "House::Colour" ), &visit ), Weft::TypeException );
   EXPECT_THROW( type( "House::Visit" ).viewAs( info, &visit ), Weft::TypeException );
}

// --- attribute operations ---

TEST( WeftRegistry, ReadsAndWritesStoredAttributesAsFarAsTheirKindAllows ) {
   Colour colour( 513, "" );
   colour.lit = true;
   U16 shade = 0;
   EXPECT_EQ( perform( "House::Colour", &colour, "shade", Op::read, &shade ), Status::done );
   EXPECT_EQ( shade, 513 );
   shade = 9;
   EXPECT_EQ( perform( "House::Colour", &colour, "shade", Op::write, nullptr, nullptr, { &shade } ),
              Status::done );
   EXPECT_EQ( colour.shade, 9 );
   bool lit = false;
   EXPECT_EQ( perform( "House::Colour", &colour, "lit", Op::read, &lit ), Status::done );
   EXPECT_TRUE( lit );
   EXPECT_EQ( perform( "House::Colour", &colour, "lit", Op::write, nullptr, nullptr, { &lit } ),
              Status::unsupported );
   EXPECT_EQ( perform<Colour>( "House::Colour", nullptr, "darkest", Op::read, &shade ),
              Status::done );
   EXPECT_EQ( shade, 0xffff );
   EXPECT_THROW( perform<Colour>( "House::Colour", nullptr, "lit", Op::read, &lit ),
                 std::invalid_argument );
}

TEST( WeftRegistry, ReadsAPointerAsANewReferenceAndSwapsReferencesOnWrite ) {
   auto const room = Room::RoomIs( "a" );
   auto next = Room::RoomIs( "b" );
   EXPECT_EQ( perform( "House::Room", room.get(), "next", Op::write, nullptr, nullptr, { &next } ),
              Status::done );
   Corvo::Ptr<Room> read;
   EXPECT_EQ( perform( "House::Room", room.get(), "next", Op::read, &read ), Status::done );
   EXPECT_EQ( read, next );
   EXPECT_EQ( next->useCount(), 3U );
   Corvo::Ptr<Room> none;
   perform( "House::Room", room.get(), "next", Op::write, nullptr, nullptr, { &none } );
   EXPECT_EQ( next->useCount(), 2U );
}

TEST( WeftRegistry, CallsOperationsOfTheDynamicTypeWithTheirArguments ) {
   Corvo::Ptr<Room> const kitchen = Corvo::makePtr<Kitchen>( "k" );
   Corvo::String kind;
   EXPECT_EQ( perform( "House::Room", kitchen.get(), "kind", Op::call, &kind ), Status::done );
   EXPECT_EQ( kind, "kitchen" );
   U32 by = 5;
   U32 times = 3;
   U32 area = 0;
   EXPECT_EQ(
      perform( "House::Room", kitchen.get(), "grown", Op::call, &area, nullptr, { &by, &times } ),
      Status::done );
   EXPECT_EQ( area, 15U );
   EXPECT_THAT(
      [ & ] {
         perform(
            "House::Room", kitchen.get(), "grown", Op::call, &area, nullptr, { &by, nullptr } );
      },
      testing::ThrowsMessage<std::invalid_argument>( "argument times is missing" ) );
   EXPECT_EQ( kitchen->area(), 15U );
   EXPECT_EQ(
      perform<Room>( "House::Room", nullptr, "size", Op::call, &area, nullptr, { &by, &times } ),
      Status::done );
   EXPECT_EQ( area, 15U );
}

TEST( WeftRegistry, SetsAnAttributeWithArgumentsAndDeletesIt ) {
   auto const room = Room::RoomIs( "a" );
   U64 id = 4;
   U32 size = 10;
   U32 state = 1;
   auto const write = [ & ] {
      return perform(
         "House::Room", room.get(), "bitmap", Op::write, nullptr, nullptr, { &id, &size, &state } );
   };
   EXPECT_EQ( write(), Status::done );
   EXPECT_EQ( room->bitmap()->initialBitState(), Brine::HBitmap::BitState::allClear );
   state = 2;
   EXPECT_THROW( write(), std::out_of_range );
   Corvo::Ptr<Brine::HBitmap> taken;
   EXPECT_EQ( perform( "House::Room", room.get(), "bitmap", Op::del, &taken ), Status::done );
   EXPECT_EQ( taken->size(), 10U );
   EXPECT_EQ( room->bitmap(), nullptr );
}

TEST( WeftRegistry, ComparesTestsAndHashesValues ) {
   Colour dark( 1, "" );
   Colour light( 2, "" );
   auto const& info = type( "House::Colour" );
   auto const answer = [ & ]( Op op, Colour& a, Colour& b ) {
      void* const second[] = { &b };
      bool result = false;
      EXPECT_EQ( info.attributeOp( &result, &a, nullptr, op, nullptr, second ), Status::done );
      return result;
   };
   EXPECT_TRUE( answer( Op::less, dark, light ) );
   EXPECT_FALSE( answer( Op::less, light, dark ) );
   EXPECT_FALSE( answer( Op::equal, dark, light ) );
   EXPECT_TRUE( answer( Op::equal, dark, dark ) );
   EXPECT_TRUE( answer( Op::truth, dark, light ) );
   EXPECT_EQ( info.hash( &light ), 2U );
   EXPECT_THROW( info.attributeOp( nullptr, &dark, nullptr, Op::less, nullptr, nullptr ),
                 std::invalid_argument );
   Visit visit;
   EXPECT_FALSE( type( "House::Visit" ).hashable() );
   EXPECT_THROW( type( "House::Visit" ).hash( &visit ), Weft::UnhashableError );
   EXPECT_EQ(
      type( "House::Visit" ).attributeOp( nullptr, &visit, nullptr, Op::less, nullptr, nullptr ),
      Status::unsupported );
}

// --- collections ---

TEST( WeftRegistry, ReachesACollectionThroughItsOwnersFunctions ) {
   auto const room = Room::RoomIs( "a" );
   Corvo::String key = "evening";
   Colour colour( 7, "" );
   U32 number = 9;
   bool has = true;
   auto const on = [ & ]( Op op, void* result, void* value = nullptr ) {
      return perform( "House::Room", room.get(), "scene", op, result, &key, { value } );
   };
   EXPECT_EQ( on( Op::contains, &has ), Status::done );
   EXPECT_FALSE( has );
   EXPECT_EQ( on( Op::write, nullptr, &colour ), Status::done );
   EXPECT_EQ( on( Op::count, &number ), Status::done );
   EXPECT_EQ( number, 1U );
   EXPECT_EQ( on( Op::capacity, &number ), Status::done );
   EXPECT_EQ( number, room->scenes().capacity() );
   colour = Colour();
   EXPECT_EQ( on( Op::read, &colour ), Status::done );
   EXPECT_EQ( colour.shade, 7 );
   EXPECT_EQ( on( Op::del, &colour ), Status::done );
   EXPECT_EQ( on( Op::read, &colour ), Status::done );
   EXPECT_EQ( colour, Colour() );
   EXPECT_EQ( on( Op::call, nullptr ), Status::unsupported );
   EXPECT_THROW( perform( "House::Room", room.get(), "scene", Op::read, &colour ),
                 std::invalid_argument );
}

TEST( WeftRegistry, WalksACollectionFromItsStartOrAKeyAndKeepsItsOwner ) {
   auto room = Room::RoomIs( "a" );
   for ( U16 i = 0; i < 20; ++i ) {
      room->sceneIs( std::to_string( i ), Colour( i, "" ) );
   }
   auto const& info = type( "House::Room" );
   auto const* const scene = info.attribute( "scene" );
   auto const walk = info.collectionIterator( room.get(), scene );
   Corvo::String key = "7";
   auto const fromKey = info.collectionIterator( room.get(), scene, &key );
   key = "absent";
   EXPECT_FALSE( info.collectionIterator( room.get(), scene, &key )->onMember() );
   EXPECT_EQ( info.collectionIterator( room.get(), info.attribute( "name" ) ), nullptr );
   room = nullptr;

   std::set<std::string> seen;
   for ( ; walk->onMember(); walk->advance() ) {
      Colour colour;
      walk->key( &key );
      walk->value( &colour );
      EXPECT_EQ( std::to_string( colour.shade ), key );
      EXPECT_TRUE( seen.insert( key ).second );
   }
   EXPECT_EQ( seen.size(), 20U );
   walk->advance();
   EXPECT_THROW( walk->key( &key ), std::out_of_range );
   fromKey->key( &key );
   EXPECT_EQ( key, "7" );
}

// --- objects held by callers who know names alone ---

TEST( WeftRegistry, CrossesBetweenNodesAndSlotsOfTheRightTypeOnly ) {
   Corvo::Ptr<Corvo::Node> const kitchen = Corvo::makePtr<Kitchen>( "k" );
   Corvo::Ptr<Corvo::Node> const bitmap =
      Corvo::makePtr<Brine::HBitmap>( U64{ 0 }, U32{ 1 }, Brine::HBitmap::BitState::allSet );
   EXPECT_EQ( WeftCorvo::typeOfObject( *kitchen ).name(), "House::Kitchen" );
   auto const& room = type( "House::Room" );
   Corvo::Ptr<Room> slot;
   WeftCorvo::nodeInto( room, &slot, kitchen );
   EXPECT_EQ( WeftCorvo::nodeIn( room, &slot ), kitchen );
   EXPECT_THROW( WeftCorvo::nodeInto( room, &slot, bitmap ), Weft::TypeException );
   EXPECT_EQ( slot, kitchen );
   EXPECT_EQ( room.stringForm( &slot ).substr( 0, 15 ), "House::Kitchen@" );
   WeftCorvo::nodeInto( room, &slot, nullptr );
   EXPECT_EQ( slot, nullptr );
   EXPECT_EQ( WeftCorvo::objectAs( room, *kitchen ), dynamic_cast<Room*>( kitchen.get() ) );
   EXPECT_THROW( WeftCorvo::objectAs( room, *bitmap ), Weft::TypeException );
   EXPECT_THROW( WeftCorvo::nodeIn( type( "House::Colour" ), &slot ), Weft::TypeException );
}

// --- the platform's own types ---

TEST( WeftRegistry, MakesAndRemovesChunksByName ) {
   U32 size = 4096;
   Corvo::Ptr<Vellum::VellumChunk> chunk;
   auto const call =
      [ & ]( std::string_view operation, void* result, std::vector<void*> arguments ) {
         return perform<Vellum::VellumChunk>(
            "Vellum::VellumChunk", nullptr, operation, Op::call, result, nullptr, arguments );
      };
   EXPECT_EQ( call( "inProcess", &chunk, { &size } ), Status::done );
   EXPECT_EQ( chunk->size(), 4096U );
   EXPECT_EQ( WeftCorvo::typeOfObject( *chunk ).name(), "Vellum::VellumChunk" );
   Corvo::String name = "/weft-registry-test-absent";
   bool readOnly = true;
   EXPECT_THROW( call( "open", &chunk, { &name, &readOnly } ), std::system_error );
   EXPECT_EQ( chunk->size(), 4096U );
}

TEST( WeftRegistry, DrivesABitmapByName ) {
   U64 id = 1;
   U32 size = 70;
   U32 state = 0;
   void* const arguments[] = { &id, &size, &state };
   Corvo::Ptr<Brine::HBitmap> bitmap;
   type( "Brine::HBitmap" ).construct( &bitmap, arguments );
   U32 bit = 69;
   perform( "Brine::HBitmap", bitmap.get(), "clearBit", Op::call, nullptr, nullptr, { &bit } );
   U32 first = 0;
   U32 found = 0;
   EXPECT_EQ( perform( "Brine::HBitmap",
                       bitmap.get(),
                       "findClearBitInRange",
                       Op::call,
                       &found,
                       nullptr,
                       { &first, &bit, &state } ),
              Status::done );
   EXPECT_EQ( found, 69U );
   EXPECT_EQ(
      TestSupport::failedCondition( [ & ] {
         perform( "Brine::HBitmap", bitmap.get(), "setBit", Op::call, nullptr, nullptr, { &size } );
      } ),
      "bit < size()" );
}

} // namespace
