// SPDX-License-Identifier: Apache-2.0
#include "Brine/BrineTypes.h"

#include "Brine/ChipId.h"
#include "WeftCorvo/Describe.h"

namespace Brine {

namespace {

Corvo::Ptr<HBitmap> newBitmap( U64 id, U32 size, HBitmap::BitState initialBitState ) {
   return Corvo::makePtr<HBitmap>( id, size, initialBitState );
}

void describe( Weft::TypeList& types ) {
   WeftCorvo::valueType<ChipId>( types, "Brine::ChipId" )
      .constructor<U8>( "value" )
      .constant( "value", &ChipId::value )
      .defaultValue( ChipId( 255 ) )
      .plainForm( &ChipId::value, []( U8 value ) { return ChipId( value ); } );
   WeftCorvo::entityType<HBitmap>( types, "Brine::HBitmap" )
      .creator( &newBitmap, "id", "size", "initialBitState" )
      .constant( "id", &HBitmap::id )
      .constant( "size", &HBitmap::size )
      .constant( "initialBitState", &HBitmap::initialBitState )
      .op( "setBit", &HBitmap::setBit, "bit" )
      .op( "clearBit", &HBitmap::clearBit, "bit" )
      .opConst( "bit", &HBitmap::bit, "bit" )
      .opConst( "findBitInSetState", &HBitmap::findBitInSetState, "preference" )
      .opConst(
         "findClearBitInRange", &HBitmap::findClearBitInRange, "first", "last", "preference" );
}

} // namespace

Weft::TypeData HBitmap::typeData() const {
   return { &_Brine_6976e5cea9b1a850_weftModule, 1 };
}

} // namespace Brine

constinit Weft::Module const _Brine_6976e5cea9b1a850_weftModule( "Brine", Brine::describe );

namespace {

[[gnu::init_priority( 1001 )]] Weft::ModuleRegistration const
   registration( _Brine_6976e5cea9b1a850_weftModule );

} // namespace
