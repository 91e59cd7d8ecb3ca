// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/DemoProcess.h"
#include "tools/tessel/DemoReport.h"
#include "tools/tessel/DemoScript.h"
#include "tools/tessel/Frames.h"
#include "tools/tessel/Interrupts.h"
#include "tools/tessel/Tables.h"
#include "tools/tessel/Text.h"
#include "tools/tessel/Verbs.h"

#include <algorithm>
#include <iterator>
#include <system_error>

#include <unistd.h>

namespace TesselTool {

namespace {

using Tessel::EmShadowTable;
using Tessel::EmShadowTableReader;
using Tessel::TableManager;
using Vellum::VellumChunk;
using Operations = std::span<DemoOperation const>;

constexpr Brine::ChipId lostChip( 2 );

bool hasEntries( PlannedTable const& table ) {
   return table.kind == TableKind::exact;
}

/// The tables of the demo as a reader sees them.
class Readers {
 public:
   explicit Readers( std::vector<Corvo::Ptr<EmShadowTable>> tables )
         : tables_( std::move( tables ) ) {
      for ( auto const& table : tables_ ) {
         readers_.push_back( table ? Tessel::emShadowTableReaderFactory( table ) : nullptr );
      }
   }

   /// The entry's result, zero bytes of length when there is none.
   Corvo::Bytes resultOf( EntryName const& entry ) const {
      return readers_[ static_cast<std::size_t>( entry.table ) ]->entry_py(
         Brine::ChipId( entry.chip ), entry.key );
   }
   bool has( EntryName const& entry ) const { return !resultOf( entry ).empty(); }

   EmShadowTable const& table( DemoTable table ) const {
      return *tables_[ static_cast<std::size_t>( table ) ];
   }
   U64 used() const {
      U64 used = 0;
      for ( auto const& table : tables_ ) {
         used += table ? table->numUsedEntries() : 0;
      }
      return used;
   }

   /// How many of the entries are there with their results.
   U64 held( Entries const& entries ) const {
      auto const isHeld = [ & ]( auto const& entry ) {
         return resultOf( entry.first ) == entry.second;
      };
      return static_cast<U64>( std::count_if( entries.begin(), entries.end(), isHeld ) );
   }

 private:
   std::vector<Corvo::Ptr<EmShadowTable>> tables_;
   std::vector<Corvo::Ptr<EmShadowTableReader>> readers_;
};

Readers readersOf( TableManager const& manager, Plan const& plan ) {
   std::vector<Corvo::Ptr<EmShadowTable>> tables;
   for ( PlannedTable const& table : plan.tables ) {
      tables.push_back( Corvo::dynamicPtr<EmShadowTable>( manager.managedTable( table.name ) ) );
   }
   return Readers( std::move( tables ) );
}

Readers readersOver( Corvo::Ptr<VellumChunk> const& chunk, Plan const& plan ) {
   std::vector<Corvo::Ptr<EmShadowTable>> tables;
   for ( PlannedTable const& table : plan.tables ) {
      tables.push_back( hasEntries( table ) ? tableForReading( chunk, table ) : nullptr );
   }
   return Readers( std::move( tables ) );
}

/// A chunk of a new name that goes with this object, whatever happens.
class OwnChunk {
 public:
   explicit OwnChunk( Plan const& plan ) : name_( plan.chunk ) {
      VellumChunk::create( name_, plan.size );
   }
   OwnChunk( OwnChunk const& ) = delete;
   OwnChunk& operator=( OwnChunk const& ) = delete;
   ~OwnChunk() {
      try {
         VellumChunk::remove( name_ );
      } catch ( std::system_error const& ) { // somebody else has removed it
         return;
      }
   }

 private:
   std::string name_;
};

/// An agent: opens the chunk by name and repeats its manage calls.
class Agent {
 public:
   explicit Agent( Plan const& plan )
         : plan_( plan ), manager_( openForWriting( plan, IfMissing::refuse ) ) {}

