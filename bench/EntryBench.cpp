// SPDX-License-Identifier: Apache-2.0

// What one operation on an exact-match table costs: 1,000,000 slots, 90 % full, keys of 16 and results
// of 8 bytes, one chip, in random order, beside the same job done by hand: a std::unordered_map from
// (chip, key) to slot, a stack of free slots, and memcpy into the same kind of memory.
//
// Every benchmark checks what it did; a wrong answer ends it with an error instead of a time.

#include "Tessel/TableManager.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <unordered_map>
#include <vector>

namespace {

using namespace Tessel;

constexpr U32 keyLength = 16;
constexpr U32 resultLength = 8;
constexpr U32 slotLength = 28;
constexpr U32 slots = 1'000'000;
constexpr U32 entries = slots / 10 * 9;
constexpr Brine::ChipId chip{ 3 };

struct Key {
   std::array<char, keyLength> bytes;
   bool operator==( Key const& ) const = default;
};

/// `entries` keys that are added, and as many that never are.
std::vector<Key> const& keys() {
   static std::vector<Key> const made = [] {
      std::mt19937_64 random( 20 );
      std::vector<Key> all( 2 * entries );
      for ( Key& key : all ) {
         std::array<U64, 2> const words{ random(), random() };
         std::memcpy( key.bytes.data(), words.data(), keyLength );
      }
      return all;
   }();
   return made;
}

std::vector<U32> const& randomOrder() {
   static std::vector<U32> const order = [] {
      std::vector<U32> all( entries );
      std::iota( all.begin(), all.end(), 0 );
      std::shuffle( all.begin(), all.end(), std::mt19937_64( 21 ) );
      return all;
   }();
   return order;
}

U64 resultFor( U32 i ) {
   return i * 0x9e3779b97f4a7c15;
}

Corvo::Ptr<Vellum::VellumChunk> touchedChunk() {
   auto chunk = Vellum::VellumChunk::inProcess( slots * slotLength );
   std::vector<char> const zeros( slotLength );
   for ( U32 slot = 0; slot < slots; ++slot ) {
      chunk->write( slot * slotLength, zeros.data(), slotLength );
   }
   return chunk;
}

/// The library.
class Shadow {
 public:
   bool set( Key const& key, U64 result ) {
      return table_->entryIs( chip, key.bytes.data(), reinterpret_cast<char const*>( &result ) );
   }
   bool get( Key const& key, U64& result ) const {
      return table_->entry( chip, key.bytes.data(), reinterpret_cast<char*>( &result ) );
   }
   bool has( Key const& key ) const { return table_->entryHas( chip, key.bytes.data() ); }
   void del( Key const& key ) { table_->entryDel( chip, key.bytes.data() ); }
   /// The table that an agent finds after its restart.
   U32 recovered() const { return made()->numUsedEntries(); }

 private:
   Corvo::Ptr<EmShadowTable> made() const {
      return emShadowTableFactory(
         "bench", emTableHelperFactory( slots, keyLength, resultLength ), chunk_, 0 );
   }

   Corvo::Ptr<Vellum::VellumChunk> chunk_ = touchedChunk();
   Corvo::Ptr<EmShadowTable> table_ = made();
};

/// The same by hand.
class ByHand {
   struct ChipKey {
      Key key;
      U8 chip;
      bool operator==( ChipKey const& ) const = default;
   };
   struct Hash {
      std::size_t operator()( ChipKey const& pair ) const {
         return std::hash<std::string_view>()( { pair.key.bytes.data(), keyLength } ) + pair.chip;
      }
   };

 public:
   ByHand() : free_( slots ) { std::iota( free_.rbegin(), free_.rend(), 0 ); }

   bool set( Key const& key, U64 result ) {
      auto const [ at, added ] = slotOf_.try_emplace( { key, chip.value() }, 0 );
      if ( added ) {
         if ( free_.empty() ) {
            slotOf_.erase( at );
            return false;
         }
         at->second = free_.back();
         free_.pop_back();
      }
      std::array<char, slotLength> image{ 1, chip.value() };
      std::memcpy( image.data() + 2, key.bytes.data(), keyLength );
      std::memcpy( image.data() + 2 + keyLength, &result, resultLength );
      std::memcpy( slot( at->second ), image.data(), slotLength );
      return true;
   }
   bool get( Key const& key, U64& result ) const {
      auto const at = slotOf_.find( { key, chip.value() } );
      if ( at == slotOf_.end() ) {
         return false;
      }
      std::memcpy( &result, slot( at->second ) + 2 + keyLength, resultLength );
      return true;
   }
   bool has( Key const& key ) const { return slotOf_.contains( { key, chip.value() } ); }
   void del( Key const& key ) {
      auto const at = slotOf_.find( { key, chip.value() } );
      std::memset( slot( at->second ), 0, slotLength );
      free_.push_back( at->second );
      slotOf_.erase( at );
   }
   U32 recovered() const {
      std::unordered_map<ChipKey, U32, Hash> found;
      for ( U32 i = 0; i < slots; ++i ) {
         if ( *slot( i ) != 0 ) {
            ChipKey pair{ {}, static_cast<U8>( slot( i )[ 1 ] ) };
            std::memcpy( pair.key.bytes.data(), slot( i ) + 2, keyLength );
            found.emplace( pair, i );
         }
      }
      return static_cast<U32>( found.size() );
   }

