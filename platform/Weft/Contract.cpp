// SPDX-License-Identifier: Apache-2.0
#include "Weft/Contract.h"

#include <atomic>
#include <cstdlib>
#include <iostream>

namespace Weft {

namespace {

std::atomic<std::ostream*> contractStream{ nullptr };
std::atomic<OnContractFailure> onFailure{ OnContractFailure::stop };

void describe( std::ostream& text,
               ContractSite const& site,
               std::string_view module,
               std::string_view message ) {
   if ( !message.empty() ) {
      text << '"' << message << "\", ";
   }
   text << "condition " << site.condition << " failed in " << module << ':' << site.line << ", "
        << site.operation;
}

} // namespace

ContractFailure::ContractFailure( std::string const& text,
                                  std::string_view condition,
                                  std::string_view message,
                                  std::string_view module,
                                  std::string_view operation )
      : std::logic_error( text ), condition_( condition ), message_( message ), module_( module ),
        operation_( operation ) {}

void contractStreamIs( std::ostream& stream ) {
   contractStream.store( &stream, std::memory_order_release );
}

void onContractFailureIs( OnContractFailure reaction ) {
   onFailure.store( reaction, std::memory_order_release );
}

void SassertHelper::fail( ContractSite const& site, std::string const& message ) const {
   if ( onFailure.load( std::memory_order_acquire ) == OnContractFailure::raise ) {
      std::ostringstream text;
      describe( text, site, module_, message );
      throw ContractFailure(
         std::move( text ).str(), site.condition, message, module_, site.operation );
   }
   // Straight to the stream: the process ends also when there is no memory for a text.
   std::ostream* const given = contractStream.load( std::memory_order_acquire );
   std::ostream& stream = given ? *given : std::cerr;
   describe( stream, site, module_, message );
   stream << std::endl;
   std::abort();
}

} // namespace Weft
