// SPDX-License-Identifier: Apache-2.0
#include "Corvo/Bytes.h"
#include "Corvo/Node.h"
#include "Corvo/Ptr.h"
#include "Corvo/ThreadControl.h"
#include "support/Heap.h"

#include <gtest/gtest.h>

#include <array>
#include <stdexcept>
#include <string>
#include <thread>
#include <unordered_set>
#include <utility>
#include <vector>

namespace {

using Corvo::Bytes;
using Corvo::Ptr;

std::string textOf( Bytes const& bytes ) {
   return { bytes.bytesPtr(), bytes.size() };
}

class Animal : public Corvo::Node {
 public:
   explicit Animal( int* goneCount = nullptr ) : goneCount_( goneCount ) {}
   ~Animal() override {
      if ( goneCount_ ) {
         ++*goneCount_;
      }
   }
   Weft::TypeData typeData() const override { return { nullptr, 0 }; }
   using Node::nodeFlagSet;

   static inline Weft::AllocTrackTypeInfo memAllocationTracker_;

 private:
   int* goneCount_;
};

class Dog : public Animal {
 public:
   using Animal::Animal;
   static inline Weft::AllocTrackTypeInfo memAllocationTracker_;
};

class Unborn : public Animal {
 public:
   Unborn() { throw std::runtime_error( "no" ); }
   static inline Weft::AllocTrackTypeInfo memAllocationTracker_;
};

/// Larger than any slab block.
class Whale : public Animal {
 public:
   using Animal::Animal;
   static inline Weft::AllocTrackTypeInfo memAllocationTracker_;

 private:
   [[maybe_unused]] char blubber_[ 2 * Quarry::largestSlabBlock ] = {};
};

} // namespace

TEST( BytesTest, holdsAnyBytesOnBothSidesOfTheInlineCapacity ) {
   std::string const text( "zero\0 and then more than a few", 30 );
   for ( U32 const length : { 0U, 1U, 5U, 19U, 20U, 21U, 22U, 30U } ) {
      Bytes const bytes( text.data(), length );
      EXPECT_EQ( bytes.size(), length );
      EXPECT_EQ( bytes.empty(), length == 0 );
      EXPECT_EQ( textOf( bytes ), text.substr( 0, length ) );
      EXPECT_EQ( bytes, Bytes( std::string_view( text ).substr( 0, length ) ) );
   }
   EXPECT_EQ( Bytes( nullptr, 0 ), Bytes() );
   // Refused by its length alone: of these bytes only the first one is there.
   EXPECT_THROW( Bytes( std::string_view( "a", ( std::size_t{ 1 } << 32 ) + 1 ) ),
                 std::length_error );
}

TEST( BytesTest, copiesAreIndependentAndMovesLeaveAnEmptyValue ) {
   for ( std::string const& text :
         { std::string(), std::string( 20, 'a' ), std::string( 21, 'b' ) } ) {
      Bytes source( text );
      Bytes const copy( source );
      EXPECT_EQ( textOf( copy ), text );
      EXPECT_TRUE( text.empty() || copy.bytesPtr() != source.bytesPtr() );
      Bytes const moved( std::move( source ) );
      EXPECT_EQ( textOf( moved ), text );
      EXPECT_TRUE( source.empty() );
   }
}

TEST( BytesTest, assignmentFromAndToEitherSideOfTheInlineCapacityAlsoToItself ) {
   std::vector<std::string> const texts{
      "", "short", std::string( 21, 'l' ), std::string( 99, 'm' )
   };
   for ( std::string const& from : texts ) {
      for ( std::string const& to : texts ) {
         Bytes source( from );
         Bytes target( to );
         target = source;
         EXPECT_EQ( textOf( target ), from );
         Bytes& same = target;
         target = same;
         EXPECT_EQ( textOf( target ), from );
         target = Bytes( to );
         EXPECT_EQ( textOf( target ), to );
         target = std::move( source );
         EXPECT_EQ( textOf( target ), from );
         target = std::move( same );
         EXPECT_EQ( textOf( target ), from );
      }
   }
}

