// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Contract checks: preconditions whose violation is a programming error of the caller.
///
/// A failed check never becomes a return value. By default it writes one text to the contract
/// stream and ends the process with std::abort; a host that must outlive its callers' mistakes
/// (a script interpreter, a command-line tool) asks for ContractFailure to be thrown instead.
/// Operations check before they change anything, so after a ContractFailure everything is as it
/// was before the call.
///
/// Threads: checks may run on any thread at once. contractStreamIs and onContractFailureIs are
/// meant for start-up; they may be called at any time, but a check failing on another thread at
/// that very moment may still see the former setting.

#include "Weft/Types.h"

#include <iosfwd>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Weft {

/// Where the text of a failed check goes before the process ends. The stream is not owned and has to
/// outlive every later check. Default: std::cerr.
[[gnu::visibility( "default" )]] void contractStreamIs( std::ostream& );

enum class OnContractFailure {
   stop, ///< write the text to the contract stream, then std::abort
   raise ///< throw ContractFailure; the contract stream stays silent
};
/// Default: stop.
[[gnu::visibility( "default" )]] void onContractFailureIs( OnContractFailure );

/// A failed check, for hosts that asked for OnContractFailure::raise.
class [[gnu::visibility( "default" )]] ContractFailure : public std::logic_error {
 public:
   ContractFailure( std::string const& text,
                    std::string_view condition,
                    std::string_view message,
                    std::string_view module,
                    std::string_view operation );

   /// The condition that did not hold, as the check words it.
   std::string const& condition() const { return condition_; }
   /// What the check says about it; empty when it says nothing.
   std::string const& message() const { return message_; }
   /// The source module, for example "EmTable".
   std::string const& module() const { return module_; }
   /// The function that checked.
   std::string const& operation() const { return operation_; }

 private:
   std::string condition_;
   std::string message_;
   std::string module_;
   std::string operation_;
};

/// A condition's text together with the place of the check. Made implicitly from the text, so that
/// a check reads sassert( holds, "text" ) and still knows its own line.
struct ContractSite {
   /// `function` is given where a helper checks for the operation of that name.
   constexpr ContractSite( char const* conditionText,
                           char const* function = __builtin_FUNCTION(),
                           U32 sourceLine = __builtin_LINE() )
         : condition( conditionText ), operation( function ), line( sourceLine ) {}

   char const* condition;
   char const* operation;
   U32 line;
};

/// The contract checks of one source module. A module keeps one constant of this type:
///
///    constexpr Weft::SassertHelper sassert{ "EmTable" };
///    sassert( index.valid(), "index.valid()" );
///    sassert( fits, "fits()", "Table ", name, " does not fit" );
///
/// The message is a sequence of pieces written one after another with nothing between them; it is
/// formatted only when the check fails.
class [[gnu::visibility( "default" )]] SassertHelper {
 public:
   /// `module` is not copied: pass a literal.
   constexpr explicit SassertHelper( char const* module ) : module_( module ) {}

   template<class... Pieces>
   [[gnu::always_inline]] void
   operator()( bool holds, ContractSite site, Pieces const&... message ) const {
      if ( holds ) [[likely]] {
         return;
      }
      refuse( site, message... );
   }

   /// A check that never holds: for the place that is reached only by a caller's mistake.
   template<class... Pieces>
   [[noreturn, gnu::always_inline]] void refuse( ContractSite site,
                                                 Pieces const&... message ) const {
      // In scalars: a site passed as a struct would cost the path of a check that holds its stores.
      failWith( site.condition, site.operation, site.line, message... );
   }

 private:
   template<class... Pieces>
   [[noreturn, gnu::cold, gnu::noinline]] void failWith( char const* condition,
                                                         char const* operation,
                                                         U32 line,
                                                         Pieces const&... message ) const {
      ContractSite const site( condition, operation, line );
      if constexpr ( sizeof...( Pieces ) == 0 ) {
         fail( site, {} );
      } else {
         std::ostringstream text;
         ( text << ... << message );
         fail( site, std::move( text ).str() );
      }
   }
   [[noreturn]] void fail( ContractSite const&, std::string const& message ) const;

   char const* module_;
};

} // namespace Weft
