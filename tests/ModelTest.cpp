// SPDX-License-Identifier: Apache-2.0
#include "support/Tables.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace {

using namespace TestSupport;
using namespace Tessel;

/// A table beside what it has to be: entries by (chip, key), and the slots that are taken.
class ModelledTable {
 public:
   ModelledTable( Geometry geometry, U32 seed )
         : geometry_( geometry ), random_( seed ),
           chunk_( Vellum::VellumChunk::inProcess( 8 + geometry.entries * 36 + 8 ) ),
           table_( tableOver( chunk_, geometry, 8 ) ) {}

   void step() {
      U32 const dice = below( 1000 );
      if ( dice < 550 ) {
         addOne();
      } else if ( dice < 950 ) {
         removeOne();
      } else if ( dice < 990 ) {
         removeChip();
      } else if ( dice < 998 ) {
         table_ = tableOver( chunk_, geometry_, 8 );
         chipsMet_.clear();
         for ( auto const& [ pair, entry ] : entries_ ) {
            chipsMet_[ pair.first ];
         }
      } else {
         table_->clearTable();
         entries_.clear();
         slots_.clear();
      }
   }

   /// Everything that the table and the chunk say is what the model says.
   void check() {
      ASSERT_EQ( table_->numUsedEntries(), entries_.size() );
      ASSERT_EQ( table_->isFull(), entries_.size() >= geometry_.entries );
      std::map<U8, U32> counts = chipsMet_;
      std::string bytes( chunk_->size(), '\0' );
      for ( auto const& [ pair, entry ] : entries_ ) {
         auto const& [ chip, key ] = pair;
         ++counts[ chip ];
         std::string const image =
            '\1' + std::string( 1, static_cast<char>( chip ) ) + key + entry.result;
         bytes.replace( 8 + entry.slot * table_->entryLengthBytes(), image.size(), image );
      }
      ASSERT_EQ( allBytes( chunk_ ), bytes );
      ASSERT_EQ( table_->numUsedEntriesByChipIdCount(), counts.size() );
      for ( auto const& [ chip, count ] : counts ) {
         ASSERT_EQ( table_->numUsedEntriesByChipId( Brine::ChipId( chip ) ), count );
      }
      checkWalk();
   }

   /// What the table answers for one pair, present or not.
   void lookUpOne() {
      Pair const pair = anyPair();
      auto const found = entries_.find( pair );
      Brine::ChipId const chip( pair.first );
      Corvo::Bytes const key = bytesOf( pair.second );
      ASSERT_EQ( table_->entryHas_py( chip, key ), found != entries_.end() );
      std::string const expected = found == entries_.end() ? "" : found->second.result;
      ASSERT_EQ( textOf( table_->entry_py( chip, key ) ), expected );
      ASSERT_EQ( textOf( emShadowTableReaderFactory( table_ )->entry_py( chip, key ) ), expected );
   }

 private:
   using Pair = std::pair<U8, std::string>;
   struct Entry {
      U32 slot;
      std::string result;
   };

   U32 below( U32 bound ) { return static_cast<U32>( random_() % bound ); }
   std::string anyBytes( U32 length, U32 kinds ) {
      std::string bytes( length, '\0' );
      for ( char& byte : bytes ) {
         byte = static_cast<char>( below( kinds ) * 85 );
      }
      return bytes;
   }
   Pair anyPair() {
      U32 const chip = below( 8 );
      return { static_cast<U8>( chip < 6 ? chip : 250 + chip - 6 ), anyBytes( geometry_.key, 2 ) };
   }

   void addOne() {
      Pair const pair = anyPair();
      std::string const result = anyBytes( geometry_.result, 4 );
      auto const found = entries_.find( pair );
      bool const room = entries_.size() < geometry_.entries;
      ASSERT_EQ( add( table_, Brine::ChipId( pair.first ), pair.second, result ),
                 found != entries_.end() || room );
      if ( found != entries_.end() ) {
         found->second.result = result;
      } else if ( room ) {
         U32 slot = 0;
         while ( slots_.contains( slot ) ) {
            ++slot;
         }
         slots_[ slot ] = pair;
         entries_[ pair ] = { slot, result };
         chipsMet_[ pair.first ];
      }
   }

   void removeOne() {
      Pair const pair = anyPair();
      table_->entryDel( Brine::ChipId( pair.first ), pair.second.data() );
      if ( auto const found = entries_.find( pair ); found != entries_.end() ) {
         slots_.erase( found->second.slot );
         entries_.erase( found );
      }
   }

   void removeChip() {
      U8 const chip = anyPair().first;
      table_->deleteAll( Brine::ChipId( chip ) );
      std::erase_if( slots_, [ & ]( auto const& slot ) { return slot.second.first == chip; } );
      std::erase_if( entries_, [ & ]( auto const& entry ) { return entry.first.first == chip; } );
   }

   void checkWalk() {
      auto expected = slots_.begin();
      for ( auto at = table_->managedTableIteratorConst(); at; at.doInc(), ++expected ) {
         ASSERT_NE( expected, slots_.end() );
         ASSERT_EQ( at.chipId().value(), expected->second.first );
         ASSERT_EQ( textOf( at.key_py() ), expected->second.second );
         ASSERT_EQ( textOf( at.result_py() ), entries_[ expected->second ].result );
      }
      ASSERT_EQ( expected, slots_.end() );
   }

   Geometry geometry_;
   std::mt19937 random_;
   Chunk chunk_;
   Table table_;
   std::map<Pair, Entry> entries_;
   std::map<U32, Pair> slots_;
   std::map<U8, U32> chipsMet_; ///< with value 0: chips that are members of the table's counts
};

TEST( Model, everyOperationLeavesTheTableAsTheModelSays ) {
   U32 seed = 1;
   for ( Geometry const geometry : { Geometry{ .entries = 40, .key = 4, .result = 4 },
                                     Geometry{ .entries = 70, .key = 6, .result = 0 },
                                     Geometry{ .entries = 130, .key = 13, .result = 1 },
                                     Geometry{ .entries = 100, .key = 20, .result = 12 },
                                     Geometry{ .entries = 5, .key = 0, .result = 12 },
                                     Geometry{ .entries = 20, .key = 1, .result = 7 } } ) {
      ModelledTable table( geometry, seed++ );
      for ( U32 step = 0; step < 4000; ++step ) {
         table.step();
         table.lookUpOne();
         if ( step % 10 == 0 ) {
            table.check();
         }
         ASSERT_FALSE( HasFatalFailure() ) << "step " << step << ", key length " << geometry.key;
      }
   }
}

} // namespace
