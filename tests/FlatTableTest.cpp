// SPDX-License-Identifier: Apache-2.0
#include "Weft/FlatTable.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

namespace {

struct NoElement {};

/// All of an element: its number.
struct Number {
   U32 value = 0;
   bool saysAll() const { return true; }
};

/// Every even number has its home in the last group, every odd one in the first, so that most lie in other
/// groups than their own, behind the end too. Tags are few, classes as given: 1 or 4.
template<U64 classes>
struct CrowdedHash {
   static U64 of( U32 number ) {
      U64 const home = number % 2 == 0 ? ~U64{ 0 } << 32 : 0;
      return home | number % 7 * ( 4 / classes );
   }
   U64 operator()( Number number, NoElement ) const { return of( number.value ); }
   void fetch( Number ) const {}
};

template<U64 classes>
class Crowd {
   using Hash = CrowdedHash<classes>;
   using Table = Weft::FlatTable<NoElement, Hash, Number>;

 public:
   void toggle( U32 number ) {
      U64 const hash = Hash::of( number );
      if ( numbers_.erase( number ) == 0 ) {
         numbers_.insert( number );
         table_.makeRoom();
         if ( !putAtFirstLook( hash, Number{ number } ) ) {
            table_.insert( hash, Number{ number } );
         }
      } else if ( FirstLook const look = firstLookAt( number ); look.position != Table::nowhere ) {
         table_.eraseAtHome( look.position );
      } else {
         U64 const position = positionOf( number );
         ASSERT_NE( position, Table::nowhere ) << number;
         table_.erase( position, hash );
      }
   }
   void expectNumbersBelow( U32 end ) const {
      EXPECT_EQ( table_.size(), numbers_.size() );
      for ( U32 number = 0; number < end; ++number ) {
         bool const expected = numbers_.contains( number );
         ASSERT_EQ( positionOf( number ) != Table::nowhere, expected ) << number;
         ASSERT_FALSE( expected && firstLookAt( number ).isAbsent ) << number;
      }
   }
   std::set<U32> const& numbers() const { return numbers_; }

 private:
   bool putAtFirstLook( U64 hash, Number number ) {
      auto const refused = []( auto... ) { return false; };
      auto const put = [ & ]( typename Table::Lane lane ) {
         Table::putAtHome( lane, hash, number );
         table_.countPut( 1 );
         return true;
      };
      return table_.firstLook(
         hash,
         refused,
         [ & ]( typename Table::Home home ) { return Table::laneIn( home, put, refused ); },
         refused );
   }
   struct FirstLook {
      bool isAbsent = false;
      U64 position = Table::nowhere;
   };
   FirstLook firstLookAt( U32 number ) const {
      return table_.firstLook(
         Hash::of( number ),
         [ & ]( Number lead, U64 position ) {
            return FirstLook{ .position = lead.value == number ? position : Table::nowhere };
         },
         []( auto ) { return FirstLook{ .isAbsent = true }; },
         [] { return FirstLook(); } );
   }
   U64 positionOf( U32 number ) const {
      auto const isIt = [ & ]( Number lead, NoElement ) { return lead.value == number; };
      return table_.find( Hash::of( number ), isIt ).position;
   }

   Table table_;
   std::set<U32> numbers_;
};

template<U64 classes>
void expectRightAnswersInACrowdOf( U32 most ) {
   std::mt19937_64 random( 12 );
   Crowd<classes> crowd;
   for ( U32 step = 0; step < 6 * most && !testing::Test::HasFatalFailure(); ++step ) {
      crowd.toggle( static_cast<U32>( random() % most ) );
      if ( step % ( most / 2 ) == 0 ) {
         crowd.expectNumbersBelow( most );
      }
   }
   for ( U32 const number : std::set<U32>( crowd.numbers() ) ) {
      crowd.toggle( number );
   }
   crowd.expectNumbersBelow( most );
   crowd.toggle( 0 );
   crowd.expectNumbersBelow( most );
}

TEST( FlatTable, findsWhatPassedFullGroupsByAndNoMore ) {
   expectRightAnswersInACrowdOf<4>( 60 );
   expectRightAnswersInACrowdOf<4>( 400 );
   expectRightAnswersInACrowdOf<1>( 1200 ); // more in one class than a group counts
}

} // namespace
