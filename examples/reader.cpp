// SPDX-License-Identifier: Apache-2.0

// Another process that reads the agent's table while the agent writes it. The chunk is mapped
// read-only, so nothing here can change a byte.
//
//    reader NAME     walks the table in the chunk NAME and looks every entry up

#include "Tessel/TableManager.h"

#include <iostream>

int main( int argc, char** argv ) try {
   auto const chunk =
      Vellum::VellumChunk::open( argc > 1 ? argv[ 1 ] : "", Vellum::VellumChunk::Access::readOnly );
   // The first table of a manager that starts at offset 0 lies right behind its header.
   auto const table = Tessel::emShadowTableFactory(
      "mac", Tessel::emTableHelperFactory( 4096, 4, 4 ), chunk, sizeof( Tessel::EmTableHeader ) );
   auto const reader = Tessel::emShadowTableReaderFactory( table );
   U32 walked = 0;
   U32 found = 0;
   for ( Tessel::EmTableEntry const& entry : table->entries() ) {
      ++walked;
      found += reader->entryHas( entry.chipId(), entry.key().bytes().bytesPtr() );
   }
   std::cout << walked << " walked, " << found << " found\n";
} catch ( std::exception const& error ) {
   std::cerr << "reader: " << error.what() << '\n';
   return 1;
}
