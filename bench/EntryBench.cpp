// SPDX-License-Identifier: Apache-2.0

// What one operation on an exact-match table costs, beside peers that do the same whole job: find the
// slot of (chip, key), keep the free slots, write the image. Names of benchmarks are
//
//    OPERATION/COMPETITOR/GEOMETRY/chips:CHIPS/slots:SLOTS
//
// Times are per operation, measured around loops of them; every loop checks what it did. Rounds of
// all benchmarks that run together are interleaved, so that whatever else the machine does falls on
// all of them. One configuration at a time keeps a table of each competitor in memory.

#include "bench/ByHand.h"
#include "bench/Lmdb.h"
#include "bench/Runs.h"
#include "bench/Shadow.h"
#ifdef BENCH_RTE_HASH
#include "bench/RteHash.h"
#endif

#include <benchmark/benchmark.h>

#include <map>

namespace Bench {

namespace {

/// What has been built for the configuration under way; dropped when another one begins.
class Stage {
 public:
   template<class E>
   Workload<E> const& workload( U32 slots, U32 chips ) {
      return built<Workload<E>>(
         slots, chips, [ & ] { return std::make_shared<Workload<E>>( slots, chips ); } );
   }
   /// All of the workload's entries are in.
   template<class C, class E>
   Fixture<C, E>& fixture( U32 slots, U32 chips ) {
      return built<Fixture<C, E>>( slots, chips, [ & ] {
         return std::make_shared<Fixture<C, E>>( workload<E>( slots, chips ) );
      } );
   }

 private:
   template<class T, class Make>
   T& built( U32 slots, U32 chips, Make const& make ) {
      if ( slots != slots_ || chips != chips_ ) {
         things_.clear();
         slots_ = slots;
         chips_ = chips;
      }
      static char const key = 0;
      auto& thing = things_[ &key ];
      if ( !thing ) {
         auto made = make();
         // Making it may have made others.
         things_[ &key ] = made;
         return *made;
      }
      return *static_cast<T*>( thing.get() );
   }

   U32 slots_ = 0;
   U32 chips_ = 0;
   std::map<void const*, std::shared_ptr<void>> things_;
};

Stage& stage() {
   static Stage theStage;
   return theStage;
}

/// Runs once; `seconds()` gives what it took.
template<class Seconds>
void measure( benchmark::State& state, Seconds const& seconds ) {
   for ( [[maybe_unused]] auto const& _ : state ) {
      try {
         state.SetIterationTime( seconds() );
      } catch ( std::exception const& error ) {
         state.SkipWithError( error.what() );
      }
   }
}

struct Config {
   std::string geometry;
   U32 chips;
   U32 slots;
};

template<class Seconds>
void enter( Config const& config,
            char const* operation,
            std::string const& who,
            Seconds const& seconds ) {
   std::string const name = std::string( operation ) + '/' + who + '/' + config.geometry +
                            "/chips:" + std::to_string( config.chips ) +
                            "/slots:" + std::to_string( config.slots );
   benchmark::RegisterBenchmark(
      name.c_str(), [ seconds ]( benchmark::State& state ) { measure( state, seconds ); } )
      ->Iterations( 1 )
      ->UseManualTime();
}

template<class C, class E>
class Entered {
 public:
   explicit Entered( Config const& config, char const* manner = "" )
         : config_( config ), who_( std::string( C::name ) + manner ) {}

   template<class Run>
   void operator()( char const* operation, Run const& run ) const {
      enter( config_, operation, who_, [ config = config_, run ] {
         return run( stage().template fixture<C, E>( config.slots, config.chips ) );
      } );
   }

