// SPDX-License-Identifier: Apache-2.0
#pragma once

/// DPDK's rte_hash as one would use it for the same job: it gives each key a position below the
/// number of its entries, and that is the key's slot. The hash is CRC32, which is faster than
/// rte_jhash. What it allocates lies in pages of 2 MB where the system has them, as in every program
/// of DPDK.

#include "bench/ByHand.h"
#include "bench/Runs.h"

#include <rte_config.h> // before all others of DPDK

#include <rte_eal.h>
#include <rte_errno.h>
#include <rte_hash.h>
#include <rte_hash_crc.h>
#include <rte_malloc.h>

#include <sched.h>

namespace Bench {

inline void rteCheck( bool good, char const* what ) {
   if ( !good ) {
      throw std::runtime_error( std::string( what ) + ": " + rte_strerror( rte_errno ) );
   }
}

/// One thread, no devices. Leaves the thread on the processors that it was on.
inline void startRte() {
   cpu_set_t processors;
   ::sched_getaffinity( 0, sizeof processors, &processors );
   std::vector<std::string> words{ "bench",
                                   "--no-huge",
                                   "--no-pci",
                                   "--no-shconf",
                                   "-m64",
                                   "--no-telemetry",
                                   "--log-level=error",
                                   "--lcores=0@" + std::to_string( ::sched_getcpu() ) };
   std::vector<char*> arguments;
   for ( std::string& word : words ) {
      arguments.push_back( word.data() );
   }
   rteCheck( rte_eal_init( static_cast<int>( arguments.size() ), arguments.data() ) >= 0, "EAL" );
   ::sched_setaffinity( 0, sizeof processors, &processors );
}

/// The socket of a heap with room for two of the largest tables; the first call makes it, for as long
/// as the process lives, and DPDK clears all of its 2 GB.
inline int rteSocket() {
   static int const socket = [] {
      constexpr std::size_t page = std::size_t{ 2 } << 20;
      constexpr std::size_t size = 1024 * page;
      constexpr char const* heap = "bench";
      startRte();
      std::size_t space = size + page;
      void* start =
         ::mmap( nullptr, space, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0 );
      if ( start == MAP_FAILED ) {
         throw std::bad_alloc();
      }
      std::align( page, size, start, space );
      ::madvise( start, size, MADV_HUGEPAGE );
      rteCheck( rte_malloc_heap_create( heap ) == 0, "heap" );
      rteCheck( rte_malloc_heap_memory_add( heap, start, size, nullptr, 0, page ) == 0, "memory" );
      return rte_malloc_heap_get_socket( heap );
   }();
   return socket;
}

class RteMemory : public PlainMemory {
 public:
   RteMemory( U32 size, bool touched ) : PlainMemory( size, touched ) { rteSocket(); }
};

template<class E>
class RteHash {
 public:
   using Memory = RteMemory;
   static constexpr char const* name = "rte_hash";
   static constexpr U32 slotLength = Images<E>::slotLength;

   RteHash( U32 slots, Memory& memory )
         : images_( slots, memory ), hash_( made( slots ), &rte_hash_free ) {
      recover( slots );
   }

   bool set( E const& entry ) {
      int const position = add( entry.pair );
      if ( position < 0 ) {
         return false;
      }
      images_.write( static_cast<U32>( position ), entry );
      return true;
   }
   bool get( E const& entry, typename E::Result& result ) const {
      int const position = find( entry.pair );
      if ( position < 0 ) {
         return false;
      }
      images_.read( static_cast<U32>( position ), result.data() );
      return true;
   }
   bool has( E const& entry ) const { return find( entry.pair ) >= 0; }
   void del( E const& entry ) { del( entry.pair ); }
   void delChip( U8 chip ) {
      for ( U32 i = 0; i < images_.slots(); ++i ) {
         if ( images_.used( i ) && images_.pair( i ).chip == chip ) {
            del( images_.pair( i ) );
         }
      }
   }
   void clear() {
      for ( U32 i = 0; i < images_.slots(); ++i ) {
         if ( images_.used( i ) ) {
            images_.release( i );
         }
      }
      rte_hash_reset( hash_.get() );
   }
   U32 count() const { return static_cast<U32>( rte_hash_count( hash_.get() ) ); }

