// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Failed contract checks as values that a test can look at.
///
/// Threads: one test at a time; the reaction to a failed check is one setting of the whole process.

#include "Weft/Contract.h"

#include <optional>
#include <string>
#include <utility>

namespace TestSupport {

/// While one exists, a failed check throws Weft::ContractFailure; the last one to go restores the
/// default, which ends the process.
class RaiseContracts {
 public:
   RaiseContracts() {
      if ( guards_++ == 0 ) {
         Weft::onContractFailureIs( Weft::OnContractFailure::raise );
      }
   }
   ~RaiseContracts() {
      if ( --guards_ == 0 ) {
         Weft::onContractFailureIs( Weft::OnContractFailure::stop );
      }
   }
   RaiseContracts( RaiseContracts const& ) = delete;
   RaiseContracts& operator=( RaiseContracts const& ) = delete;

 private:
   static inline int guards_ = 0;
};

/// The contract failure that ends `action`; nothing when it returns. Other exceptions pass through.
template<class Action>
std::optional<Weft::ContractFailure> contractFailure( Action&& action ) {
   RaiseContracts const raise;
   try {
      std::forward<Action>( action )();
   } catch ( Weft::ContractFailure const& failure ) {
      return failure;
   }
   return std::nullopt;
}

/// The condition that fails during `action`: EXPECT_EQ( failedCondition( … ), "bit < size()" ).
/// "(none)" when it returns.
template<class Action>
std::string failedCondition( Action&& action ) {
   auto const failure = contractFailure( std::forward<Action>( action ) );
   return failure ? failure->condition() : "(none)";
}

} // namespace TestSupport
