// SPDX-License-Identifier: Apache-2.0
// TESSEL_TEST_STEPS asks for more steps in each geometry.

#include "WeftCorvo/Entities.h"
#include "support/Asked.h"
#include "support/Tables.h"

#include <gtest/gtest.h>

#include <deque>
#include <functional>
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
           table_( tableOver( chunk_, geometry, 8 ) ) {
      for ( U32 slot = 0; slot < geometry.entries; ++slot ) {
         free_.insert( slot );
      }
      openOrNot();
   }

   void step() {
      U32 const dice = below( 10000 );
      if ( dice < 5300 ) {
         addOne();
      } else if ( dice < 9200 ) {
         removeOne();
      } else if ( dice < 9500 ) {
         addOrRemoveInBulk();
      } else if ( dice < 9600 ) {
         askForObject();
      } else if ( dice < 9940 ) {
         table_->reconcile(); // which changes nothing
      } else if ( dice < 9970 ) {
         U8 const chip = anyPair().first;
         table_->deleteAll( Brine::ChipId( chip ) );
         forgetIf( [ chip ]( Pair const& pair ) { return pair.first == chip; } );
      } else if ( dice < 9990 ) {
         rebuild();
      } else {
         table_->clearTable();
         forgetIf( []( Pair const& ) { return true; } );
      }
   }

   /// Everything that the table and the chunk say is what the model says.
   void check() {
      ASSERT_EQ( table_->numUsedEntries(), entries_.size() );
      ASSERT_EQ( table_->isFull(), entries_.size() >= geometry_.entries );
      std::map<U8, U32> counts = chipsMet_;
      std::set<std::string> keys;
      std::string bytes( chunk_->size(), '\0' );
      for ( auto const& [ pair, entry ] : entries_ ) {
         auto const& [ chip, key ] = pair;
         ++counts[ chip ];
         keys.insert( key );
         std::string const image =
            '\1' + std::string( 1, static_cast<char>( chip ) ) + key + entry.result;
         bytes.replace( 8 + entry.slot * table_->entryLengthBytes(), image.size(), image );
         ASSERT_EQ( table_->getTableIndex( Brine::ChipId( chip ), keyOf( key ) ).value(),
                    entry.slot );
      }
      ASSERT_EQ( allBytes( chunk_ ), bytes );
      ASSERT_EQ( table_->keyToIndexListCount(), keys.size() );
      for ( auto at = table_->keyToIndexListCursor(); at.onMember(); at.advance() ) {
         ASSERT_EQ( keys.erase( textOf( at.key().bytes() ) ), 1U ) << "each key once";
      }
      ASSERT_EQ( table_->numUsedEntriesByChipIdCount(), counts.size() );
      for ( auto const& [ chip, count ] : counts ) {
         ASSERT_EQ( table_->numUsedEntriesByChipId( Brine::ChipId( chip ) ), count );
      }
      if ( isOpen_ ) {
         checkBitmap();
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
      ASSERT_EQ( textOf( byName<Corvo::Bytes>( "entry_py", chip, key ) ), expected );
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
      return { static_cast<U8>( chip < 6 ? chip : 250 + chip - 6 ),
               anyBytes( geometry_.key, geometry_.entries > 1000 ? 4 : 2 ) };
   }

   /// Calls an operation of the table as scripts do.
   template<class Result, class... Arguments>
   Result byName( std::string_view operation, Arguments... arguments ) {
      Weft::Attribute const& attribute = *WeftCorvo::typeOfObject( *table_ ).attribute( operation );
      Weft::TypeInfo const& type = attribute.owner();
      Result result{};
      std::array<void*, sizeof...( Arguments )> pointers{ &arguments... };
      EXPECT_EQ( type.attributeOp( &result,
                                   WeftCorvo::objectAs( type, *table_ ),
                                   &attribute,
                                   Weft::Op::call,
                                   nullptr,
                                   pointers.data() ),
                 Weft::Status::done );
      return result;
   }

   void addOne() {
      Pair const pair = anyPair();
      std::string const result = anyBytes( geometry_.result, 4 );
      Brine::ChipId const chip( pair.first );
      bool const held =
         below( 4 ) == 0
            ? byName<bool>( "entryIs_py", chip, bytesOf( pair.second ), bytesOf( result ) )
            : add( table_, chip, pair.second, result );
      ASSERT_EQ( held, remember( pair, result ) );
   }

   void removeOne() {
      Pair const pair = anyPair();
      Brine::ChipId const chip( pair.first );
      if ( below( 4 ) == 0 ) {
         byName<bool>( "entryDel_py", chip, bytesOf( pair.second ) );
      } else {
         table_->entryDel( chip, pair.second.data() );
      }
      forget( pair );
   }

   void addOrRemoveInBulk() {
      std::deque<std::pair<Pair, std::string>> bytes;
      std::vector<EmPairAndResult> wanted;
      std::vector<EmPair> unwanted;
      for ( U32 count = below( 80 ); count > 0; --count ) {
         auto const& [ pair, result ] =
            bytes.emplace_back( anyPair(), anyBytes( geometry_.result, 4 ) );
         Brine::ChipId const chip( pair.first );
         wanted.push_back( { chip, pair.second.data(), result.data() } );
         unwanted.push_back( { chip, pair.second.data() } );
      }
      bool const adds = below( 3 ) != 0;
      U64 const done = adds ? table_->entryIsBulk( wanted ) : table_->entryDelBulk( unwanted );
      U64 expected = 0;
      for ( auto const& [ pair, result ] : bytes ) {
         expected += adds ? remember( pair, result ) : forget( pair );
      }
      ASSERT_EQ( done, expected );
   }

   /// A table that has let others at its bookkeeping works in other ways from then on.
   void openOrNot() {
      isOpen_ = below( 2 ) == 0;
      if ( isOpen_ ) {
         checkBitmap();
      }
   }

   void checkBitmap() {
      for ( U32 slot = 0; slot < geometry_.entries; ++slot ) {
         ASSERT_EQ( table_->freeIndexBmp()->bit( slot ), free_.contains( slot ) );
      }
   }

   /// From then on the table looks for the key's slots in its object.
   void askForObject() {
      if ( !isOpen_ ) {
         return;
      }
      std::string const key = anyPair().second;
      auto const object = table_->keyToIndexList( keyOf( key ) );
      U32 slots = 0;
      for ( U32 chip = 0; chip < 256; ++chip ) {
         auto const found = entries_.find( { static_cast<U8>( chip ), key } );
         if ( found != entries_.end() ) {
            ++slots;
            ASSERT_TRUE( object );
            ASSERT_EQ( object->index( Brine::ChipId( static_cast<U8>( chip ) ) ).value(),
                       found->second.slot );
         }
      }
      ASSERT_EQ( object ? object->indexCount() : 0, slots );
   }

   void rebuild() {
      checkBitmap();
      table_ = tableOver( chunk_, geometry_, 8 );
      chipsMet_.clear();
      for ( auto const& [ pair, entry ] : entries_ ) {
         chipsMet_[ pair.first ];
      }
      openOrNot();
   }

   // ---- the model: each says whether its operation did anything

   bool remember( Pair const& pair, std::string const& result ) {
      auto const found = entries_.find( pair );
      if ( found != entries_.end() ) {
         found->second.result = result;
         return true;
      }
      if ( free_.empty() ) {
         return false;
      }
      U32 const slot = free_.extract( free_.begin() ).value();
      slots_[ slot ] = pair;
      entries_[ pair ] = { slot, result };
      chipsMet_[ pair.first ];
      return true;
   }

   bool forget( Pair const& pair ) {
      auto const found = entries_.find( pair );
      if ( found == entries_.end() ) {
         return false;
      }
      free_.insert( found->second.slot );
      slots_.erase( found->second.slot );
      entries_.erase( found );
      return true;
   }

   void forgetIf( std::function<bool( Pair const& )> const& gone ) {
      for ( auto const& [ slot, pair ] : std::map( slots_ ) ) {
         if ( gone( pair ) ) {
            forget( pair );
         }
      }
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
   bool isOpen_ = false;
   std::map<Pair, Entry> entries_;
   std::map<U32, Pair> slots_;
   std::set<U32> free_;
   std::map<U8, U32> chipsMet_; ///< with value 0: chips that are members of the table's counts
};

TEST( Model, everyOperationLeavesTheTableAsTheModelSays ) {
   U64 const steps = asked( "TESSEL_TEST_STEPS", 2000 );
   U32 seed = 1;
   for ( Geometry const geometry : { Geometry{ .entries = 40, .key = 4, .result = 4 },
                                     Geometry{ .entries = 70, .key = 6, .result = 0 },
                                     Geometry{ .entries = 130, .key = 13, .result = 1 },
                                     Geometry{ .entries = 100, .key = 20, .result = 12 },
                                     Geometry{ .entries = 5, .key = 0, .result = 12 },
                                     Geometry{ .entries = 20, .key = 1, .result = 7 },
                                     Geometry{ .entries = 60, .key = 16, .result = 8 },
                                     Geometry{ .entries = 9000, .key = 6, .result = 8 } } ) {
      ModelledTable table( geometry, seed++ );
      U32 const interval = geometry.entries < 30 ? 1 : geometry.entries < 1000 ? 10 : 2000;
      for ( U64 step = 0; step < steps; ++step ) {
         table.step();
         table.lookUpOne();
         if ( step % interval == 0 ) {
            table.check();
         }
         ASSERT_FALSE( HasFatalFailure() ) << "step " << step << ", key length " << geometry.key;
      }
   }
}

} // namespace