   // Looked up in bulk, of steps whose pairs a caller has at hand.

   struct Pairs {
      explicit Pairs( std::vector<E>& steps ) {
         for ( E& step : steps ) {
            keys.push_back( &step.pair );
            results.push_back( step.result.data() );
         }
      }
      std::vector<void const*> keys;
      std::vector<char*> results;
   };
   U64 getAll( Pairs const& pairs ) const {
      return lookUpAll( pairs, [ & ]( std::size_t at, U32 position ) {
         images_.read( position, pairs.results[ at ] );
      } );
   }
   U64 hasAll( Pairs const& pairs ) const {
      return lookUpAll( pairs, []( std::size_t /*at*/, U32 /*position*/ ) {} );
   }

   template<class Visit>
   void walk( Visit const& visit ) const {
      images_.walk( visit );
   }

   /// Bytes that all tables have allocated.
   static U64 ownBytes() {
      rte_malloc_socket_stats stats{};
      rte_malloc_get_socket_stats( rteSocket(), &stats );
      return stats.heap_allocsz_bytes;
   }

 private:
   using Key = Pair<E::keyLength>;

   static rte_hash* made( U32 slots ) {
      static U32 number = 0;
      std::string const unique = "table " + std::to_string( number++ );
      rte_hash_parameters parameters{};
      parameters.name = unique.c_str();
      parameters.entries = slots;
      parameters.key_len = sizeof( Key );
      parameters.hash_func = &rte_hash_crc;
      parameters.socket_id = rteSocket();
      parameters.extra_flag = RTE_HASH_EXTRA_FLAGS_EXT_TABLE; // or some keys find no room
      rte_hash* const hash = rte_hash_create( &parameters );
      rteCheck( hash, "table" );
      return hash;
   }

   /// A new table counts its positions up. Keys are added in the order of their slots, and what no
   /// chip has where a slot is free, until the last slot that is used.
   void recover( U32 slots ) {
      while ( slots > 0 && !images_.used( slots - 1 ) ) {
         --slots;
      }
      for ( U32 i = 0; i < slots; ++i ) {
         int const position = images_.used( i ) ? add( images_.pair( i ) ) : add( fillerOf( i ) );
         expect( position == static_cast<int>( i ), "a slot that is kept" );
      }
      for ( U32 i = 0; i < slots; ++i ) {
         if ( !images_.used( i ) ) {
            del( fillerOf( i ) );
         }
      }
   }
   static Key fillerOf( U32 slot ) {
      Key filler{ .chip = 0xff, .key = {} };
      std::memcpy( filler.key.data(), &slot, sizeof slot );
      return filler;
   }

   // With the length known here, hashing takes no call and no loop.
   static hash_sig_t signature( Key const& key ) { return rte_hash_crc( &key, sizeof key, 0 ); }
   int find( Key const& key ) const {
      return rte_hash_lookup_with_hash( hash_.get(), &key, signature( key ) );
   }
   int add( Key const& key ) {
      return rte_hash_add_key_with_hash( hash_.get(), &key, signature( key ) );
   }
   void del( Key const& key ) {
      int const position = rte_hash_del_key_with_hash( hash_.get(), &key, signature( key ) );
      if ( position >= 0 ) {
         images_.release( static_cast<U32>( position ) );
      }
   }

   /// How many of the pairs were found; calls `take( index of pair, position )` for each.
   template<class Take>
   U64 lookUpAll( Pairs const& pairs, Take const& take ) const {
      U64 found = 0;
      std::array<int32_t, RTE_HASH_LOOKUP_BULK_MAX> positions;
      for ( std::size_t from = 0; from < pairs.keys.size(); from += positions.size() ) {
         std::size_t const count = std::min( positions.size(), pairs.keys.size() - from );
         rte_hash_lookup_bulk( hash_.get(),
                               const_cast<void const**>( pairs.keys.data() + from ),
                               static_cast<U32>( count ),
                               positions.data() );
         for ( std::size_t i = 0; i < count; ++i ) {
            if ( positions[ i ] >= 0 ) {
               take( from + i, static_cast<U32>( positions[ i ] ) );
               ++found;
            }
         }
      }
      return found;
   }

   Images<E> images_;
   std::unique_ptr<rte_hash, void ( * )( rte_hash* )> hash_;
};

} // namespace Bench