TEST( BytesTest, orderIsThatOfUnsignedBytesAndAPrefixComesFirst ) {
   std::vector<Bytes> const ascending{ Bytes(),
                                       Bytes( "\0", 1 ),
                                       Bytes( "\0\0", 2 ),
                                       Bytes( "a" ),
                                       Bytes( "a\0", 2 ),
                                       Bytes( std::string( 20, 'a' ) ),
                                       Bytes( std::string( 21, 'a' ) ),
                                       Bytes( "b" ),
                                       Bytes( "\x7f" ),
                                       Bytes( "\x80" ),
                                       Bytes( "\xff" ) };
   for ( std::size_t i = 0; i < ascending.size(); ++i ) {
      for ( std::size_t j = 0; j < ascending.size(); ++j ) {
         EXPECT_EQ( ascending[ i ] <=> ascending[ j ], i <=> j ) << i << " and " << j;
         EXPECT_EQ( ascending[ i ] == ascending[ j ], i == j ) << i << " and " << j;
      }
   }
}

TEST( BytesTest, outOfMemoryLeavesTheTargetAsItWas ) {
#if defined( __SANITIZE_ADDRESS__ ) || defined( __SANITIZE_THREAD__ )
   GTEST_SKIP() << "calloc is the sanitizer's own and cannot be made to fail";
#endif
   Bytes const source( std::string( 50, 's' ) );
   Bytes target( std::string( 40, 't' ) );
   auto const failures = TestSupport::failEachAllocation(
      [ & ] { target = source; },
      [ & ] { EXPECT_EQ( textOf( target ), std::string( 40, 't' ) ); } );
   EXPECT_EQ( failures, 1U );
   EXPECT_EQ( target, source );
}

TEST( PtrTest, theLastReferenceTakesTheObjectAlong ) {
   int gone = 0;
   auto first = Corvo::makePtr<Animal>( &gone );
   EXPECT_EQ( first->useCount(), 1U );
   {
      Ptr<Animal> const second( first );
      Ptr<Animal const> const third( second );
      EXPECT_EQ( first->useCount(), 3U );
   }
   EXPECT_EQ( first->useCount(), 1U );
   Ptr<Animal> last = std::move( first );
   EXPECT_FALSE( first );
   Ptr<Animal>& same = last;
   last = same;
   EXPECT_EQ( last->useCount(), 1U );
   EXPECT_EQ( gone, 0 );
   last = nullptr;
   EXPECT_EQ( gone, 1 );
}

TEST( PtrTest, convertsUpwardsAndToConstAndBackOnlyByAskingForTheType ) {
   static_assert( std::is_convertible_v<Ptr<Dog>, Ptr<Animal>> );
   static_assert( std::is_convertible_v<Ptr<Dog>, Ptr<Animal const>> );
   static_assert( !std::is_convertible_v<Ptr<Animal>, Ptr<Dog>> );
   static_assert( !std::is_convertible_v<Ptr<Animal const>, Ptr<Animal>> );
   static_assert( !std::is_convertible_v<Animal*, Ptr<Animal>> );

   int gone = 0;
   Ptr<Animal> animal = Corvo::makePtr<Dog>( &gone );
   EXPECT_EQ( animal->useCount(), 1U );
   auto const dog = Corvo::dynamicPtr<Dog>( animal );
   EXPECT_EQ( dog, animal );
   EXPECT_EQ( animal->useCount(), 2U );
   EXPECT_EQ( Corvo::dynamicPtr<Unborn>( animal ), nullptr );
   EXPECT_EQ( Corvo::dynamicPtr<Dog>( Ptr<Animal>() ), nullptr );
   EXPECT_EQ( animal->useCount(), 2U );
   EXPECT_EQ( gone, 0 );
}

TEST( PtrTest, equalityIsIdentity ) {
   auto const one = Corvo::makePtr<Animal>();
   auto const other = Corvo::makePtr<Animal>();
   EXPECT_NE( one, other );
   EXPECT_EQ( one, Ptr<Animal const>( one ) );
   EXPECT_NE( one, nullptr );
   EXPECT_EQ( Ptr<Animal>(), nullptr );
   EXPECT_EQ( Ptr<Animal>(), Ptr<Animal const>() );
   EXPECT_EQ( ( std::unordered_set<Ptr<Animal>>{ one, other, one } ).size(), 2U );
}

