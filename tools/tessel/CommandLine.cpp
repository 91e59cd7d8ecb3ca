// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/CommandLine.h"

#include "Weft/Contract.h"
#include "tools/tessel/Completion.h"
#include "tools/tessel/Crash.h"
#include "tools/tessel/Interrupts.h"
#include "tools/tessel/Output.h"
#include "tools/tessel/Text.h"
#include "tools/tessel/VerbTable.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <iostream>
#include <memory>
#include <new>

#include <fcntl.h>
#include <unistd.h>

namespace TesselTool {

namespace {

constexpr std::string_view description =
   "Looks into and changes the tables that an agent keeps in shared memory.\n"
   "A PLAN is a JSON file that says which chunk and which tables the agent has.";

constexpr std::string_view footer =
   "Keys and results are hex bytes, with ':' or '.' between bytes as you like, or what the plan's\n"
   "keyFormat and resultFormat say: mac, ipv4, ipv6, uint.\n"
   "Exit status: 0 done; 1 something asked for was absent, refused or wrong in the data;\n"
   "2 wrong usage.\n\n"
   "Examples:\n"
   "  tessel init l2.json\n"
   "  tessel update l2.json mac 0 02:00:5e:00:53:01 7\n"
   "  tessel show l2.json\n"
   "  tessel dump l2.json mac | tessel load l2.json mac -\n"
   "  tessel map l2.json\n"
   "  tessel verify l2.json\n"
   "  tessel remove l2.json";

constexpr std::string_view helpVerb = "help";
constexpr std::string_view verbGroup = "Verbs";

constexpr std::string_view writingNote =
   "Stop the agent first: two writers of one table know nothing of each other, and entries get\n"
   "lost. A second tessel that would write to the chunk meanwhile is refused.\n\n";

/// Words as people are told of them; the parser takes no name with a '|' in it.
class HelpText : public CLI::Formatter {
 public:
   HelpText() { label( "SUBCOMMAND", "VERB" ); }

