// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The same job as one would write it by hand: a hash map from (chip, key) to slot, a stack of free
/// slots, and memcpy into the slots. Lengths are known at compile time, the hash costs one
/// multiplication, and room for every slot is reserved at the start.

#include "bench/Workload.h"

#include <absl/container/flat_hash_map.h>
#include <boost/unordered/unordered_flat_map.hpp>

#include <atomic>
#include <memory>
#include <new>
#include <unordered_map>

#include <sys/mman.h>

namespace Bench {

class PlainMemory {
 public:
   PlainMemory( U32 size, bool touched )
         : size_( size ),
           bytes_( static_cast<char*>( ::mmap(
              nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0 ) ) ) {
      if ( bytes_ == MAP_FAILED ) {
         throw std::bad_alloc();
      }
      if ( touched ) {
         std::memset( bytes_, 0, size );
      }
   }
   PlainMemory( PlainMemory const& ) = delete;
   PlainMemory& operator=( PlainMemory const& ) = delete;
   ~PlainMemory() { ::munmap( bytes_, size_ ); }

   char* bytes() const { return bytes_; }

 private:
   std::size_t size_;
   char* bytes_;
};

template<U32 K>
struct PairHash {
   using is_avalanching = void;

   std::size_t operator()( Pair<K> const& pair ) const {
      U64 front = 0;
      U64 back = 0;
      if constexpr ( K >= 8 ) {
         std::memcpy( &front, pair.key.data(), 8 );
         std::memcpy( &back, pair.key.data() + K - 8, 8 );
      } else {
         static_assert( K >= 4 );
         std::memcpy( &front, pair.key.data(), 4 );
         std::memcpy( &back, pair.key.data() + K - 4, 4 );
      }
      __extension__ using U128 = unsigned __int128;
      U128 const product = static_cast<U128>( front ^ 0x9e3779b97f4a7c15 ) *
                           ( back ^ 0xd1b54a32d192ed03 ^ U64{ pair.chip } << 56 );
      return static_cast<U64>( product ) ^ static_cast<U64>( product >> 64 );
   }
};

/// Images in slots, written and read with memcpy.
template<class E>
class Images {
 public:
   static constexpr U32 slotLength = ( 2 + E::keyLength + E::resultLength + 3 ) / 4 * 4;

   Images( U32 slots, PlainMemory& memory ) : bytes_( memory.bytes() ), slots_( slots ) {}

   U32 slots() const { return slots_; }
   bool used( U32 index ) const { return *slot( index ) != 0; }
   Pair<E::keyLength> const& pair( U32 index ) const {
      return *reinterpret_cast<Pair<E::keyLength> const*>( slot( index ) + 1 );
   }
   void write( U32 index, E const& entry ) {
      char* const image = slot( index );
      image[ 0 ] = 1;
      std::memcpy( image + 1, &entry.pair, 1 + E::keyLength );
      std::memcpy( image + 2 + E::keyLength, entry.result.data(), E::resultLength );
   }
   /// Whether the image is believed to be of this pair.
   bool passes( U32 /*index*/, E const& /*asked*/ ) const { return true; }
   void read( U32 index, char* result ) const {
      std::memcpy( result, slot( index ) + 2 + E::keyLength, E::resultLength );
   }
   void release( U32 index ) { std::memset( slot( index ), 0, slotLength ); }

   template<class Visit>
   void walk( Visit const& visit ) const {
      for ( U32 i = 0; i < slots_; ++i ) {
         if ( used( i ) ) {
            visit( pair( i ).chip, pair( i ).key.data(), slot( i ) + 2 + E::keyLength );
         }
      }
   }

 protected:
   char* slot( U32 index ) const { return bytes_ + std::size_t{ index } * slotLength; }

 private:
   char* bytes_;
   U32 slots_;
};

/// The same, safe from a kill between two stores and from readers beside the writer, and looked at
/// before a result is believed.
template<class E>
class CarefulImages : public Images<E> {
   using Images<E>::slot;

 public:
   using Images<E>::Images;

   void write( U32 index, E const& entry ) {
      char* const image = slot( index );
      showIs( image, 2 );
      std::memcpy( image + 1, &entry.pair, 1 + E::keyLength );
      std::memcpy( image + 2 + E::keyLength, entry.result.data(), E::resultLength );
      showIs( image, 1 );
   }
   bool passes( U32 index, E const& asked ) const {
      char const* const image = slot( index );
      return image[ 0 ] == 1 && std::memcmp( image + 1, &asked.pair, 1 + E::keyLength ) == 0;
   }
   void release( U32 index ) {
      char* const image = slot( index );
      showIs( image, 0 );
      std::memset( image + 1, 0, Images<E>::slotLength - 1 );
   }

