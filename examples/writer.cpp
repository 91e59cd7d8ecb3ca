// SPDX-License-Identifier: Apache-2.0

// An agent that keeps a table of MAC addresses in shared memory. Run again over the same chunk, it
// finds the entries of the run before and goes on where that one stopped.
//
//    writer NAME COUNT     adds COUNT entries to the chunk NAME ("/example") and prints how many it has

#include "Tessel/TableManager.h"

#include <iostream>

namespace {

constexpr U32 chunkSize = 1 << 20;

Corvo::Ptr<Vellum::VellumChunk> chunkOf( Corvo::String const& name ) {
   try {
      return Vellum::VellumChunk::create( name, chunkSize );
   } catch ( std::system_error const& ) {
      return Vellum::VellumChunk::open( name ); // the chunk of the run before
   }
}

} // namespace

int main( int argc, char** argv ) try {
   auto const manager =
      Tessel::tableManagerFactory( "example", chunkOf( argc > 1 ? argv[ 1 ] : "" ), 0, chunkSize );
   auto const table = Corvo::dynamicPtr<Tessel::EmShadowTable>(
      manager->manageEmShadow( "mac", Tessel::emTableHelperFactory( 4096, 4, 4 ) ) );
   U32 const before = table->numUsedEntries();
   for ( U32 i = before; i < before + std::stoul( argc > 2 ? argv[ 2 ] : "1" ); ++i ) {
      auto const* const bytes = reinterpret_cast<char const*>( &i );
      table->entryIs( Brine::ChipId( static_cast<U8>( i % 4 ) ), bytes, bytes );
   }
   std::cout << before << " found, " << table->numUsedEntries() << " now\n";
} catch ( std::exception const& error ) {
   std::cerr << "writer: " << error.what() << '\n';
   return 1;
}
