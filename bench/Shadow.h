// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The library as a competitor, through its public surface.

#include "Tessel/EmTable.h"
#include "bench/Workload.h"

#include <vector>

namespace Bench {

/// The type of a competitor's memory: the slots, which outlive the competitor that is built over
/// them. `touched` false leaves its pages to be taken when they are first used.
class ShadowMemory {
 public:
   ShadowMemory( U32 size, bool touched ) : chunk_( Vellum::VellumChunk::inProcess( size ) ) {
      constexpr U32 page = 4096;
      U8 const zero = 0;
      for ( U64 at = 0; touched && at < size; at += page ) {
         chunk_->write( static_cast<U32>( at ), &zero, 1 );
      }
   }
   Corvo::Ptr<Vellum::VellumChunk> const& chunk() const { return chunk_; }

 private:
   Corvo::Ptr<Vellum::VellumChunk> chunk_;
};

template<class E>
class Shadow {
 public:
   using Memory = ShadowMemory;
   static constexpr char const* name = "tessel";
   static constexpr U32 slotLength = ( 2 + E::keyLength + E::resultLength + 3 ) / 4 * 4;

   /// Takes over what the memory holds.
   Shadow( U32 slots, Memory& memory )
         : table_( Tessel::emShadowTableFactory(
              "bench",
              Tessel::emTableHelperFactory( slots, E::keyLength, E::resultLength ),
              memory.chunk(),
              0 ) ) {}

   bool set( E const& entry ) {
      return table_->entryIs( chipOf( entry ), entry.pair.key.data(), entry.result.data() );
   }
   bool get( E const& entry, typename E::Result& result ) const {
      return table_->entry( chipOf( entry ), entry.pair.key.data(), result.data() );
   }
   bool has( E const& entry ) const {
      return table_->entryHas( chipOf( entry ), entry.pair.key.data() );
   }
   void del( E const& entry ) { table_->entryDel( chipOf( entry ), entry.pair.key.data() ); }
   void delChip( U8 chip ) { table_->deleteAll( Brine::ChipId( chip ) ); }
   void clear() { table_->clearTable(); }
   U32 count() const { return table_->numUsedEntries(); }

   // In bulk, of steps whose pairs a caller has at hand.

   struct Pairs {
      explicit Pairs( std::vector<E>& steps ) {
         for ( E& step : steps ) {
            Brine::ChipId const chip( step.pair.chip );
            keys.push_back( { chip, step.pair.key.data() } );
            entries.push_back( { chip, step.pair.key.data(), step.result.data() } );
            buffers.push_back( { chip, step.pair.key.data(), step.result.data() } );
         }
      }
      std::vector<Tessel::EmPair> keys;
      std::vector<Tessel::EmPairAndResult> entries;
      std::vector<Tessel::EmPairAndBuffer> buffers;
   };
   U64 setAll( Pairs const& pairs ) { return table_->entryIsBulk( pairs.entries ); }
   U64 getAll( Pairs const& pairs ) const { return table_->entryBulk( pairs.buffers ); }
   U64 hasAll( Pairs const& pairs ) const { return table_->entryHasBulk( pairs.keys ); }
   U64 delAll( Pairs const& pairs ) { return table_->entryDelBulk( pairs.keys ); }

   template<class Visit>
   void walk( Visit const& visit ) const {
      for ( Tessel::EmTableEntry const& entry : table_->entries() ) {
         visit( entry.chipId().value(),
                entry.key().bytes().bytesPtr(),
                entry.result().bytes().bytesPtr() );
      }
   }

 private:
   static Brine::ChipId chipOf( E const& entry ) { return Brine::ChipId( entry.pair.chip ); }

   Corvo::Ptr<Tessel::EmShadowTable> table_;
};

} // namespace Bench
