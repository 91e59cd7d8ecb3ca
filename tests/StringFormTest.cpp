// SPDX-License-Identifier: Apache-2.0
// The string forms of values, there and back, and what any other text is answered with.

#include "support/House.h"

#include <gmock/gmock.h>

namespace {

using House::Colour;
using House::Kitchen;
using House::LongVisit;
using House::Room;
using House::Visit;
using testing::HasSubstr;

template<class T>
T parsed( std::string_view text ) {
   WeftCorvo::Room<T> room;
   WeftCorvo::typeOf<T>().fromStringForm( room.memory(), text );
   return room.built();
}

Colour someColour() {
   Colour colour( 513, "a \"q\" \\ ,):( \xff" );
   colour.lit = true;
   colour.raw = Corvo::Bytes( std::string_view( "\0\x7f\xff", 3 ) );
   return colour;
}

TEST( StringForm, PrintsTypeNameAndAttributesInherited ) {
   LongVisit visit;
   visit.days = 12;
   visit.colour = someColour();
   EXPECT_EQ( WeftCorvo::stringForm( visit ),
              "House::LongVisit( room: null, days: 12, colour: House::Colour( lit: true, shade: "
              "513, name: \"a \\x22q\\x22 \\x5c ,):( \\xff\", raw: 0x007fff, chip: 7 ) )" );
}

TEST( StringForm, ParsesWhatItPrints ) {
   LongVisit visit;
   visit.days = 4294967295;
   visit.colour = someColour();
   visit.room = Corvo::makePtr<Kitchen>( "k" );
   EXPECT_EQ( parsed<LongVisit>( WeftCorvo::stringForm( visit ) ), visit );
   EXPECT_EQ( parsed<Colour>( " House::Colour(chip:7,raw:0x,name:\"\",shade:0\t,\n lit :false )" ),
              Colour() );
   EXPECT_EQ( parsed<Brine::ChipId>( "255" ), Brine::ChipId( 255 ) );
   EXPECT_EQ( parsed<Visit>( "House::Visit( room: null )" ), Visit() );
}

/// What is wrong with the string form of a colour that has `from` replaced by `to`.
std::string problem( std::string_view from, std::string_view to ) {
   std::string text = "House::Colour( lit: true, shade: 1, name: \"n\", raw: 0x00, chip: 2 )";
   text.replace( text.find( from ), from.size(), to );
   try {
      parsed<Colour>( text );
   } catch ( Weft::ParseError const& error ) {
      return error.what();
   }
   return "(none)";
}

TEST( StringForm, SaysWhereTextIsNotAStringForm ) {
   EXPECT_EQ( problem( "lit: true, ", "" ), "at offset 0: no attribute lit" );
   EXPECT_EQ( problem( "2 )", "2 )x" ), "at offset 67: characters left over" );
   EXPECT_EQ( problem( "2 )", "2 ) " ), "at offset 67: characters left over" );
   EXPECT_THROW( parsed<Brine::ChipId>( "3 " ), Weft::ParseError );
   EXPECT_THAT( problem( "shade: 1", "shade: " ), HasSubstr( "expected a number" ) );
   EXPECT_EQ( problem( "chip: 2", "chip: 256" ), "at offset 64: number past 255" );
   EXPECT_EQ( problem( "chip: 2", "chip: 2, lit: true" ),
              "at offset 72: unknown or repeated attribute lit" );
   EXPECT_THAT( problem( "House", "Hose" ), HasSubstr( "at offset 0: expected" ) );
   EXPECT_THAT( problem( "true", "truer" ), HasSubstr( "characters left over" ) );
   EXPECT_THAT( problem( "shade: 1", "shade: -1" ), HasSubstr( "expected a number" ) );
   EXPECT_THAT( problem( "0x00", "0x0" ), HasSubstr( "two hexadecimal digits" ) );
   EXPECT_THAT( problem( "\"n\"", "\"n" ), HasSubstr( "expected ',' or ')'" ) );
   EXPECT_THAT( problem( "\"n\"", "\"\\xg0\"" ), HasSubstr( "expected \\x" ) );
   EXPECT_THAT( problem( "shade: 1", "shade: 1(" ), HasSubstr( "expected" ) );
   EXPECT_THAT( problem( "1", std::string( 1000000, '(' ) ), HasSubstr( "expected" ) );
}

TEST( StringForm, FindsANamedObjectOnlyWhileItLivesAndIsOfTheType ) {
   Visit visit;
   visit.room = Room::RoomIs( "a" );
   auto const other =
      Corvo::makePtr<Brine::HBitmap>( U64{ 0 }, U32{ 1 }, Brine::HBitmap::BitState::allSet );
   auto const text = WeftCorvo::stringForm( visit );
   EXPECT_EQ( parsed<Visit>( text ).room, visit.room );
   EXPECT_EQ( visit.room->useCount(), 1U );
   auto misnamed = text;
   misnamed.replace( text.find( "House::Room" ), 11, "House::Kitchen" );
   EXPECT_THROW( parsed<Visit>( misnamed ), Weft::ParseError );
   visit.room = nullptr;
   auto const inItsPlace = Room::RoomIs( "b" );
   EXPECT_THROW( parsed<Visit>( text ), Weft::ParseError );
   std::string bitmap;
   WeftCorvo::appendObject( bitmap, other.get() );
   EXPECT_THROW( parsed<Visit>( "House::Visit( room: " + bitmap + " )" ), Weft::ParseError );
   bitmap.replace( 0, bitmap.find( '@' ), "House::Room" );
   EXPECT_THROW( parsed<Visit>( "House::Visit( room: " + bitmap + " )" ), Weft::ParseError );
   EXPECT_THROW( parsed<Visit>( "House::Visit( room: House::Room@18446744073709551615 )" ),
                 Weft::ParseError );
}

} // namespace
