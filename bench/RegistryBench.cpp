// SPDX-License-Identifier: Apache-2.0

// What the way by name costs: one attribute and one byte-string operation, called directly and through
// the type registry. bench/python_calls.py measures the same two from Python.

#include "Tessel/TableManager.h"
#include "Weft/TypeInfo.h"

#include <benchmark/benchmark.h>

namespace {

using namespace Tessel;

constexpr Brine::ChipId chip{ 3 };
constexpr std::string_view keyBytes( "\x02\0\0\0\0\x01", 6 );

Corvo::Ptr<ManagedTableBase> table() {
   auto const manager =
      tableManagerFactory( "bench", Vellum::VellumChunk::inProcess( 1 << 20 ), 0, 1 << 20 );
   auto made = manager->manageEmShadow( "mac", emTableHelperFactory( 4096, 6, 2 ) );
   made->entryIs_py( chip, Corvo::Bytes( keyBytes ), Corvo::Bytes( "\0\x07", 2 ) );
   return made;
}

Weft::Attribute const& attribute( std::string_view name ) {
   return *Weft::typeByName( "Tessel::ManagedTableBase" )->attribute( name );
}

void readDirectly( benchmark::State& state ) {
   auto const mac = table();
   for ( auto _ : state ) {
      benchmark::DoNotOptimize( mac->vellumOffset() );
   }
}
BENCHMARK( readDirectly );

void readByName( benchmark::State& state ) {
   auto const mac = table();
   auto const& offset = attribute( "vellumOffset" );
   U32 value = 0;
   for ( auto _ : state ) {
      offset.owner().attributeOp( &value, mac.get(), &offset, Weft::Op::read, nullptr, nullptr );
      benchmark::DoNotOptimize( value );
   }
   if ( value != mac->vellumOffset() ) {
      state.SkipWithError( "another value was read" );
   }
}
BENCHMARK( readByName );

void callDirectly( benchmark::State& state ) {
   auto const mac = table();
   Corvo::Bytes const key( keyBytes );
   Corvo::Bytes result;
   for ( auto _ : state ) {
      result = mac->entry_py( chip, key );
      benchmark::DoNotOptimize( result );
   }
   if ( result != Corvo::Bytes( "\0\x07", 2 ) ) {
      state.SkipWithError( "another result was found" );
   }
}
BENCHMARK( callDirectly );

void callByName( benchmark::State& state ) {
   auto const mac = table();
   auto const& entry = attribute( "entry_py" );
   Brine::ChipId ofChip = chip;
   Corvo::Bytes key( keyBytes );
   Corvo::Bytes result;
   void* const arguments[] = { &ofChip, &key };
   for ( auto _ : state ) {
      entry.owner().attributeOp( &result, mac.get(), &entry, Weft::Op::call, nullptr, arguments );
      benchmark::DoNotOptimize( result );
   }
   if ( result != Corvo::Bytes( "\0\x07", 2 ) ) {
      state.SkipWithError( "another result was found" );
   }
}
BENCHMARK( callByName );

} // namespace
