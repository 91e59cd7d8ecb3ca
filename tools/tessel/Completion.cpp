// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Completion.h"

#include "tools/tessel/Inspection.h"
#include "tools/tessel/Tables.h"
#include "tools/tessel/Text.h"
#include "tools/tessel/VerbTable.h"

#include <algorithm>
#include <filesystem>
#include <ostream>

namespace TesselTool {

namespace {

using Candidates = std::vector<std::string>;
using Typed = std::vector<std::string>;

/// Names of shared memory that could be chunks: they are of this user alone.
void addChunks( Candidates& found ) {
   std::error_code none;
   for ( auto const& entry : std::filesystem::directory_iterator( "/dev/shm", none ) ) {
      auto const status = entry.symlink_status( none );
      if ( std::filesystem::is_regular_file( status ) &&
           ( status.permissions() & std::filesystem::perms( 0077 ) ) ==
              std::filesystem::perms::none ) {
         found.push_back( '/' + entry.path().filename().string() );
      }
   }
}

void addTables( Candidates& found, std::string const& planOrChunk ) {
   if ( namesChunk( planOrChunk ) ) {
      for ( Frame const& frame : findFrames( *openForReading( planOrChunk ) ) ) {
         found.push_back( frame.name );
      }
      return;
   }
   for ( PlannedTable const& table : readPlan( planOrChunk ).tables ) {
      found.push_back( table.name );
   }
}

/// What a word or the value of an option may be. `plan` is the first word behind the verb.
void addValues( Candidates& found, std::string_view name, std::string const& plan ) {
   if ( name == "TABLE" || name == "--table" ) {
      addTables( found, plan );
   } else if ( name == "--as" ) {
      found.insert( found.end(), { "csv", "json", "table" } );
   } else if ( name == "PLAN|CHUNK" ) {
      addChunks( found );
      found.emplace_back( filesCandidate );
   } else if ( name == "PLAN" || name == "FILE" || name == "NAME.json" || name == "--out" ||
               name == "--data" ) {
      found.emplace_back( filesCandidate );
   }
}

bool takesValue( Option const& option ) {
   return !option.value.empty();
}

/// The words behind the verb that no option took; sets `open` to the option whose value comes next.
Typed plainWords( Typed const& behindVerb, Option const*& open ) {
   Typed plain;
   for ( std::string const& word : behindVerb ) {
      if ( open ) {
         open = nullptr;
         continue;
      }
      auto const all = options();
      auto const known = std::find_if(
         all.begin(), all.end(), [ & ]( Option const& option ) { return option.name == word; } );
      if ( word.starts_with( "--" ) ) {
         open = known != all.end() && takesValue( *known ) ? &*known : nullptr;
      } else {
         plain.push_back( word );
      }
   }
   return plain;
}

/// The name of the word that comes next; empty when all are there.
std::string_view nextWord( Verb const& verb, std::size_t typed ) {
   std::vector<std::string_view> names;
   auto const add = [ & ]( std::string_view name ) {
      if ( !name.starts_with( "--" ) ) {
         names.push_back( name );
      }
   };
   forEachName( verb.words, add );
   forEachName( verb.options, add );
   return typed < names.size() ? names[ typed ] : std::string_view();
}

void addBehindVerb( Candidates& found, Verb const& verb, Typed const& behindVerb, bool option ) {
   Option const* open = nullptr;
   Typed const plain = plainWords( behindVerb, open );
   std::string const plan = plain.empty() ? "" : plain.front();
   if ( open ) {
      addValues( found, open->name, plan );
   } else if ( option ) {
      forEachName( verb.options, [ & ]( std::string_view name ) {
         if ( name.starts_with( "--" ) ) {
            found.emplace_back( name );
         }
      } );
      found.emplace_back( "--help" );
   } else {
      addValues( found, nextWord( verb, plain.size() ), plan );
   }
}

void addVerbs( Candidates& found ) {
   for ( Verb const& verb : verbs() ) {
      found.emplace_back( verb.name );
   }
}

Candidates allCandidates( Typed const& typed ) {
   Candidates found;
   std::string const& last = typed.back();
   auto const verbWord = std::find_if( typed.begin(), typed.end() - 1, []( auto const& word ) {
      return !word.starts_with( "--" );
   } );
   if ( verbWord == typed.end() - 1 ) {
      if ( last.starts_with( '-' ) ) {
         found = { "--json", "--help", "--version" };
      } else {
         addVerbs( found );
         found.emplace_back( "help" );
      }
      return found;
   }
   if ( *verbWord == "help" ) {
      addVerbs( found );
      return found;
   }
   if ( Verb const* const verb = verbNamed( *verbWord ) ) {
      addBehindVerb( found, *verb, { verbWord + 1, typed.end() - 1 }, last.starts_with( '-' ) );
   }
   return found;
}

} // namespace

Candidates candidates( Typed const& typed ) {
   if ( typed.empty() ) {
      return {};
   }
   Candidates found;
   for ( std::string& candidate : allCandidates( typed ) ) {
      if ( candidate == filesCandidate || candidate.starts_with( typed.back() ) ) {
         found.push_back( std::move( candidate ) );
      }
   }
   return found;
}

ExitStatus complete( Typed const& typed, std::ostream& out ) {
   try {
      for ( std::string const& candidate : candidates( typed ) ) {
         out << candidate << '\n';
      }
   } catch ( std::exception const& ) {
      return ExitStatus::refused;
   }
   return ExitStatus::done;
}

} // namespace TesselTool
