// SPDX-License-Identifier: Apache-2.0
#pragma once

/// LMDB as a store of its own, in memory and without syncing: one transaction per operation, since
/// each operation must be found again after a kill.

#include "bench/Workload.h"

#include <lmdb.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace Bench {

inline void lmdbCheck( int status ) {
   if ( status != 0 ) {
      throw std::runtime_error( mdb_strerror( status ) );
   }
}

/// A directory of its own in shared memory.
class LmdbMemory {
 public:
   LmdbMemory( U32 size, bool /*touched*/ ) : mapSize_( std::size_t{ size } * 16 + ( 1 << 20 ) ) {
      std::string name = "/dev/shm/tessel-bench-XXXXXX";
      if ( !::mkdtemp( name.data() ) ) {
         throw std::runtime_error( "no directory in /dev/shm" );
      }
      directory_ = name;
   }
   LmdbMemory( LmdbMemory const& ) = delete;
   LmdbMemory& operator=( LmdbMemory const& ) = delete;
   ~LmdbMemory() { std::filesystem::remove_all( directory_ ); }

   std::string const& directory() const { return directory_; }
   std::size_t mapSize() const { return mapSize_; }

 private:
   std::size_t mapSize_;
   std::string directory_;
};

template<class E>
class Lmdb {
 public:
   using Memory = LmdbMemory;
   static constexpr char const* name = "LMDB";
   static constexpr U32 slotLength = ( 2 + E::keyLength + E::resultLength + 3 ) / 4 * 4;

   Lmdb( U32 /*slots*/, Memory& memory ) {
      lmdbCheck( mdb_env_create( &env_ ) );
      lmdbCheck( mdb_env_set_mapsize( env_, memory.mapSize() ) );
      lmdbCheck( mdb_env_open(
         env_, memory.directory().c_str(), MDB_NOSYNC | MDB_WRITEMAP | MDB_NOLOCK, 0600 ) );
      inTransaction(
         0, [ & ]( MDB_txn* txn ) { lmdbCheck( mdb_dbi_open( txn, nullptr, 0, &db_ ) ); } );
      lmdbCheck( mdb_txn_begin( env_, nullptr, MDB_RDONLY, &reading_ ) );
      mdb_txn_reset( reading_ );
   }
   Lmdb( Lmdb const& ) = delete;
   Lmdb& operator=( Lmdb const& ) = delete;
   ~Lmdb() {
      mdb_txn_abort( reading_ );
      mdb_env_close( env_ );
   }

   bool set( E const& entry ) {
      inTransaction( 0, [ & ]( MDB_txn* txn ) {
         MDB_val key = keyOf( entry );
         MDB_val data{ E::resultLength, const_cast<char*>( entry.result.data() ) };
         lmdbCheck( mdb_put( txn, db_, &key, &data, 0 ) );
      } );
      return true;
   }
   bool get( E const& entry, typename E::Result& result ) const {
      return found( entry, [ & ]( MDB_val const& data ) {
         std::memcpy( result.data(), data.mv_data, E::resultLength );
      } );
   }
   bool has( E const& entry ) const {
      return found( entry, []( MDB_val const& /*data*/ ) {} );
   }
   void del( E const& entry ) {
      inTransaction( 0, [ & ]( MDB_txn* txn ) {
         MDB_val key = keyOf( entry );
         mdb_del( txn, db_, &key, nullptr );
      } );
   }
   void clear() {
      inTransaction( 0, [ & ]( MDB_txn* txn ) { lmdbCheck( mdb_drop( txn, db_, 0 ) ); } );
   }
   U32 count() const {
      MDB_stat status{};
      lmdbCheck( mdb_env_stat( env_, &status ) );
      return static_cast<U32>( status.ms_entries );
   }

 private:
   static MDB_val keyOf( E const& entry ) {
      return { sizeof entry.pair, const_cast<U8*>( &entry.pair.chip ) };
   }

   template<class Work>
   void inTransaction( unsigned flags, Work const& work ) {
      MDB_txn* txn = nullptr;
      lmdbCheck( mdb_txn_begin( env_, nullptr, flags, &txn ) );
      work( txn );
      lmdbCheck( mdb_txn_commit( txn ) );
   }

   template<class Take>
   bool found( E const& entry, Take const& take ) const {
      lmdbCheck( mdb_txn_renew( reading_ ) );
      MDB_val key = keyOf( entry );
      MDB_val data{};
      bool const there = mdb_get( reading_, db_, &key, &data ) == 0;
      if ( there ) {
         take( data );
      }
      mdb_txn_reset( reading_ );
      return there;
   }

   MDB_env* env_ = nullptr;
   MDB_txn* reading_ = nullptr;
   MDB_dbi db_ = 0;
};

} // namespace Bench
