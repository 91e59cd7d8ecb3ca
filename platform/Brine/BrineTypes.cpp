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
      .doc( "The number of a switch chip." )
      .constructor<U8>( "value" )
      .constant( "value", &ChipId::value )
      .doc( "0 to 255; 255 by default." )
      .defaultValue( ChipId( 255 ) )
      .plainForm( &ChipId::value, []( U8 value ) { return ChipId( value ); } );
   WeftCorvo::entityType<HBitmap>( types, "Brine::HBitmap" )
      .doc( "A bitmap that finds its lowest bit in a state without looking at every bit." )
      .creator( &newBitmap, "id", "size", "initialBitState" )
      .lengthy()
      .constant( "id", &HBitmap::id )
      .doc( "A number for people to tell bitmaps apart." )
      .constant( "size", &HBitmap::size )
      .doc( "In bits." )
      .constant( "initialBitState", &HBitmap::initialBitState )
      .doc( "0 when all bits were set at first, 1 when all were clear." )
      .op( "setBit", &HBitmap::setBit, "bit" )
      .doc( "Sets a bit below size." )
      .op( "clearBit", &HBitmap::clearBit, "bit" )
      .doc( "Clears a bit below size." )
      .opConst( "bit", &HBitmap::bit, "bit" )
      .doc( "Whether a bit below size is set." )
      .opConst( "findBitInSetState", &HBitmap::findBitInSetState, "preference" )
      .doc( "The lowest set bit; 0xffffffff when none is." )
      .opConst(
         "findClearBitInRange", &HBitmap::findClearBitInRange, "first", "last", "preference" )
      .doc( "The lowest clear bit from first to last, both included; 0xffffffff when none is." );
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
