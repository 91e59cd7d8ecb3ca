// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The operations that are timed, for any competitor.
///
/// A competitor C<E> holds entries E in slots of its Memory and is built over what lies there. A
/// Fixture holds one that is 90 % full; every run leaves it so. A run gives seconds per operation,
/// and throws WrongAnswer when what it saw was not what had been stored.

#include "bench/Workload.h"

#include <chrono>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>

#include <malloc.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Bench {

class WrongAnswer : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

inline void expect( bool right, char const* what ) {
   if ( !right ) {
      throw WrongAnswer( what );
   }
}

/// Seconds of several stretches.
class Stopwatch {
 public:
   template<class Work>
   void time( Work const& work ) {
      auto const start = std::chrono::steady_clock::now();
      work();
      seconds_ += std::chrono::duration<double>( std::chrono::steady_clock::now() - start ).count();
   }
   double per( U64 operations ) const { return seconds_ / static_cast<double>( operations ); }

 private:
   double seconds_ = 0;
};

template<class C, class E>
class Fixture {
 public:
   using Work = Workload<E>;
   using Table = C;
   using Step = E;

   explicit Fixture( Work const& work )
         : work_( &work ), memory_( work.slots * C::slotLength, true ), full_( rebuilt() ) {
      fill( 0, work.entries );
      expect( full_->count() == work.entries, "entries after filling" );
   }

   Work const& work() const { return *work_; }
   C& full() { return *full_; }

   /// Enough passes over the steps to take some milliseconds.
   U32 passes() const {
      constexpr U64 operations = 400'000;
      return static_cast<U32>( std::max<U64>( 1, operations / work_->steps.size() ) );
   }

   /// As one agent after another would fill the table.
   void fill( U32 first, U32 count ) {
      constexpr U32 block = 65'536;
      for ( U32 done = 0; done < count; done += block ) {
         bool held = true;
         for ( E const& entry : work_->run( first + done, std::min( block, count - done ) ) ) {
            held &= full_->set( entry );
         }
         expect( held, "a full table" );
      }
   }

   /// An empty table over the same memory, in place of the full one.
   void empty() {
      full_->clear();
      full_.reset();
      full_ = rebuilt();
   }

   /// A second table over the memory, that finds what the first one wrote.
   std::unique_ptr<C> rebuilt() { return std::make_unique<C>( work_->slots, memory_ ); }

 private:
   Work const* work_;
   typename C::Memory memory_;
   std::unique_ptr<C> full_;
};

/// Times `step( table, entry )` for every entry of `entries`.
template<class F, class Entries, class Step>
double timeSteps( F& fixture, Entries const& entries, Step const& step ) {
   Stopwatch watch;
   watch.time( [ & ] {
      for ( U32 pass = 0; pass < fixture.passes(); ++pass ) {
         for ( auto const& entry : entries ) {
            step( fixture.full(), entry );
         }
      }
   } );
   return watch.per( fixture.passes() * U64{ entries.size() } );
}

/// Has the system hold as many free pages as a table may take that were touched before: on a virtual machine
/// one that its host has to provide first costs ten times the others, and whether it has to is chance.
template<class E>
void touchFreePages( Workload<E> const& work ) {
   constexpr std::size_t mostPerSlot = 128;
   std::size_t const bytes = mostPerSlot * work.slots;
   void* const memory =
      ::mmap( nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0 );
   if ( memory == MAP_FAILED ) {
      return;
   }
   ::madvise( memory, bytes, MADV_HUGEPAGE ); // a wish
   std::memset( memory, 1, bytes );
   ::munmap( memory, bytes );
}