TEST( PtrTest, adoptAndReleaseHandAReferenceOverWithoutCounting ) {
   int gone = 0;
   Animal* const raw = Corvo::makePtr<Animal>( &gone ).release();
   EXPECT_EQ( raw->useCount(), 1U );
   Ptr<Animal> const counted( raw );
   EXPECT_EQ( raw->useCount(), 2U );
   auto const adopted = Ptr<Animal>::adopt( raw );
   EXPECT_EQ( raw->useCount(), 2U );
   EXPECT_EQ( gone, 0 );
}

TEST( NodeTest, theFlagsOfTheReferenceWordAreNotCounted ) {
   int gone = 0;
   auto animal = Corvo::makePtr<Animal>( &gone );
   for ( U32 const flag : { Animal::notificationActiveFlag, Animal::zombieReactorsFlag } ) {
      EXPECT_FALSE( animal->nodeFlag( flag ) );
      animal->nodeFlagSet( flag, true );
      EXPECT_TRUE( animal->nodeFlag( flag ) );
   }
   animal->nodeFlagSet( Animal::notificationActiveFlag, false );
   EXPECT_FALSE( animal->nodeFlag( Animal::notificationActiveFlag ) );
   EXPECT_TRUE( animal->nodeFlag( Animal::zombieReactorsFlag ) );
   animal->nodeFlagSet( Animal::notificationActiveFlag, true );
   EXPECT_EQ( animal->useCount(), 1U );
   EXPECT_EQ( animal->publisher(), animal.get() );
   animal = nullptr;
   EXPECT_EQ( gone, 1 );
}

TEST( NodeTest, withThreadControlSetReferencesComeAndGoOnSeveralThreads ) {
   Corvo::ThreadControl::tsp_ = 1;
   int gone = 0;
   {
      auto const animal = Corvo::makePtr<Animal>( &gone );
      std::array<std::thread, 4> threads;
      for ( std::thread& thread : threads ) {
         thread = std::thread( [ mine = animal ] {
            for ( int round = 0; round < 20000; ++round ) {
               Ptr<Animal const> const another = mine;
            }
         } );
      }
      for ( std::thread& thread : threads ) {
         thread.join();
      }
      EXPECT_EQ( animal->useCount(), 1U );
   }
   EXPECT_EQ( gone, 1 );
   Corvo::ThreadControl::tsp_ = 0;
}

TEST( MakePtrTest, eachTypeCountsItsOwnLiveObjects ) {
   EXPECT_EQ( Dog::memAllocationTracker_.live(), 0U );
   {
      auto const dog = Corvo::makePtr<Dog>();
      Ptr<Animal> const whale = Corvo::makePtr<Whale>();
      EXPECT_EQ( Dog::memAllocationTracker_.live(), 1U );
      EXPECT_EQ( Whale::memAllocationTracker_.live(), 1U );
      EXPECT_EQ( Animal::memAllocationTracker_.live(), 0U );
   }
   EXPECT_EQ( Dog::memAllocationTracker_.live(), 0U );
   EXPECT_EQ( Whale::memAllocationTracker_.live(), 0U );
}

TEST( MakePtrTest, aConstructorThatThrowsLeavesNothing ) {
   EXPECT_THROW( Corvo::makePtr<Unborn>(), std::runtime_error ); // its slab stays as the spare
   auto const before = TestSupport::liveHeapBlocks();
   for ( int i = 0; i < 5000; ++i ) {
      EXPECT_THROW( Corvo::makePtr<Unborn>(), std::runtime_error );
   }
   EXPECT_EQ( TestSupport::liveHeapBlocks(), before );
   EXPECT_EQ( Unborn::memAllocationTracker_.live(), 0U );
}

TEST( MakePtrTest, outOfMemoryIsBadAllocAndNothingIsCounted ) {
   auto const failures = TestSupport::failEachAllocation(
      [] { Corvo::makePtr<Whale>(); },
      [] { EXPECT_EQ( Whale::memAllocationTracker_.live(), 0U ); } );
   EXPECT_EQ( failures, 1U );
   EXPECT_EQ( Whale::memAllocationTracker_.live(), 0U );
}