 private:
   Config config_;
   std::string who_;
};

constexpr char const* inBulk = " in bulk";

/// What every competitor can do.
template<class C, class E>
void enterCommon( Config const& config ) {
   Entered<C, E> const add( config );
   add( "entryIs new", []( auto& fixture ) { return runNew( fixture ); } );
   add( "entryIs rewrite", []( auto& fixture ) { return runRewrite( fixture ); } );
   add( "entry", []( auto& fixture ) { return runEntry( fixture ); } );
   add( "entry dependent", []( auto& fixture ) { return runEntryDependent( fixture ); } );
   add( "entryHas hit", []( auto& fixture ) { return runHas( fixture, true ); } );
   add( "entryHas miss", []( auto& fixture ) { return runHas( fixture, false ); } );
   add( "entryDel", []( auto& fixture ) { return runDel( fixture ); } );
}

/// What those can do that keep images in slots.
template<class C, class E>
void enterSlots( Config const& config ) {
   Entered<C, E> const add( config );
   enterCommon<C, E>( config );
   add( "clearTable", []( auto& fixture ) { return runClear( fixture ); } );
   add( "walk", []( auto& fixture ) { return runWalk( fixture ); } );
   add( "deleteAll", []( auto& fixture ) { return runDeleteAll( fixture ); } );
   add( "construction 90 %", []( auto& fixture ) { return runConstruction( fixture ); } );
   add( "construction 10 %", []( auto& fixture ) { return runConstructionAt( fixture, 10 ); } );
   add( "construction empty", []( auto& fixture ) { return runConstructionAt( fixture, 0 ); } );
   enter( config, "construction untouched", C::name, [ config ] {
      return runConstructionUntouched<C>( stage().workload<E>( config.slots, config.chips ) );
   } );
   enter( config, "memory", C::name, [ config ] {
      return runMemory<C>( stage().workload<E>( config.slots, config.chips ) ) * 1e-9;
   } );
}

/// Under a name of their own, beside the single calls of all.
template<class C, class E>
void enterBulkLookUps( Config const& config ) {
   Entered<C, E> const add( config, inBulk );
   add( "entry", []( auto& fixture ) { return runEntryInBulk( fixture ); } );
   add( "entryHas hit", []( auto& fixture ) { return runHasInBulk( fixture, true ); } );
   add( "entryHas miss", []( auto& fixture ) { return runHasInBulk( fixture, false ); } );
}

/// What the library alone can do.
template<class C, class E>
void enterBulkChanges( Config const& config ) {
   Entered<C, E> const add( config, inBulk );
   add( "entryIs new", []( auto& fixture ) { return runNewInBulk( fixture ); } );
   add( "entryIs rewrite", []( auto& fixture ) { return runRewriteInBulk( fixture ); } );
   add( "entryDel", []( auto& fixture ) { return runDelInBulk( fixture ); } );
}

template<class E>
void enterAll( U32 chips, U32 slots ) {
   Config const config{ .geometry = "K" + std::to_string( E::keyLength ) + "R" +
                                    std::to_string( E::resultLength ),
                        .chips = chips,
                        .slots = slots };
   enterSlots<Shadow<E>, E>( config );
   enterBulkLookUps<Shadow<E>, E>( config );
   enterBulkChanges<Shadow<E>, E>( config );
   enterSlots<OnBoost<E>, E>( config );
   enterCommon<CarefulOnBoost<E>, E>( config );
   enterSlots<OnAbsl<E>, E>( config );
   enterSlots<OnStd<E>, E>( config );
#ifdef BENCH_RTE_HASH
   enterSlots<RteHash<E>, E>( config );
   enterBulkLookUps<RteHash<E>, E>( config );
#endif
   if ( slots <= 1'000'000 ) { // some microseconds each
      enterCommon<Lmdb<E>, E>( config );
   }
}

} // namespace

} // namespace Bench

int main( int argc, char** argv ) {
   using namespace Bench;
   for ( U32 const slots : { 1'000, 64'000, 1'000'000, 8'000'000 } ) {
      enterAll<Entry<16, 8>>( 1, slots );
      enterAll<Entry<6, 4>>( 1, slots );
      enterAll<Entry<16, 8>>( 4, slots );
   }
   benchmark::Initialize( &argc, argv );
   if ( benchmark::ReportUnrecognizedArguments( argc, argv ) ) {
      return 2;
   }
   benchmark::RunSpecifiedBenchmarks();
   benchmark::Shutdown();
}