template<class F>
double runNew( F& fixture ) {
   auto const& work = fixture.work();
   constexpr U32 block = 65'536;
   U32 const passes = std::max<U32>( 1, 400'000 / work.entries );
   Stopwatch watch;
   // Kept, so that what a table gives back to the heap is next to what others gave back, and nothing between.
   auto entries = work.run( 0, std::min( block, work.entries ) );
   touchFreePages( work );
   for ( U32 pass = 0; pass < passes; ++pass ) {
      fixture.empty();
      for ( U32 done = 0; done < work.entries; done += block ) {
         work.runInto( entries, done, std::min( block, work.entries - done ) );
         bool held = true;
         watch.time( [ & ] {
            for ( auto const& entry : entries ) {
               held &= fixture.full().set( entry );
            }
         } );
         expect( held, "room for a new entry" );
      }
   }
   expect( fixture.full().count() == work.entries, "entries after adding" );
   return watch.per( U64{ work.entries } * passes );
}

template<class F>
double runRewrite( F& fixture ) {
   bool held = true;
   double const each =
      timeSteps( fixture, fixture.work().steps, [ & ]( auto& table, auto const& entry ) {
         held &= table.set( entry );
      } );
   expect( held && fixture.full().count() == fixture.work().entries, "entries after rewriting" );
   return each;
}

template<class F>
double runEntry( F& fixture ) {
   bool same = true;
   double const each =
      timeSteps( fixture, fixture.work().steps, [ & ]( auto& table, auto const& entry ) {
         auto result = entry.result;
         result[ 0 ] ^= 1;
         same &= table.get( entry, result ) && result == entry.result;
      } );
   expect( same, "the result that was stored" );
   return each;
}

/// Each look-up needs the result of the one before it to know what to look up.
template<class F>
double runEntryDependent( F& fixture ) {
   auto const& steps = fixture.work().steps;
   bool same = true;
   std::size_t offset = 0;
   std::size_t at = 0;
   double const each = timeSteps( fixture, steps, [ & ]( auto& table, auto const& /*entry*/ ) {
      auto const& entry = steps[ at + offset ];
      auto result = entry.result;
      same &= table.get( entry, result );
      offset = static_cast<U8>( result[ 0 ] ^ entry.result[ 0 ] );
      at = at + 1 == steps.size() ? 0 : at + 1;
   } );
   expect( same && offset == 0, "the result that was stored" );
   return each;
}

template<class F>
double runHas( F& fixture, bool present ) {
   U64 found = 0;
   auto const& steps = present ? fixture.work().steps : fixture.work().absent;
   double const each = timeSteps(
      fixture, steps, [ & ]( auto& table, auto const& entry ) { found += table.has( entry ); } );
   expect( found == ( present ? U64{ fixture.passes() } * steps.size() : 0 ), "pairs found" );
   return each;
}

template<class F>
double runDel( F& fixture ) {
   auto const& steps = fixture.work().steps;
   Stopwatch watch;
   for ( U32 pass = 0; pass < fixture.passes(); ++pass ) {
      watch.time( [ & ] {
         for ( auto const& entry : steps ) {
            fixture.full().del( entry );
         }
      } );
      expect( fixture.full().count() == fixture.work().entries - steps.size(),
              "entries after deleting" );
      for ( auto const& entry : steps ) {
         fixture.full().set( entry );
      }
   }
   return watch.per( U64{ steps.size() } * fixture.passes() );
}

/// Times `call( table, pairs )`, which must answer true for `expected` of all pairs, and puts back what
/// it did with `restore( table, pairs )`.
template<class F, class Call, class Restore>
double timeBulk( F& fixture,
                 std::vector<typename F::Step>& steps,
                 U64 expected,
                 Call const& call,
                 Restore const& restore ) {
   typename F::Table::Pairs const pairs( steps );
   Stopwatch watch;
   for ( U32 pass = 0; pass < fixture.passes(); ++pass ) {
      U64 answers = 0;
      watch.time( [ & ] { answers = call( fixture.full(), pairs ); } );
      expect( answers == expected, "answers in bulk" );
      restore( fixture.full(), pairs );
   }
   return watch.per( U64{ steps.size() } * fixture.passes() );
}

template<class F>
double runNewInBulk( F& fixture ) {
   auto const& work = fixture.work();
   auto steps = work.run( 0, work.entries );
   typename F::Table::Pairs const pairs( steps );
   touchFreePages( work );
   U32 const passes = std::max<U32>( 1, 400'000 / work.entries );
   Stopwatch watch;
   for ( U32 pass = 0; pass < passes; ++pass ) {
      fixture.empty();
      U64 added = 0;
      watch.time( [ & ] { added = fixture.full().setAll( pairs ); } );
      expect( added == work.entries, "room for new entries" );
   }
   return watch.per( U64{ work.entries } * passes );
}

template<class F>
double runRewriteInBulk( F& fixture ) {
   auto steps = fixture.work().steps;
   return timeBulk(
      fixture,
      steps,
      steps.size(),
      []( auto& table, auto const& pairs ) { return table.setAll( pairs ); },
      []( auto&, auto const& ) {} );
}

template<class F>
double runEntryInBulk( F& fixture ) {
   auto const& stored = fixture.work().steps;
   auto steps = stored;
   for ( auto& step : steps ) {
      step.result.fill( 0 );
   }
   double const each = timeBulk(
      fixture,
      steps,
      steps.size(),
      []( auto& table, auto const& pairs ) { return table.getAll( pairs ); },
      []( auto&, auto const& ) {} );
   using Step = typename F::Step;
   expect( std::ranges::equal( steps, stored, {}, &Step::result, &Step::result ),
           "the results that were stored" );
   return each;
}

template<class F>
double runHasInBulk( F& fixture, bool present ) {
   auto steps = present ? fixture.work().steps : fixture.work().absent;
   return timeBulk(
      fixture,
      steps,
      present ? steps.size() : 0,
      []( auto& table, auto const& pairs ) { return table.hasAll( pairs ); },
      []( auto&, auto const& ) {} );
}

template<class F>
double runDelInBulk( F& fixture ) {
   auto steps = fixture.work().steps;
   return timeBulk(
      fixture,
      steps,
      steps.size(),
      []( auto& table, auto const& pairs ) { return table.delAll( pairs ); },
      []( auto& table, auto const& pairs ) { table.setAll( pairs ); } );
}

/// Something of all that an entry has.
inline U64 traceOf( U8 chip, char const* key, char const* result ) {
   U32 ofKey = 0;
   U32 ofResult = 0;
   std::memcpy( &ofKey, key, sizeof ofKey );
   std::memcpy( &ofResult, result, sizeof ofResult );
   return U64{ chip } + ofKey + ofResult;
}

template<class F>
double runWalk( F& fixture ) {
   auto const& work = fixture.work();
   U32 const passes = std::max<U32>( 1, 400'000 / work.entries );
   U64 expected = 0;
   for ( U32 number = 0; number < work.entries; ++number ) {
      auto const entry = work.at( number );
      expected += traceOf( entry.pair.chip, entry.pair.key.data(), entry.result.data() );
   }
   U64 seen = 0;
   Stopwatch watch;
   watch.time( [ & ] {
      for ( U32 pass = 0; pass < passes; ++pass ) {
         fixture.full().walk( [ & ]( U8 chip, char const* key, char const* result ) {
            seen += traceOf( chip, key, result );
         } );
      }
   } );
   expect( seen == expected * passes, "entries seen" );
   return watch.per( U64{ work.entries } * passes );
}

/// `remove` takes everything out.
template<class F, class Remove>
double runRemoval( F& fixture, Remove const& remove ) {
   auto const& work = fixture.work();
   U32 const passes = std::max<U32>( 1, 100'000 / work.entries );
   Stopwatch watch;
   for ( U32 pass = 0; pass < passes; ++pass ) {
      watch.time( [ & ] { remove( fixture.full() ); } );
      expect( fixture.full().count() == 0, "entries after removing" );
      fixture.fill( 0, work.entries );
   }
   return watch.per( U64{ work.entries } * passes );
}

template<class F>
double runClear( F& fixture ) {
   return runRemoval( fixture, []( auto& table ) { table.clear(); } );
}

template<class F>
double runDeleteAll( F& fixture ) {
   U32 const chips = fixture.work().chipsPerKey;
   return runRemoval( fixture, [ & ]( auto& table ) {
      for ( U32 chip = 0; chip < chips; ++chip ) {
         table.delChip( static_cast<U8>( 3 + chip ) );
      }
   } );
}

/// Building a table over the memory of `fixture`, per slot.
template<class F>
double runConstruction( F& fixture ) {
   U32 const passes = std::max<U32>( 1, 400'000 / fixture.work().slots );
   U32 const expected = fixture.full().count();
   Stopwatch watch;
   touchFreePages( fixture.work() );
   for ( U32 pass = 0; pass < passes; ++pass ) {
      decltype( fixture.rebuilt() ) built;
      watch.time( [ & ] { built = fixture.rebuilt(); } );
      expect( built->count() == expected, "entries found" );
   }
   return watch.per( U64{ fixture.work().slots } * passes );
}

/// The same while the table is `percent` full.
template<class F>
double runConstructionAt( F& fixture, U32 percent ) {
   fixture.empty();
   fixture.fill( 0, fixture.work().slots / 100 * percent );
   double const each = runConstruction( fixture );
   fixture.empty();
   fixture.fill( 0, fixture.work().entries );
   return each;
}

/// Building a table over slots that nobody has ever touched, in seconds for all of them.
template<class C, class E>
double runConstructionUntouched( Workload<E> const& work ) {
   typename C::Memory memory( work.slots * C::slotLength, false );
   Stopwatch watch;
   watch.time( [ & ] { expect( C( work.slots, memory ).count() == 0, "no entries" ); } );
   return watch.per( 1 );
}

/// Bytes of memory of its own, the slots left out, that the process holds.
inline U64 residentBytes() {
   std::ifstream status( "/proc/self/status" );
   std::string word;
   while ( status >> word ) {
      U64 kilobytes = 0;
      if ( word == "RssAnon:" && status >> kilobytes ) {
         return kilobytes * 1024;
      }
   }
   return 0;
}

/// Bytes of process memory per entry, beside the slots. In a child of its own, whose heap no other
/// run has used. (After a fork each page costs a fault when it is next written: what is timed does not run in
/// one process with this.)
template<class C, class E>
double runMemory( Workload<E> const& work ) {
   std::array<int, 2> ends{};
   expect( ::pipe( ends.data() ) == 0, "a pipe" );
   if ( pid_t const child = ::fork(); child != 0 ) {
      ::close( ends[ 1 ] );
      double bytes = 0;
      bool const told = ::read( ends[ 0 ], &bytes, sizeof bytes ) == sizeof bytes;
      ::close( ends[ 0 ] );
      ::waitpid( child, nullptr, 0 );
      expect( told, "an answer of the child" );
      return bytes;
   }
   ::malloc_trim( 0 ); // what earlier runs gave back to the heap would seem to cost nothing
   typename C::Memory memory( work.slots * C::slotLength, true );
   U64 const before = residentBytes();
   C table( work.slots, memory );
   for ( U32 number = 0; number < work.entries; ++number ) {
      table.set( work.at( number ) );
   }
   double const bytes = static_cast<double>( residentBytes() - before ) / work.entries;
   bool const told = ::write( ends[ 1 ], &bytes, sizeof bytes ) == sizeof bytes;
   ::_exit( told ? 0 : 1 );
}

/// The same of a competitor that keeps its memory itself, and shares it with children.
template<class C, class E>
   requires requires { C::ownBytes(); }
double runMemory( Workload<E> const& work ) {
   typename C::Memory memory( work.slots * C::slotLength, true );
   U64 const before = C::ownBytes();
   C table( work.slots, memory );
   for ( U32 number = 0; number < work.entries; ++number ) {
      table.set( work.at( number ) );
   }
   return static_cast<double>( C::ownBytes() - before ) / work.entries;
}

} // namespace Bench