 private:
   char* slot( U32 index ) const { return memory_.get() + std::size_t{ index } * slotLength; }

   std::unique_ptr<char[]> memory_ = std::make_unique<char[]>( std::size_t{ slots } * slotLength );
   std::vector<U32> free_;
   std::unordered_map<ChipKey, U32, Hash> slotOf_;
};

template<class Table>
bool fill( Table& table ) {
   bool held = true;
   for ( U32 i = 0; i < entries; ++i ) {
      held &= table.set( keys()[ i ], resultFor( i ) );
   }
   return held;
}

void expect( benchmark::State& state, bool right ) {
   if ( !right ) {
      state.SkipWithError( "a wrong answer" );
   }
}

void perItem( benchmark::State& state, U64 items ) {
   state.SetItemsProcessed( state.iterations() * static_cast<std::int64_t>( items ) );
   state.counters[ "each" ] = benchmark::Counter( static_cast<double>( items ),
                                                  benchmark::Counter::kIsIterationInvariantRate |
                                                     benchmark::Counter::kInvert );
}

template<class Table>
void entryIsNew( benchmark::State& state ) {
   for ( [[maybe_unused]] auto const& _ : state ) {
      state.PauseTiming();
      auto table = std::make_unique<Table>();
      state.ResumeTiming();
      expect( state, fill( *table ) );
      state.PauseTiming();
      table.reset();
      state.ResumeTiming();
   }
   perItem( state, entries );
}

template<class Table>
void entryIsRewrite( benchmark::State& state ) {
   Table table;
   expect( state, fill( table ) );
   for ( [[maybe_unused]] auto const& _ : state ) {
      for ( U32 const i : randomOrder() ) {
         table.set( keys()[ i ], resultFor( i ) );
      }
   }
   perItem( state, entries );
}

template<class Table>
void entry( benchmark::State& state ) {
   Table table;
   expect( state, fill( table ) );
   for ( [[maybe_unused]] auto const& _ : state ) {
      U64 difference = 0;
      for ( U32 const i : randomOrder() ) {
         U64 result = 0;
         difference |= table.get( keys()[ i ], result ) ? result ^ resultFor( i ) : 1;
      }
      expect( state, difference == 0 );
   }
   perItem( state, entries );
}

template<class Table, U32 offset>
void entryHas( benchmark::State& state ) {
   Table table;
   expect( state, fill( table ) );
   for ( [[maybe_unused]] auto const& _ : state ) {
      U32 found = 0;
      for ( U32 const i : randomOrder() ) {
         found += table.has( keys()[ offset + i ] );
      }
      expect( state, found == ( offset == 0 ? entries : 0 ) );
   }
   perItem( state, entries );
}

template<class Table>
void entryDel( benchmark::State& state ) {
   for ( [[maybe_unused]] auto const& _ : state ) {
      state.PauseTiming();
      auto table = std::make_unique<Table>();
      expect( state, fill( *table ) );
      state.ResumeTiming();
      for ( U32 const i : randomOrder() ) {
         table->del( keys()[ i ] );
      }
      state.PauseTiming();
      expect( state, table->recovered() == 0 );
      table.reset();
      state.ResumeTiming();
   }
   perItem( state, entries );
}

template<class Table>
void recovery( benchmark::State& state ) {
   Table table;
   expect( state, fill( table ) );
   for ( [[maybe_unused]] auto const& _ : state ) {
      expect( state, table.recovered() == entries );
   }
   perItem( state, slots );
}

void registerBoth( char const* name,
                   void ( *shadow )( benchmark::State& ),
                   void ( *byHand )( benchmark::State& ) ) {
   for ( auto const& [ who, run ] :
         { std::pair( "tessel", shadow ), std::pair( "byHand", byHand ) } ) {
      benchmark::RegisterBenchmark( ( std::string( name ) + '/' + who ).c_str(), run )
         ->Unit( benchmark::kMillisecond )
         ->Iterations( 1 )
         ->Repetitions( 5 )
         ->ReportAggregatesOnly();
   }
}

} // namespace

int main( int argc, char** argv ) {
   registerBoth( "entryIs new", entryIsNew<Shadow>, entryIsNew<ByHand> );
   registerBoth( "entryIs rewrite", entryIsRewrite<Shadow>, entryIsRewrite<ByHand> );
   registerBoth( "entry", entry<Shadow>, entry<ByHand> );
   registerBoth( "entryHas hit", entryHas<Shadow, 0>, entryHas<ByHand, 0> );
   registerBoth( "entryHas miss", entryHas<Shadow, entries>, entryHas<ByHand, entries> );
   registerBoth( "entryDel", entryDel<Shadow>, entryDel<ByHand> );
   registerBoth( "recovery per slot", recovery<Shadow>, recovery<ByHand> );
   benchmark::Initialize( &argc, argv );
   if ( benchmark::ReportUnrecognizedArguments( argc, argv ) ) {
      return 2;
   }
   benchmark::RunSpecifiedBenchmarks();
   benchmark::Shutdown();
}