   void carryOut( DemoOperation const& operation ) {
      EntryName const& entry = operation.entry;
      auto const& table = plan_.tables[ static_cast<std::size_t>( entry.table ) ];
      bool const held = manager_->managedTable( table.name )
                           ->entryIs_py( Brine::ChipId( entry.chip ), entry.key, operation.result );
      if ( !held ) {
         throw Failure( joined( "table ", inQuotes( table.name ), " is full" ) );
      }
   }
   void removeChip( Brine::ChipId chip ) { manager_->deleteAll( chip ); }
   Readers readers() const { return readersOf( *manager_, plan_ ); }

 private:
   Plan const& plan_;
   WritingManager manager_;
};

class Demo {
 public:
   Demo( std::vector<std::string> files, Context const& context )
         : files_( std::move( files ) ), report_( context.out, styleOfTerminal(), context.json ) {}

   ExitStatus run() {
      try {
         return tell();
      } catch ( Failure const& failure ) {
         report_.failed( failure.what() );
         throw;
      }
   }

 private:
   ExitStatus tell() {
      report_.title( "An agent keeps its tables in shared memory. It is killed. What is lost?" );
      readData();
      checkSize();
      bool good = false;
      {
         CatchInterrupts const catching;
         OwnChunk const chunk( plan_ );
         describeChunk();
         U32 const acknowledged = runFirstAgent( catching );
         good = runSecondAgent( catching, acknowledged );
         good = readAsThird() && good;
      }
      report_.verdict( good && report_.allHeld(), verdict( good && report_.allHeld() ) );
      return good && report_.allHeld() ? ExitStatus::done : ExitStatus::refused;
   }
   void readData();
   void checkSize() const;
   void describeChunk();
   U32 runFirstAgent( CatchInterrupts const& catching );
   void load( NumberPipe& acknowledgements ) const;
   bool runSecondAgent( CatchInterrupts const& catching, U32 acknowledged );
   void recover( U32 acknowledged );
   void proveRecovered( Readers const& readers, U32 acknowledged );
   void finish( Agent& agent, U32 acknowledged );
   void loseChip( Agent& agent );
   bool readAsThird();
   void showChips( Readers const& readers );
   Entries survivors() const;
   static std::string verdict( bool good );
   Operations operations() const { return operations_; }

