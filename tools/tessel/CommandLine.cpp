// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/CommandLine.h"

#include "Weft/Contract.h"
#include "tools/tessel/Interrupts.h"
#include "tools/tessel/Output.h"
#include "tools/tessel/Text.h"
#include "tools/tessel/Verbs.h"

#include <CLI/CLI.hpp>

#include <array>
#include <csignal>
#include <cstring>
#include <iostream>
#include <new>
#include <optional>

#include <fcntl.h>
#include <unistd.h>

namespace TesselTool {

namespace {

using Action = ExitStatus ( * )( Arguments const&, Context const& );

struct Verb {
   std::string_view name;
   std::string_view summary;
   std::string_view words; ///< the positional ones, in order
   Action action;
};

constexpr std::array<Verb, 8> verbs{ {
   { "show", "Tables, their ranges and how full they are", "PLAN|CHUNK", show },
   { "dump",
     "The entries of a table in slot order, in the form that load reads",
     "PLAN TABLE",
     dump },
   { "lookup", "The result of one entry", "PLAN TABLE CHIP KEY", lookup },
   { "update", "Add an entry, or replace its result", "PLAN TABLE CHIP KEY RESULT", update },
   { "delete", "Remove an entry", "PLAN TABLE CHIP KEY", deleteEntry },
   { "load", "Add or replace many entries", "PLAN TABLE FILE", load },
   { "clear", "Remove the entries of a table, or of a chip in every table", "PLAN", clear },
   { "demo", "Kill an agent, and watch its tables survive", "", demo },
} };

constexpr std::string_view description =
   "Looks into and changes the tables that an agent keeps in shared memory.\n"
   "A PLAN is a JSON file that says which chunk and which tables the agent has.";

constexpr std::string_view footer =
   "Keys and results are hex bytes, with ':' or '.' between bytes as you like.\n"
   "Exit status: 0 done; 1 something asked for was absent, refused or wrong in the data;\n"
   "2 wrong usage.\n\n"
   "Examples:\n"
   "  tessel show l2.json\n"
   "  tessel update l2.json mac 0 02:00:5e:00:53:01:00:0a 00000007\n"
   "  tessel dump l2.json mac | tessel load copy.json mac -";

struct Word {
   std::string_view name;
   std::string_view meaning;
   std::string Arguments::*place;
};

constexpr std::array<Word, 7> positionals{ {
   { "PLAN", "The agent's plan, a JSON file", &Arguments::plan },
   { "PLAN|CHUNK", "An agent's plan, or the name of a chunk with its slash", &Arguments::plan },
   { "TABLE", "The table's name in the plan", &Arguments::table },
   { "CHIP", "A number from 0 to 255", &Arguments::chip },
   { "KEY", "Hex bytes, with ':' or '.' between them as you like", &Arguments::key },
   { "RESULT", "Hex bytes, as KEY", &Arguments::result },
   { "FILE", "Lines chip,key,result; - is standard input", &Arguments::file },
} };

void addWord( CLI::App& command, std::string_view name, Arguments& arguments ) {
   for ( Word const& word : positionals ) {
      if ( word.name == name ) {
         command
            .add_option( std::string( name.substr( 0, name.find( '|' ) ) ),
                         arguments.*word.place,
                         std::string( word.meaning ) )
            ->required()
            ->type_name( "" );
      }
   }
}

void addWords( CLI::App& command, std::string_view words, Arguments& arguments ) {
   while ( !words.empty() ) {
      std::string_view const word = words.substr( 0, words.find( ' ' ) );
      words.remove_prefix( std::min( words.size(), word.size() + 1 ) );
      addWord( command, word, arguments );
   }
}

void addOptions( CLI::App& command, Arguments& arguments ) {
   std::string const name = command.get_name();
   if ( name == "load" ) {
      command.add_flag(
         "--keep-going", arguments.keepGoing, "Load the good lines beside bad ones" );
   } else if ( name == "clear" ) {
      command.add_option( "TABLE", arguments.table, "The table to clear" )->type_name( "" );
      command.add_option( "--chip", arguments.chip, "The chip to clear in every table" )
         ->type_name( "N" );
   } else if ( name == "demo" ) {
      command
         .add_option( "--data", arguments.data, "Files of the registry of MAC address blocks, CSV" )
         ->type_name( "FILE..." );
   }
}

void addVerbs( CLI::App& app, Arguments& arguments ) {
   for ( Verb const& verb : verbs ) {
      CLI::App* const command =
         app.add_subcommand( std::string( verb.name ), std::string( verb.summary ) );
      command->footer( "" );
      addWords( *command, verb.words, arguments );
      addOptions( *command, arguments );
   }
   app.require_subcommand( 1 );
}

/// What is wrong with the words, better than the parser can say it; empty when it should speak.
std::string adviceFor( std::vector<std::string_view> const& words ) {
   std::vector<std::string_view> names;
   names.reserve( verbs.size() );
   for ( Verb const& verb : verbs ) {
      names.push_back( verb.name );
   }
   auto const verb =
      std::find_if_not( words.begin(), words.end(), []( auto word ) { return word == "--json"; } );
   if ( verb == words.end() ) {
      return "a verb is missing; tessel --help lists them";
   }
   if ( verb->starts_with( '-' ) ) {
      return joined( "there is no option ", inQuotes( *verb ), " here; tessel --help lists them" );
   }
   if ( std::find( names.begin(), names.end(), *verb ) == names.end() ) {
      return joined( "there is no verb ",
                     inQuotes( *verb ),
                     "; the nearest is ",
                     nearest( *verb, names ),
                     ", tessel --help lists them" );
   }
   if ( std::find( verb, words.end(), "--json" ) != words.end() ) {
      return joined( "--json comes before the verb: tessel --json ", *verb );
   }
   return {};
}

[[noreturn]] void refuseUsage( std::vector<std::string_view> const& words,
                               CLI::App const& app,
                               CLI::ParseError const& error ) {
   std::string text = adviceFor( words );
   if ( text.empty() ) {
      auto const used = app.get_subcommands();
      std::string const verb = used.empty() ? "" : used.front()->get_name() + ' ';
      text = joined( used.empty() ? "" : used.front()->get_name() + ": ",
                     error.what(),
                     "; tessel ",
                     verb,
                     "--help says how" );
   }
   throw Failure( text, ExitStatus::usage );
}

ExitStatus runVerb( CLI::App const& app, Arguments& arguments, Context const& context ) {
   CLI::App const* const command = app.get_subcommands().front();
   arguments.hasTable = command->get_name() == "clear" && command->count( "TABLE" ) > 0;
   arguments.hasChip = command->get_name() == "clear" && command->count( "--chip" ) > 0;
   for ( Verb const& verb : verbs ) {
      if ( verb.name == command->get_name() ) {
         return verb.action( arguments, context );
      }
   }
   throw Failure( "no verb", ExitStatus::usage );
}

ExitStatus runWords( int argc, char const* const* argv, std::ostream& out ) {
   CLI::App app{ std::string( description ), "tessel" };
   bool json = false;
   Arguments arguments;
   app.footer( std::string( footer ) );
   app.add_flag( "--json", json, "Answer as one JSON document; comes before the verb" );
   addVerbs( app, arguments );
   try {
      app.parse( argc, argv );
   } catch ( CLI::CallForHelp const& ) {
      out << app.help();
      return ExitStatus::done;
   } catch ( CLI::ParseError const& error ) {
      refuseUsage( { argv + std::min( argc, 1 ), argv + argc }, app, error );
   }
   return runVerb( app, arguments, { .out = out, .err = std::cerr, .json = json } );
}

/// A chunk or a pipe opened later must not become standard output or standard error.
void occupyStandardDescriptors() {
   int opened = 0;
   do {
      opened = ::open( "/dev/null", O_RDONLY | O_CLOEXEC );
   } while ( opened >= 0 && opened <= STDERR_FILENO );
   if ( opened >= 0 ) {
      ::close( opened );
   }
}

/// Ends the process as the signal would have ended it.
int endBy( int signal ) {
   // NOLINTNEXTLINE(concurrency-mt-unsafe): the tool has one thread
   std::signal( signal, SIG_DFL );
   std::raise( signal );
   return static_cast<int>( ExitStatus::refused );
}

std::string textOf( Weft::ContractFailure const& failure ) {
   return joined( "the library refused: ",
                  failure.message(),
                  failure.message().empty() ? "" : ", ",
                  "condition ",
                  failure.condition(),
                  " failed in ",
                  failure.module() );
}

} // namespace

void printError( std::ostream& err, std::string const& text ) {
   err << "tessel: " + printable( text ) + '\n' << std::flush;
}

ExitStatus answering( std::ostream& err, std::function<ExitStatus()> const& action ) {
   try {
      return action();
   } catch ( Failure const& failure ) {
      printError( err, failure.what() );
      return failure.status();
   } catch ( Weft::ContractFailure const& failure ) {
      printError( err, textOf( failure ) );
   } catch ( std::bad_alloc const& ) {
      printError( err, "there is not enough memory for this; nothing is half written" );
   } catch ( BrokenPipe const& ) {
      throw;
   } catch ( Interrupted const& ) {
      throw;
   } catch ( std::exception const& problem ) {
      printError( err, problem.what() );
   }
   return ExitStatus::refused;
}

int run( int argc, char const* const* argv ) {
   occupyStandardDescriptors();
   Weft::onContractFailureIs( Weft::OnContractFailure::raise );
   // NOLINTNEXTLINE(concurrency-mt-unsafe): as above
   std::signal( SIGPIPE, SIG_IGN );
   std::ios::sync_with_stdio( false );
   OutputStream out( STDOUT_FILENO );
   try {
      return static_cast<int>( answering( std::cerr, [ & ] {
         ExitStatus const status = runWords( argc, argv, out );
         out.flush();
         return status;
      } ) );
   } catch ( BrokenPipe const& ) {
      return endBy( SIGPIPE );
   } catch ( Interrupted const& interrupted ) {
      return endBy( interrupted.signal() );
   }
}

} // namespace TesselTool
