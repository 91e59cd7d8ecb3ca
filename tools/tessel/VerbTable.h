// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The verbs with their words and options, for the command line, its help, and its completion.
///
/// Threads: constants.

#include "tools/tessel/Verbs.h"

#include <span>
#include <string_view>
#include <variant>

namespace TesselTool {

/// A word that has to be there.
struct Word {
   std::string_view name;
   std::string_view meaning;
   std::string Arguments::*place;
};

/// What may be left out.
struct Option {
   std::string_view name;  ///< "--chip"; "TABLE" for a word without a name in front
   std::string_view value; ///< what follows: "N"; nothing behind a flag
   std::string_view meaning;
   std::variant<bool Arguments::*,
                std::optional<std::string> Arguments::*,
                std::vector<std::string> Arguments::*>
      place;
};

using Action = ExitStatus ( * )( Arguments const&, Context const& );

struct Verb {
   std::string_view name;
   std::string_view summary;
   std::string_view words;   ///< names of words, in order, with a blank between
   std::string_view options; ///< names of options, likewise
   std::string_view examples;
   Action action;
   bool writes = false; ///< to a chunk that an agent may have open
};

std::span<Verb const> verbs();
/// Null when there is none of this name.
Verb const* verbNamed( std::string_view name );
std::span<Word const> words();
std::span<Option const> options();

/// Calls `visit` with each of the names that have a blank between them.
template<class Visit>
void forEachName( std::string_view names, Visit visit ) {
   while ( !names.empty() ) {
      std::string_view const name = names.substr( 0, names.find( ' ' ) );
      names.remove_prefix( std::min( names.size(), name.size() + 1 ) );
      visit( name );
   }
}

/// The word or option of this name in `all`, which has it.
template<class Named>
Named const& named( std::span<Named const> all, std::string_view name ) {
   for ( Named const& one : all ) {
      if ( one.name == name ) {
         return one;
      }
   }
   throw Failure( "the table of verbs names nothing of its own", ExitStatus::usage );
}

} // namespace TesselTool