   std::vector<std::string> files_;
   DemoReport report_;
   MacRegistry registry_;
   std::vector<DemoOperation> operations_;
   Plan plan_;
};

void Demo::readData() {
   report_.step( 1, "Reads the public registry of MAC address blocks" );
   Stopwatch const watch;
   registry_ = readMacRegistry( files_ );
   operations_ = operationsFor( registry_ );
   plan_ = planFor( registry_, operations_, joined( "/tessel-demo-", ::getpid() ) );
   report_.line( joined( counted( registry_.blocks.size(), "block", "blocks" ),
                         " of ",
                         counted( registry_.organisations.size(), "organisation", "organisations" ),
                         " from ",
                         counted( files_.size(), "file", "files" ),
                         ", in ",
                         watch.text() ) );
}

/// The agent has to be in the middle when the kill comes, however slowly its killer is scheduled.
void Demo::checkSize() const {
   U64 const fewest = U64{ 4 } * NumberPipe().capacity();
   if ( operations_.size() < fewest ) {
      throw Failure( joined( "the data makes ",
                             counted( operations_.size(), "operation", "operations" ),
                             ", but a kill is sure to come in the middle of ",
                             fewest,
                             " or more: give more files with --data" ) );
   }
}

void Demo::describeChunk() {
   report_.step(
      2, joined( "Creates the chunk ", plan_.chunk, ", ", grouped( plan_.size ), " bytes" ) );
   for ( PlannedTable const& table : plan_.tables ) {
      std::string name = table.name;
      name.resize( 11, ' ' );
      report_.line( joined( name,
                            nameOf( table.kind ),
                            table.kind == TableKind::exact ? "   " : "  ",
                            counted( table.entries, "entry", "entries" ),
                            ", key ",
                            counted( table.key, "byte", "bytes" ),
                            ", result ",
                            counted( table.result, "byte", "bytes" ),
                            hasEntries( table ) ? "" : ": keeps none in the chunk" ) );
   }
}

void Demo::load( NumberPipe& acknowledgements ) const {
   Agent agent( plan_ );
   for ( U32 done = 0; done < operations_.size(); ++done ) {
      agent.carryOut( operations_[ done ] );
      acknowledgements.write( done + 1 );
   }
}

/// How many operations were acknowledged when the agent died.
U32 Demo::runFirstAgent( CatchInterrupts const& catching ) {
   auto const half = static_cast<U32>( operations_.size() / 2 );
   report_.step( 3,
                 joined( "An agent loads them: ",
                         counted( operations_.size(), "operation", "operations" ),
                         ", each acknowledged when it is done" ) );
   NumberPipe acknowledgements;
   Stopwatch const watch;
   ChildProcess agent( [ & ] {
      catching.restore();
      acknowledgements.writerOnly();
      load( acknowledgements );
      return ExitStatus::done;
   } );
   acknowledgements.readerOnly();
   U32 acknowledged = 0;
   while ( acknowledged < half ) {
      auto const next = acknowledgements.read();
      if ( !next ) {
         throw Failure( "the agent ended before it could be killed" );
      }
      acknowledged = *next;
   }
   std::string const rate = watch.rateOf( acknowledged );
   bool const killed = agent.kill();
   while ( auto const next = acknowledgements.read() ) {
      acknowledged = *next;
   }
   report_.line( joined( "process ", agent.id(), " acknowledges ", rate, " operations a second" ) );
   report_.proof( killed && acknowledged < operations_.size(),
                  joined( "killed with SIGKILL in the middle: ",
                          grouped( acknowledged ),
                          " operations were acknowledged" ) );
   return acknowledged;
}

bool Demo::runSecondAgent( CatchInterrupts const& catching, U32 acknowledged ) {
   report_.flush();
   ChildProcess agent( [ & ] {
      catching.restore();
      recover( acknowledged );
      report_.flush();
      return report_.allHeld() ? ExitStatus::done : ExitStatus::refused;
   } );
   return agent.succeeded();
}

/// The life of the second agent.
void Demo::recover( U32 acknowledged ) {
   report_.step( 4,
                 joined( "A new agent, process ",
                         ::getpid(),
                         ", opens the same chunk and repeats the manage calls" ) );
   Stopwatch const watch;
   Agent agent( plan_ );
   std::string const time = watch.text();
   Readers const readers = agent.readers();
   report_.line( joined( grouped( readers.used() ), " entries are back after ", time ) );
   proveRecovered( readers, acknowledged );
   finish( agent, acknowledged );
   loseChip( agent );
}

void Demo::proveRecovered( Readers const& readers, U32 acknowledged ) {
   Entries entries = entriesAfter( operations().first( acknowledged ) );
   // The operation that was in flight may have been carried out without being acknowledged.
   DemoOperation const& inFlight = operations_[ acknowledged ];
   bool const carriedOut = readers.resultOf( inFlight.entry ) == inFlight.result;
   if ( carriedOut ) {
      entries.insert_or_assign( inFlight.entry, inFlight.result );
   }
   report_.proof( readers.held( entries ) == entries.size(),
                  joined( "every acknowledged operation is there, by ",
                          counted( entries.size(), "lookup", "lookups" ) ) );
   report_.proof( readers.used() == entries.size(), "and nothing else is" );
   report_.line(
      joined( "the one operation in flight was ",
              carriedOut ? "carried out, though not acknowledged" : "not carried out" ) );
}

void Demo::finish( Agent& agent, U32 acknowledged ) {
   Operations const rest = operations().subspan( acknowledged );
   report_.step(
      5, joined( "It finishes the load: ", counted( rest.size(), "operation", "operations" ) ) );
   Stopwatch const watch;
   for ( DemoOperation const& operation : rest ) {
      agent.carryOut( operation );
   }
   report_.line(
      joined( watch.text(), ", ", watch.rateOf( rest.size() ), " operations a second" ) );
   Readers const readers = agent.readers();
   Entries const entries = entriesAfter( operations() );
   report_.proof(
      readers.held( entries ) == entries.size() && readers.used() == entries.size(),
      joined( "all ", counted( entries.size(), "entry is", "entries are" ), " there" ) );
   showChips( readers );
}

void Demo::loseChip( Agent& agent ) {
   report_.step( 6, joined( "Chip ", lostChip, " is pulled: it goes from every table at once" ) );
   U64 const before = agent.readers().used();
   Stopwatch const watch;
   agent.removeChip( lostChip );
   std::string const time = watch.text();
   Readers const readers = agent.readers();
   report_.line( joined( grouped( before - readers.used() ), " entries removed in ", time ) );
   Entries const left = survivors();
   report_.proof(
      readers.held( left ) == left.size(),
      joined( "the other chips have all their ", counted( left.size(), "entry", "entries" ) ) );
   bool const gone = std::none_of( operations_.begin(), operations_.end(), [ & ]( auto const& o ) {
      return o.entry.chip == lostChip.value() && readers.has( o.entry );
   } );
   report_.proof( gone && readers.used() == left.size(),
                  joined( "nothing of chip ", lostChip, " remains" ) );
   showChips( readers );
}

/// Whether a process that never wrote finds what the agents left; both are gone.
bool Demo::readAsThird() {
   report_.step( 7, "Both agents are gone. A third process looks, without the right to write" );
   auto const chunk = openForReading( plan_.chunk );
   for ( Frame const& frame : findFrames( *chunk ) ) {
      report_.proof(
         frame.intact,
         joined(
            "finds table ", inQuotes( frame.name ), " by its bytes, at offset ", frame.offset ) );
   }
   Entries const left = survivors();
   Stopwatch const watch;
   Readers const readers = readersOver( chunk, plan_ );
   bool const same = readers.held( left ) == left.size() && readers.used() == left.size();
   report_.proof(
      same,
      joined(
         "finds the same ", counted( left.size(), "entry", "entries" ), ", in ", watch.text() ) );
   return same;
}

void Demo::showChips( Readers const& readers ) {
   auto const& table = readers.table( DemoTable::macBlock );
   auto const& planned = plan_.tables[ static_cast<std::size_t>( DemoTable::macBlock ) ];
   report_.barLine( joined( planned.name, ' ' ), table.numUsedEntries(), planned.entries );
   for ( U8 chip = 0; chip < demoChips; ++chip ) {
      report_.barLine( joined( "    chip ", U32{ chip } ),
                       table.numUsedEntriesByChipId( Brine::ChipId( chip ) ),
                       planned.entries / 2 );
   }
}

/// The entries of a finished load without the lost chip's.
Entries Demo::survivors() const {
   Entries entries = entriesAfter( operations() );
   std::erase_if( entries, []( auto const& e ) { return e.first.chip == lostChip.value(); } );
   return entries;
}

std::string Demo::verdict( bool good ) {
   return good ? "Nothing that was acknowledged was lost, and the chunk is removed again."
               : "Something was lost: see what does NOT hold above. The chunk is removed again.";
}

} // namespace

ExitStatus demo( Arguments const& arguments, Context const& context ) {
   auto const files = arguments.data.empty() ? installedRegistryFiles() : arguments.data;
   return Demo( files, context ).run();
}

} // namespace TesselTool
