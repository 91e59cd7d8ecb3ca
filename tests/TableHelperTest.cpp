// SPDX-License-Identifier: Apache-2.0
#include "Weft/TypeInfo.h"
#include "support/Tables.h"

#include <gtest/gtest.h>

namespace {

using namespace Tessel;

TEST( TableHelper, theEntryCountComesFirst ) {
   auto const helper = emTableHelperFactory( 1024, 16, 8 );
   EXPECT_EQ( helper->numEntries(), 1024U );
   EXPECT_EQ( helper->keyLengthBytes(), 16U );
   EXPECT_EQ( helper->resultLengthBytes(), 8U );
   auto const direct = DirectTableHelper::DirectTableHelperIs( 7, 6, 5 );
   EXPECT_EQ( direct->numEntries(), 7U );
   EXPECT_EQ( direct->keyLengthBytes(), 6U );
   EXPECT_EQ( direct->resultLengthBytes(), 5U );
}

TEST( TableHelper, noNumberIsRefused ) {
   auto const helper = tableHelperFactory( 0, 0xFFFFFFFF, 0 );
   EXPECT_EQ( helper->numEntries(), 0U );
   EXPECT_EQ( helper->keyLengthBytes(), 0xFFFFFFFFU );
}

TEST( TableHelper, theKindsAreTellableThroughTheBase ) {
   Corvo::Ptr<TableHelper const> const exact = emTableHelperFactory( 1, 1, 1 );
   EXPECT_TRUE( Corvo::dynamicPtr<EmTableHelper const>( exact ) );
   EXPECT_FALSE( Corvo::dynamicPtr<DirectTableHelper const>( exact ) );
   EXPECT_EQ( exact->typeData().index, 2U );
   EXPECT_EQ( exact->fwkType().name(), "Tessel::EmTableHelper" );
   EXPECT_EQ( tableHelperFactory( 1, 1, 1 )->typeData().index, 0U );
   EXPECT_EQ( directTableHelperFactory( 1, 1, 1 )->typeData().index, 1U );
}

TEST( TableHelper, isCountedWhileItLives ) {
   U64 const before = EmTableHelper::memAllocationTracker_.live();
   {
      auto const helper = emTableHelperFactory( 1, 1, 1 );
      EXPECT_EQ( helper->useCount(), 1U );
      EXPECT_FALSE( helper->nodeFlag( Corvo::Node::notificationActiveFlag ) );
      EXPECT_EQ( EmTableHelper::memAllocationTracker_.live(), before + 1 );
   }
   EXPECT_EQ( EmTableHelper::memAllocationTracker_.live(), before );
}

} // namespace