   std::string make_option_name( CLI::Option const* option, bool isWord ) const override {
      auto const all = words();
      auto const word = std::find_if( all.begin(), all.end(), [ & ]( Word const& one ) {
         return isWord && one.meaning == option->get_description();
      } );
      return word == all.end() ? CLI::Formatter::make_option_name( option, isWord )
                               : std::string( word->name );
   }
};

void addWord( CLI::App& command, Word const& word, Arguments& arguments ) {
   command
      .add_option( std::string( word.name.substr( 0, word.name.find( '|' ) ) ),
                   arguments.*word.place,
                   std::string( word.meaning ) )
      ->required()
      ->type_name( "" );
}

void addOption( CLI::App& command, Option const& option, Arguments& arguments ) {
   std::string const name( option.name );
   std::string const meaning( option.meaning );
   std::string const value( option.value );
   std::visit(
      [ & ]( auto place ) {
         using Value = std::remove_reference_t<decltype( arguments.*place )>;
         if constexpr ( std::is_same_v<Value, bool> ) {
            command.add_flag( name, arguments.*place, meaning );
         } else if constexpr ( std::is_same_v<Value, std::optional<std::string>> ) {
            auto const take = [ &arguments, place ]( std::string const& text ) {
               arguments.*place = text;
            };
            command.add_option_function<std::string>( name, take, meaning )->type_name( value );
         } else {
            command.add_option( name, arguments.*place, meaning )->type_name( value );
         }
      },
      option.place );
}

void addVerbs( CLI::App& app, Arguments& arguments ) {
   for ( Verb const& verb : verbs() ) {
      CLI::App* const command =
         app.add_subcommand( std::string( verb.name ), std::string( verb.summary ) )
            ->group( std::string( verbGroup ) );
      command->footer( joined( verb.writes ? writingNote : "", "Examples:\n", verb.examples ) );
      forEachName( verb.words,
                   [ & ]( auto name ) { addWord( *command, named( words(), name ), arguments ); } );
      forEachName( verb.options, [ & ]( auto name ) {
         addOption( *command, named( options(), name ), arguments );
      } );
   }
   app.add_subcommand( std::string( helpVerb ), "The help of a verb: tessel help VERB" )
      ->group( std::string( verbGroup ) );
   app.require_subcommand( 1 );
}

/// What is wrong with the options behind a verb; empty when nothing is.
std::string adviceForOptions( Verb const& verb, std::vector<std::string_view> const& words ) {
   std::vector<std::string_view> names{ "--help" };
   forEachName( verb.options, [ & ]( auto name ) { names.push_back( name ); } );
   for ( std::string_view const word : words ) {
      std::string_view const name = word.substr( 0, word.find( '=' ) );
      bool const known = std::find( names.begin(), names.end(), name ) != names.end();
      if ( name.starts_with( "--" ) && name.size() > 2 && !known ) {
         return joined( verb.name, " has no option ", inQuotes( name ), suggestion( name, names ) );
      }
   }
   return {};
}

/// What is wrong with the words, better than the parser can say it; empty when it should speak.
std::string adviceFor( std::vector<std::string_view> const& words ) {
   std::vector<std::string_view> names;
   for ( Verb const& verb : verbs() ) {
      names.push_back( verb.name );
   }
   names.push_back( helpVerb );
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
                     suggestion( *verb, names ),
                     ", tessel --help lists them" );
   }
   if ( std::find( verb, words.end(), "--json" ) != words.end() ) {
      return joined( "--json comes before the verb: tessel --json ", *verb );
   }
   return *verb == helpVerb ? std::string()
                            : adviceForOptions( *verbNamed( *verb ), { verb + 1, words.end() } );
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

/// `help VERB` stands for `VERB --help`.
std::vector<std::string> helpWords( std::vector<std::string> const& typed ) {
   if ( typed.size() > 2 ) {
      throw Failure( "help takes one verb; tessel --help lists them", ExitStatus::usage );
   }
   if ( typed.back() == helpVerb ) {
      return { "--help" };
   }
   if ( !typed.back().starts_with( '-' ) && !verbNamed( typed.back() ) ) {
      throw Failure( adviceFor( { typed.begin() + 1, typed.end() } ), ExitStatus::usage );
   }
   std::vector<std::string> words( typed.begin() + 1, typed.end() );
   words.emplace_back( "--help" );
   return words;
}

/// The words behind the tool's name.
std::vector<std::string> wordsTyped( int argc, char const* const* argv ) {
   std::vector<std::string> typed( argv + std::min( argc, 1 ), argv + argc );
   auto const isJson = []( std::string const& word ) { return word == "--json"; };
   auto const first = std::find_if_not( typed.begin(), typed.end(), isJson );
   if ( first == typed.end() || *first != helpVerb ) {
      return typed;
   }
   if ( std::any_of( typed.begin(), typed.end(), isJson ) ) {
      throw Failure( "help is text alone: leave --json out", ExitStatus::usage );
   }
   return helpWords( typed );
}

ExitStatus runWords( std::vector<std::string> const& typed, std::ostream& out ) {
   if ( !typed.empty() && typed.front() == completionVerb ) {
      return complete( { typed.begin() + 1, typed.end() }, out );
   }
   CLI::App app{ std::string( description ), "tessel" };
   bool json = false;
   Arguments arguments;
   app.formatter( std::make_shared<HelpText>() );
   app.footer( std::string( footer ) );
   app.set_version_flag( "--version", "tessel " TESSEL_VERSION );
   app.add_flag( "--json", json, "Answer as one JSON document; comes before the verb" );
   addVerbs( app, arguments );
   try {
      std::vector<std::string> lastFirst( typed.rbegin(), typed.rend() );
      app.parse( std::move( lastFirst ) );
   } catch ( CLI::CallForHelp const& ) {
      out << app.help();
      return ExitStatus::done;
   } catch ( CLI::CallForVersion const& version ) {
      out << version.what() << '\n';
      return ExitStatus::done;
   } catch ( CLI::ParseError const& error ) {
      refuseUsage( { typed.begin(), typed.end() }, app, error );
   }
   Verb const* const verb = verbNamed( app.get_subcommands().front()->get_name() );
   if ( !verb ) { // help, behind a word that says no more
      out << app.help();
      return ExitStatus::done;
   }
   return verb->action( arguments, { .out = out, .err = std::cerr, .json = json } );
}

/// A chunk or a pipe opened later must not become standard output or standard error.
void occupyStandardDescriptors() {
   if ( ::fcntl( STDIN_FILENO, F_GETFD ) < 0 ) { // to be read from it is an error, not an end
      ::open( "/dev/null", O_WRONLY | O_CLOEXEC );
   }
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
   answerCutChunks();
   std::ios::sync_with_stdio( false );
   OutputStream out( STDOUT_FILENO );
   try {
      return static_cast<int>( answering( std::cerr, [ & ] {
         ExitStatus const status = runWords( wordsTyped( argc, argv ), out );
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
