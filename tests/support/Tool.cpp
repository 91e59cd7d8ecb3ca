// SPDX-License-Identifier: Apache-2.0
#include "support/Tool.h"

#include "Vellum/VellumChunk.h"

#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace TestSupport {

namespace {

std::string uniqueName() {
   static int count = 0;
   return "tessel-test-" + std::to_string( ::getpid() ) + '-' + std::to_string( ++count );
}

void redirect( int descriptor, std::string const& path, int flags ) {
   int const opened = ::open( path.c_str(), flags, 0600 );
   if ( opened < 0 || ::dup2( opened, descriptor ) < 0 ) {
      ::_exit( 127 );
   }
}

} // namespace

ToolBench::ToolBench()
      : folder_( std::filesystem::temp_directory_path() / uniqueName() ),
        chunk_( '/' + uniqueName() ) {
   std::filesystem::create_directory( folder_ );
}

ToolBench::~ToolBench() {
   std::error_code none;
   std::filesystem::remove_all( folder_, none );
   try {
      Vellum::VellumChunk::remove( chunk_ );
   } catch ( std::system_error const& ) { // the test made none
      return;
   }
}

std::string ToolBench::file( std::string const& name, std::string const& contents ) const {
   std::ofstream( path( name ), std::ios::binary ) << contents;
   return path( name );
}

std::string ToolBench::plan( std::string const& tables, U64 size ) const {
   std::string const bytes = std::to_string( size );
   return R"({ "agent": "l2", "chunk": ")" + chunk_ + R"(", "size": )" + bytes +
          R"(, "startOffset": 0, "allowedSize": )" + bytes + R"(, "tables": [ )" + tables + " ] }";
}

std::string ToolBench::bytes() const {
   std::string const path = "/dev/shm" + chunk_;
   return std::filesystem::exists( path ) ? contentsOf( path ) : "(missing)";
}

Answer ToolBench::run( std::vector<std::string> const& words, std::string const& input ) const {
   return finish( start( words, input ) );
}

pid_t ToolBench::start( std::vector<std::string> const& words, std::string const& input ) const {
   file( "in", input );
   pid_t const tool = ::fork();
   if ( tool == 0 ) {
      redirect( STDIN_FILENO, path( "in" ), O_RDONLY );
      redirect( STDOUT_FILENO, path( "out" ), O_WRONLY | O_CREAT | O_TRUNC );
      redirect( STDERR_FILENO, path( "err" ), O_WRONLY | O_CREAT | O_TRUNC );
      becomeTool( words );
   }
   return tool;
}

Answer ToolBench::finish( pid_t tool ) const {
   int status = 0;
   if ( ::waitpid( tool, &status, 0 ) != tool ) {
      throw std::runtime_error( "the tool did not run" );
   }
   return { .status = WIFEXITED( status ) ? WEXITSTATUS( status ) : 128 + WTERMSIG( status ),
            .out = contentsOf( path( "out" ) ),
            .err = contentsOf( path( "err" ) ) };
}

void becomeTool( std::vector<std::string> const& words ) {
   // Tests that a shell runs in the background start with some of them ignored.
   for ( int const signal : { SIGINT, SIGQUIT, SIGHUP } ) {
      static_cast<void>( std::signal( signal, SIG_DFL ) );
   }
   std::vector<char*> arguments;
   static std::string tool = TESSEL_TOOL_PATH;
   arguments.push_back( tool.data() );
   for ( std::string const& word : words ) {
      arguments.push_back( const_cast<char*>( word.c_str() ) );
   }
   arguments.push_back( nullptr );
   ::execv( tool.c_str(), arguments.data() );
   ::_exit( 127 );
}

std::string contentsOf( std::string const& path ) {
   std::ifstream stream( path, std::ios::binary );
   return { std::istreambuf_iterator<char>( stream ), {} };
}

} // namespace TestSupport