 private:
   /// In an order that the processor keeps once the compiler does.
   static void showIs( char* image, char value ) {
      std::atomic_signal_fence( std::memory_order_seq_cst );
      *image = value;
      std::atomic_signal_fence( std::memory_order_seq_cst );
   }
};

/// `Map` is a hash map from Pair to slot.
template<class E, class Map, class Images = Images<E>>
class ByHand {
 public:
   using Memory = PlainMemory;
   static constexpr U32 slotLength = Images::slotLength;

   ByHand( U32 slots, Memory& memory ) : images_( slots, memory ) {
      slotOf_.reserve( slots );
      free_.reserve( slots );
      for ( U32 i = slots; i-- > 0; ) {
         recover( i );
      }
   }

   bool set( E const& entry ) {
      auto const [ at, added ] = slotOf_.try_emplace( entry.pair, 0 );
      if ( added ) {
         if ( free_.empty() ) {
            slotOf_.erase( at );
            return false;
         }
         at->second = free_.back();
         free_.pop_back();
      }
      images_.write( at->second, entry );
      return true;
   }
   bool get( E const& entry, typename E::Result& result ) const {
      auto const at = slotOf_.find( entry.pair );
      if ( at == slotOf_.end() || !images_.passes( at->second, entry ) ) {
         return false;
      }
      images_.read( at->second, result.data() );
      return true;
   }
   bool has( E const& entry ) const { return slotOf_.find( entry.pair ) != slotOf_.end(); }
   void del( E const& entry ) {
      auto const at = slotOf_.find( entry.pair );
      if ( at != slotOf_.end() ) {
         release( at->second );
         slotOf_.erase( at );
      }
   }
   void delChip( U8 chip ) {
      for ( auto at = slotOf_.begin(); at != slotOf_.end(); ) {
         auto const here = at++;
         if ( here->first.chip == chip ) {
            release( here->second );
            slotOf_.erase( here );
         }
      }
   }
   void clear() {
      for ( auto const& [ pair, index ] : slotOf_ ) {
         release( index );
      }
      slotOf_.clear();
   }
   U32 count() const { return static_cast<U32>( slotOf_.size() ); }

   template<class Visit>
   void walk( Visit const& visit ) const {
      images_.walk( visit );
   }

 private:
   void release( U32 index ) {
      images_.release( index );
      free_.push_back( index );
   }
   void recover( U32 index ) {
      if ( images_.used( index ) ) {
         slotOf_.emplace( images_.pair( index ), index );
      } else {
         free_.push_back( index );
      }
   }

   Images images_;
   std::vector<U32> free_;
   Map slotOf_;
};

template<class E, template<class...> class Map>
using ByHandOn = ByHand<E, Map<Pair<E::keyLength>, U32, PairHash<E::keyLength>>>;

template<class E>
struct OnStd : ByHandOn<E, std::unordered_map> {
   using ByHandOn<E, std::unordered_map>::ByHand;
   static constexpr char const* name = "std::unordered_map";
};

template<class E>
struct OnAbsl : ByHandOn<E, absl::flat_hash_map> {
   using ByHandOn<E, absl::flat_hash_map>::ByHand;
   static constexpr char const* name = "absl::flat_hash_map";
};

template<class E>
struct OnBoost : ByHandOn<E, boost::unordered_flat_map> {
   using ByHandOn<E, boost::unordered_flat_map>::ByHand;
   static constexpr char const* name = "boost::unordered_flat_map";
};

/// The fastest of them with careful images and behind calls, as a library would offer it: what the
/// guarantees cost, apart from what the map does.
template<class E>
class CarefulOnBoost {
   using Map = boost::unordered_flat_map<Pair<E::keyLength>, U32, PairHash<E::keyLength>>;

 public:
   using Memory = PlainMemory;
   static constexpr char const* name = "boost, as careful";
   static constexpr U32 slotLength = CarefulImages<E>::slotLength;

   CarefulOnBoost( U32 slots, Memory& memory ) : table_( slots, memory ) {}

   [[gnu::noinline]] bool set( E const& entry ) { return table_.set( entry ); }
   [[gnu::noinline]] bool get( E const& entry, typename E::Result& result ) const {
      return table_.get( entry, result );
   }
   [[gnu::noinline]] bool has( E const& entry ) const { return table_.has( entry ); }
   [[gnu::noinline]] void del( E const& entry ) { table_.del( entry ); }
   void clear() { table_.clear(); }
   U32 count() const { return table_.count(); }

 private:
   ByHand<E, Map, CarefulImages<E>> table_;
};

} // namespace Bench
