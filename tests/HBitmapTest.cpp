// SPDX-License-Identifier: Apache-2.0
#include "Brine/HBitmap.h"
#include "Corvo/Ptr.h"
#include "support/Contract.h"
#include "support/Heap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <new>
#include <random>
#include <set>
#include <tuple>
#include <vector>

namespace {

using Brine::HBitmap;
using State = HBitmap::BitState;

constexpr auto lowest = HBitmap::IndexPreference::lowest;
constexpr U32 none = HBitmap::invalidIndex;

Corvo::Ptr<HBitmap> bitmap( U32 size, State state ) {
   return Corvo::makePtr<HBitmap>( U64{ 7 }, size, state );
}

/// What a bitmap promises, in the plainest way.
class Model {
 public:
   Model( U32 size, State state ) : bits_( size, state == State::allSet ) {
      auto& all = state == State::allSet ? set_ : clear_;
      for ( U32 bit = 0; bit < size; ++bit ) {
         all.insert( all.end(), bit );
      }
   }

   void bitIs( U32 bit, bool value ) {
      bits_[ bit ] = value;
      ( value ? clear_ : set_ ).erase( bit );
      ( value ? set_ : clear_ ).insert( bit );
   }
   bool bit( U32 bit ) const { return bits_[ bit ]; }
   U32 findSet() const { return set_.empty() ? none : *set_.begin(); }
   U32 findClear( U32 first, U32 last ) const {
      auto const found = clear_.lower_bound( first );
      return found == clear_.end() || *found > last ? none : *found;
   }

 private:
   std::vector<bool> bits_;
   std::set<U32> set_;
   std::set<U32> clear_;
};

/// A bitmap beside its model, of a given size and initial state, changed alike.
class HBitmapModelTest : public testing::TestWithParam<std::tuple<U32, State>> {
 protected:
   void bitIs( U32 bit, bool value ) {
      if ( value ) {
         real_->setBit( bit );
      } else {
         real_->clearBit( bit );
      }
      model_.bitIs( bit, value );
   }
   void runIs( U32 first, U32 length, bool value ) {
      for ( U32 bit = first; bit < std::min( first + length, size_ ); ++bit ) {
         bitIs( bit, value );
      }
   }
   void compare( U32 first, U32 last ) {
      ASSERT_EQ( real_->findBitInSetState( lowest ), model_.findSet() );
      ASSERT_EQ( real_->findClearBitInRange( first, last, lowest ),
                 model_.findClear( first, last ) );
      ASSERT_EQ( real_->bit( first ), model_.bit( first ) );
   }
   void compareEverywhere() {
      for ( U32 bit = 0; bit < size_; ++bit ) {
         ASSERT_EQ( real_->bit( bit ), model_.bit( bit ) ) << bit;
         ASSERT_EQ( real_->findClearBitInRange( bit, size_ - 1, lowest ),
                    model_.findClear( bit, size_ - 1 ) )
            << bit;
      }
      ASSERT_EQ( real_->findBitInSetState( lowest ), model_.findSet() );
   }
   U32 below( U32 bound ) { return std::uniform_int_distribution<U32>( 0, bound - 1 )( random_ ); }

   U32 const size_ = std::get<0>( GetParam() );
   Corvo::Ptr<HBitmap> const real_ = bitmap( size_, std::get<1>( GetParam() ) );
   Model model_{ size_, std::get<1>( GetParam() ) };
   std::mt19937 random_{ 1 };
};

} // namespace

TEST_P( HBitmapModelTest, singleBitsAndRunsOfBitsAgreeWithTheModel ) {
   compareEverywhere();
   for ( int step = 0; size_ > 0 && step < 600; ++step ) {
      // Runs of any length: inside a word, over words, over the reach of a whole upper word.
      U32 const length = 1 + below( U32{ 1 } << below( 15 ) );
      U32 const first = below( size_ );
      runIs( first, length, below( 2 ) == 0 );
      compare( first, size_ - 1 );
      U32 const from = below( size_ );
      compare( from, from + below( size_ - from ) );
      compare( below( first + 1 ), first );
   }
   compareEverywhere();
}

TEST_P( HBitmapModelTest, bitsTakenLowestFirstComeInOrderUntilNoneIsLeft ) {
   runIs( 0, size_, true );
   for ( U32 bit = 0; bit < size_; ++bit ) {
      ASSERT_EQ( real_->findBitInSetState( lowest ), bit );
      real_->clearBit( bit );
   }
   EXPECT_EQ( real_->findBitInSetState( lowest ), none );
   // Given back from the top: each is the lowest at once.
   for ( U32 bit = size_; bit-- > 0; ) {
      real_->setBit( bit );
      ASSERT_EQ( real_->findBitInSetState( lowest ), bit );
   }
}

TEST_P( HBitmapModelTest, wordsOfBitsChangeAsTheirBitsWould ) {
   bool const toggledIsSet = real_->initialBitState() == State::allClear;
   std::set<U32> toggled;
   for ( int step = 0; size_ > 0 && step < 100; ++step ) {
      U32 const word = below( size_ ) / HBitmap::wordBits;
      U64 mask = step % 5 == 0 ? ~U64{ 0 } : std::uniform_int_distribution<U64>()( random_ );
      U32 const inWord = size_ - word * HBitmap::wordBits;
      mask &= inWord < HBitmap::wordBits ? ( U64{ 1 } << inWord ) - 1 : ~U64{ 0 };
      real_->toggleIn( word, mask );
      for ( U32 bit = 0; bit < HBitmap::wordBits; ++bit ) {
         if ( ( mask >> bit & 1 ) != 0 ) {
            model_.bitIs( word * HBitmap::wordBits + bit, toggledIsSet );
            toggled.insert( word * HBitmap::wordBits + bit );
         }
      }
      ASSERT_EQ( real_->toggledIn( word ) & mask, mask );
      U32 const from = below( size_ );
      compare( from, size_ - 1 );
   }
   std::set<U32> told;
   real_->untoggleAll( [ & ]( U32 word, U64 bits ) {
      for ( ; bits != 0; bits &= bits - 1 ) {
         auto const bit = static_cast<U32>( std::countr_zero( bits ) );
         told.insert( told.end(), word * HBitmap::wordBits + bit );
      }
   } );
   EXPECT_EQ( told, toggled );
   runIs( 0, size_, !toggledIsSet );
   compareEverywhere();
   runIs( size_ / 3, 100, toggledIsSet ); // it works as a new one does
   compareEverywhere();
}

