// SPDX-License-Identifier: Apache-2.0
// What fuzzers are let loose on for hours (`./dev torture fuzz`), here with inputs of a fixed seed.

#include "fuzz/Targets.h"
#include "support/Contract.h"
#include "support/Tables.h"

#include <gtest/gtest.h>

#include <random>

namespace {

using namespace TestSupport;

/// A good input with some bytes changed, taken out, doubled or cut off.
class Mutations {
 public:
   Mutations( std::string good, std::string alphabet )
         : good_( std::move( good ) ), alphabet_( std::move( alphabet ) ) {}

   std::string next() {
      std::string text = good_;
      for ( U32 changes = below( 6 ); changes > 0; --changes ) {
         U32 const at = below( text.size() + 1 );
         U32 const length = below( 5 ) == 0 ? below( 40 ) : below( 3 );
         switch ( below( 4 ) ) {
         case 0:
            text.replace( at, length, 1, alphabet_[ below( alphabet_.size() ) ] );
            break;
         case 1:
            text.insert( at, 1, static_cast<char>( random_() ) );
            break;
         case 2:
            text.insert( at, text.substr( below( text.size() + 1 ), length ) );
            break;
         default:
            text.erase( at, below( 20 ) == 0 ? std::string::npos : length );
         }
      }
      return text;
   }

 private:
   U32 below( std::size_t end ) { return static_cast<U32>( random_() % end ); }

   std::mt19937 random_{ 20240517 };
   std::string good_;
   std::string alphabet_;
};

void feed( void ( *target )( Fuzz::Input ), Mutations inputs, U32 rounds ) {
   RaiseContracts const raise;
   for ( U32 round = 0; round < rounds; ++round ) {
      std::string const input = inputs.next();
      target( { reinterpret_cast<U8 const*>( input.data() ), input.size() } );
   }
}

TEST( Fuzz, aChunkOfArbitraryBytesGivesTablesThatWork ) {
   auto const chunk = Vellum::VellumChunk::inProcess( 331 );
   auto const manager = Tessel::tableManagerFactory( "a", chunk, 3, 328 );
   auto const table = manager->manageEmShadow( "mac", helperOf( { .entries = 20, .key = 4 } ) );
   for ( U32 i = 0; i < 20; ++i ) { // few keys, so that pairs meet again in other slots
      std::string const key( 4, static_cast<char>( i % 7 ) );
      table->entryIs( Brine::ChipId( i % 3 == 0 ? 1 : 0 ), key.data(), "r1" );
   }
   for ( char const offset : { '\3', '\x2f' } ) { // of the frame, and of the range
      std::string const choices{ '\x14', '\4', '\2', offset, '\0', '\1', '\2', '\3' };
      feed( Fuzz::recovery, { choices + allBytes( chunk ), std::string( "\0\1\2\xff", 4 ) }, 400 );
   }
}

TEST( Fuzz, aTextThatIsNoStringFormIsRefused ) {
   for ( char type = 0; type < 10; ++type ) {
      std::string const form =
         printed( Tessel::EmTableEntry( true, chip3, keyOf( "AAAA" ), resultOf( "\1" ) ) );
      feed( Fuzz::stringForm, { type + form, "(),:\"\\x0@9 aT\n" }, 150 );
      feed( Fuzz::stringForm, { type + printed( keyOf( "A" ) ), "(),:\"\\x0@9 aT\n" }, 50 );
   }
}

TEST( Fuzz, aPlanIsSoundOrRefused ) {
   feed( Fuzz::plan,
         { R"({"agent":"l2","chunk":"/c","size":4096,"startOffset":1,"allowedSize":4000,"tables":[)"
           R"({"name":"v","kind":"direct","entries":9,"key":2,"result":2},)"
           R"({"name":"m","kind":"exact","entries":9,"key":8,"result":4}]})",
           "0123456789\"{}[],:-.e\\" },
         2000 );
}

TEST( Fuzz, linesAreEntriesOrBad ) {
   feed( Fuzz::csv,
         { std::string( "\2\1" ) + "0,0102,03\n# none\n 255 , 01:02 ,ff\r\n7,ABCD,00",
           "0123456789abcdef,:.# \r\n\t" },
         2000 );
}

} // namespace
