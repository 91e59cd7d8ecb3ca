// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/Inspection.h"
#include "tools/tessel/Json.h"
#include "tools/tessel/Tables.h"
#include "tools/tessel/Text.h"
#include "tools/tessel/Verify.h"

#include <algorithm>
#include <ostream>

namespace TesselTool {

namespace {

/// How many tables there are, and what of them was looked at.
struct Looks {
   std::size_t tables = 0;
   std::size_t unseen = 0;    ///< tables of which the frame alone was looked at
   std::size_t missed = 0;    ///< those among them that were asked for
   std::string_view unframed; ///< what a chunk without any frame holds

   void add( bool wanted, bool seen ) {
      ++tables;
      unseen += seen ? 0 : 1;
      missed += wanted && !seen ? 1 : 0;
   }
};

/// Where there is no problem.
std::string verdictOf( Looks const& looks ) {
   if ( !looks.unframed.empty() ) {
      return joined( ": nothing to check, ", looks.unframed );
   }
   std::string const seen =
      looks.unseen == 0 ? "" : joined( ", of ", looks.unseen, " the frame alone was looked at" );
   return joined( " is sound: ", counted( looks.tables, "table", "tables" ), seen );
}

/// Prints problems as they come: there may be as many as slots.
class Findings {
 public:
   Findings( Context const& context, std::string chunk )
         : context_( context ), chunk_( std::move( chunk ) ) {}

   /// Problems to be printed where their offsets belong among those that are added.
   void framesAre( std::vector<FrameProblem> problems ) {
      frames_ = std::move( problems );
      std::stable_sort( frames_.begin(), frames_.end(), []( auto const& a, auto const& b ) {
         return a.offset > b.offset;
      } );
   }

   void add( FrameProblem const& found ) {
      printFramesTo( found.offset );
      print( found );
   }

   ExitStatus end( Looks const& looks ) {
      printFramesTo( ~U64{ 0 } );
      if ( context_.json ) {
         context_.out << ( count_ == 0 ? R"({"clean":true,"problems":[])" : "]" )
                      << ",\"slotsChecked\":" << ( looks.missed == 0 ? "true" : "false" ) << "}\n";
      } else if ( count_ == 0 ) {
         context_.out << "chunk " << printable( chunk_ ) << verdictOf( looks ) << '\n';
      } else {
         context_.out << counted( count_, "problem", "problems" ) << " in chunk "
                      << printable( chunk_ ) << '\n';
      }
      return count_ == 0 ? ExitStatus::done : ExitStatus::refused;
   }

 private:
   void print( FrameProblem const& found ) {
      if ( context_.json ) {
         context_.out << ( count_ == 0 ? "{\"clean\":false,\"problems\":[\n" : ",\n" )
                      << JsonObject()
                            .number( "offset", found.offset )
                            .text( "table", found.table )
                            .text( "problem", found.problem )
                            .text();
      } else {
         context_.out << printable( chunk_ ) << " offset " << found.offset
                      << ( found.table.empty() ? "" : ", table " + inQuotes( found.table ) ) << ": "
                      << printable( found.problem ) << '\n';
      }
      ++count_;
   }
   void printFramesTo( U64 offset ) {
      for ( ; !frames_.empty() && frames_.back().offset <= offset; frames_.pop_back() ) {
         print( frames_.back() );
      }
   }

   Context const& context_;
   std::string chunk_;
   std::vector<FrameProblem> frames_{}; ///< not printed yet, the last ones first
   U64 count_ = 0;
};

void addSlots( Findings& findings, Vellum::VellumChunk const& chunk, PlannedTable const& table ) {
   verifySlots( chunk, table, [ & ]( FrameProblem const& found ) { findings.add( found ); } );
}

/// Whether the table's slots are to be looked at.
bool isWanted( Arguments const& arguments, PlannedTable const& table ) {
   return !arguments.someTable || *arguments.someTable == table.name;
}

/// Lengths that no table can have would look at nothing and find nothing.
void checkLengths( Inspection const& inspection ) {
   auto const& all = inspection.tables;
   U32 const size = inspection.chunk->size();
   bool const fits =
      std::any_of( all.begin(), all.end(), []( auto const& table ) { return table.hasSlots; } );
   bool const within = std::any_of( all.begin(), all.end(), [ & ]( auto const& inspected ) {
      return U64{ inspected.table.offset } + inspected.table.shadowSize <= size;
   } );
   if ( within && !fits ) {
      throw Failure( joined( "chunk ",
                             inQuotes( inspection.chunk->name() ),
                             " has no such table made of slots for such keys and results: give "
                             "other lengths" ) );
   }
}

ExitStatus verifyChunk( Arguments const& arguments, Context const& context ) {
   auto const lengths = lengthsIn( arguments );
   Inspection const inspection = inspect( arguments ); // which has the table that is asked for
   if ( lengths ) {
      checkLengths( inspection );
   }
   auto const& chunk = inspection.chunk;
   std::vector<Frame> const frames = findFrames( *chunk );
   Findings findings( context, arguments.plan );
   findings.framesAre( problemsOf( *chunk, frames ) );
   Looks looks{ .unframed = frames.empty() ? unframedText( *chunk ) : "" };
   for ( Frame const& frame : frames ) {
      InspectedTable const table = tableOf( frame, lengths, chunk->size() );
      bool const wanted = isWanted( arguments, table.table );
      looks.add( wanted, wanted && table.hasSlots );
      if ( wanted && table.hasSlots ) {
         addSlots( findings, *chunk, table.table );
      }
   }
   return findings.end( looks );
}

/// Tables whose own header stands where the plan has it: only their slots are worth a look.
bool isFramed( std::vector<Frame> const& frames, PlannedTable const& table ) {
   return std::any_of( frames.begin(), frames.end(), [ & ]( Frame const& frame ) {
      return frame.offset == table.offset && frame.shadowSize == table.shadowSize;
   } );
}

ExitStatus verifyPlan( Arguments const& arguments, Context const& context ) {
   Plan const plan = readPlan( arguments.plan );
   if ( arguments.someTable ) {
      plannedTable( plan, *arguments.someTable );
   }
   auto const chunk = openForReading( plan.chunk );
   std::vector<Frame> const frames = findFrames( *chunk );
   Findings findings( context, plan.chunk );
   if ( chunk->size() != plan.size ) {
      findings.add(
         { 0,
           "",
           joined( "the chunk has ", chunk->size(), " bytes, the plan says ", plan.size ) } );
   }
   auto problems = problemsOf( *chunk, frames );
   auto const more = problemsWith( *chunk, frames, plan );
   problems.insert( problems.end(), more.begin(), more.end() );
   findings.framesAre( std::move( problems ) );
   Looks looks;
   for ( PlannedTable const& table : plan.tables ) { // in the order of their offsets
      U64 const end = U64{ table.offset } + table.shadowSize;
      bool const there = end <= chunk->size() && isFramed( frames, table );
      bool const wanted = isWanted( arguments, table );
      bool const exact = table.kind == TableKind::exact;
      looks.add( wanted, !exact || ( wanted && there ) );
      if ( exact && wanted && there ) {
         addSlots( findings, *chunk, table );
      }
   }
   return findings.end( looks );
}

} // namespace

ExitStatus verify( Arguments const& arguments, Context const& context ) {
   if ( namesChunk( arguments.plan ) ) {
      return verifyChunk( arguments, context );
   }
   if ( arguments.keyLength || arguments.resultLength ) {
      throw Failure( "--key and --result are for a chunk: the plan says its tables' lengths",
                     ExitStatus::usage );
   }
   return verifyPlan( arguments, context );
}

} // namespace TesselTool