TEST_P( HBitmapModelTest, aSingleClearBitIsFoundFromEverywhereBelowItAndFromNowhereAbove ) {
   runIs( 0, size_, true );
   for ( int step = 0; size_ > 0 && step < 200; ++step ) {
      U32 const bit = step == 0 ? size_ - 1 : below( size_ );
      bitIs( bit, false );
      U32 const from = below( bit + 1 );
      EXPECT_EQ( real_->findClearBitInRange( from, size_ - 1, lowest ), bit );
      EXPECT_EQ( real_->findClearBitInRange( from, bit, lowest ), bit );
      EXPECT_EQ( real_->findClearBitInRange( bit, bit, lowest ), bit );
      if ( bit > from ) {
         EXPECT_EQ( real_->findClearBitInRange( from, bit - 1, lowest ), none );
      }
      if ( bit + 1 < size_ ) {
         EXPECT_EQ( real_->findClearBitInRange( bit + 1, size_ - 1, lowest ), none );
      }
      bitIs( bit, true );
   }
}

std::string caseName( testing::TestParamInfo<std::tuple<U32, State>> const& parameters ) {
   auto const [ size, state ] = parameters.param;
   return std::to_string( size ) + ( state == State::allSet ? "AllSet" : "AllClear" );
}

INSTANTIATE_TEST_SUITE_P( Sizes,
                          HBitmapModelTest,
                          testing::Combine( testing::Values( 0, 1, 63, 64, 65, 4095, 4096, 4097 ),
                                            testing::Values( State::allSet, State::allClear ) ),
                          caseName );

// The model of a large one is slow, and its initial state changes nothing that depends on the size.
INSTANTIATE_TEST_SUITE_P( LargeSizes,
                          HBitmapModelTest,
                          testing::Values( std::tuple( 262143, State::allSet ),
                                           std::tuple( 262144, State::allClear ),
                                           std::tuple( 262145, State::allSet ) ),
                          caseName );

TEST( HBitmapTest, remembersWhatItWasMadeWith ) {
   auto const bits = Corvo::makePtr<HBitmap>( ~U64{ 0 }, U32{ 100 }, State::allClear );
   EXPECT_EQ( bits->id(), ~U64{ 0 } );
   EXPECT_EQ( bits->size(), 100U );
   EXPECT_EQ( bits->initialBitState(), State::allClear );
}

TEST( HBitmapTest, aBitAtOrPastTheSizeIsRefusedAndNothingChanges ) {
   using TestSupport::failedCondition;
   for ( State const state : { State::allSet, State::allClear } ) {
      for ( U32 const size : { 0U, 1U, 64U, 100U } ) {
         auto const bits = bitmap( size, state );
         for ( U32 const bit : { size, size + 1, size + 64, none } ) {
            EXPECT_EQ( failedCondition( [ & ] { bits->setBit( bit ); } ), "bit < size()" );
            EXPECT_EQ( failedCondition( [ & ] { bits->clearBit( bit ); } ), "bit < size()" );
            EXPECT_EQ( failedCondition( [ & ] { (void)bits->bit( bit ); } ), "bit < size()" );
            EXPECT_EQ( failedCondition( [ & ] { bits->findClearBitInRange( 0, bit, lowest ); } ),
                       "last < size()" );
         }
         bool const anySet = state == State::allSet && size > 0;
         EXPECT_EQ( bits->findBitInSetState( lowest ), anySet ? 0 : none );
      }
   }
   auto const failure =
      TestSupport::contractFailure( [] { bitmap( 1, State::allSet )->setBit( 1 ); } );
   ASSERT_TRUE( failure );
   EXPECT_EQ( failure->module(), "HBitmap" );
   EXPECT_EQ( failure->operation(), "setBit" );
}

TEST( HBitmapTest, aRangeThatEndsBeforeItStartsHoldsNoBit ) {
   auto const bits = bitmap( 100, State::allClear );
   EXPECT_EQ( bits->findClearBitInRange( 50, 49, lowest ), none );
   EXPECT_EQ( bits->findClearBitInRange( 100, 99, lowest ), none );
   EXPECT_EQ( bits->findClearBitInRange( none, 0, lowest ), none );
}

TEST( HBitmapTest, runningOutOfMemoryLeavesNothingBehind ) {
   auto const before = HBitmap::memAllocationTracker_.live();
   Corvo::Ptr<HBitmap> made;
   TestSupport::failEachAllocation(
      [ & ] { made = bitmap( 1 << 20, State::allSet ); },
      [ & ] { EXPECT_EQ( HBitmap::memAllocationTracker_.live(), before ); } );
   EXPECT_EQ( made->findBitInSetState( lowest ), 0U );
   EXPECT_EQ( HBitmap::memAllocationTracker_.live(), before + 1 );
}
