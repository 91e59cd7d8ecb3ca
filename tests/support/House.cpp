// SPDX-License-Identifier: Apache-2.0
#include "support/House.h"

namespace House {

namespace {

int timesDescribed = 0;

void describe( Weft::TypeList& types ) {
   ++timesDescribed;
   WeftCorvo::valueType<Colour>( types, "House::Colour" )
      .constructor<U16, Corvo::String const&>( "shade", "name" )
      .readOnly( "lit", []( Colour const& colour ) { return colour.lit; } )
      .state( "shade", &Colour::shade, &Colour::shadeIs )
      .constant( "name", &Colour::name )
      .constant( "raw", &Colour::raw )
      .constant( "chip", &Colour::chip )
      .fixedValue( "darkest", U16{ 0xffff } )
      .opConst( "mixed", &Colour::mixed, "other" );
   WeftCorvo::entityType<Room>( types, "House::Room" )
      .creator( &Room::RoomIs, "name" )
      .constant( "name", &Room::name )
      .state( "area", &Room::area, &Room::areaIs )
      .state( "next", &Room::next, &Room::nextIs )
      .hidden<U64>( "deed" )
      .opConst( "kind", &Room::kind )
      .op( "grown", WeftCorvo::overload<U32( U32, U32 )>( &Room::grown ), "by", "times" )
      .hiddenOp( "grownOnce", WeftCorvo::overload<U32( U32 )>( &Room::grown ), "by" )
      .opStatic(
         "size", []( U32 a, U32 b ) { return a * b; }, "a", "b" )
      .stateWithArguments(
         "bitmap", &Room::bitmap, &Room::bitmapIs, &Room::bitmapDel, "id", "size", "state" )
      .collection( "scene", &Room::scene, &Room::sceneIs, &Room::sceneDel, &Room::scenes );
   WeftCorvo::entityType<Kitchen, Room>( types, "House::Kitchen" )
      .constructorArguments<Corvo::String>( "name" );
   WeftCorvo::valueType<LongVisit, Visit>( types, "House::LongVisit" )
      .state( "days", &LongVisit::days, []( LongVisit& visit, U32 days ) { visit.days = days; } )
      .constant( "colour", &LongVisit::colour );
   WeftCorvo::valueType<Visit>( types, "House::Visit" ).constant( "room", &Visit::room );
}

} // namespace

int describings() {
   return timesDescribed;
}

constinit Weft::Module const rooms( "Rooms", describe );

namespace {

Weft::ModuleRegistration const registration( rooms );

} // namespace
} // namespace House
