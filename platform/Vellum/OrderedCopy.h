// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Copies between private memory and a block that other processes map, in an order that neither a
/// killed writer nor a concurrent reader turns into half an image.
///
/// An image is a run of bytes whose first byte says whether it is there: zero means nothing is. One
/// process writes an image, any number read it. What storeImage promises, by the failure it stops:
///
///  (1) New image over a zero first byte. The first byte is stored last. Stored earlier, a writer
///      killed between two stores would leave an image that shows itself with another key or result
///      behind it, and a reader would return it.
///  (2) Zero image over anything. The first byte is stored first. Stored later, a writer killed on
///      its way would leave a visible image whose key has been wiped to zeros: an entry that nobody
///      added.
///  (3) New image over a visible one (a rewrite). The first byte becomes a mark, non-zero like the
///      first byte it stands for, before anything else changes, and its final value after
///      everything else has. One store instruction is one step for a process that is killed, but
///      not for a reader where it crosses a cache line: without the mark, a reader met one half of
///      the old result and one half of the new.
///  (4) The last 16 bytes go in one store instruction, before the other bytes. A process is killed
///      between instructions, so a result that lies within them is found old or new and never
///      mixed; stored after bytes that it overlaps, it could be found with its front new and its
///      end old. An image shorter than 16 bytes goes in the widest instructions that it fills:
///      whole at 1, 2, 4 and 8 bytes, the last 4 bytes of 5 to 7, the last 8 of 9 to 15. (A result
///      that starts before the last 8 bytes of an image of 12, which takes a key under 2 bytes, is
///      the one that a kill can split.)
///
/// loadImage is the other side of (1) to (3): it takes two readings with the first word looked at
/// before, between and after them, and starts again unless everything agrees and no mark is seen. A
/// reading torn by one write cannot agree with the next one, and a writer that is between its mark
/// and its final byte is waited for. A mark that stays (its writer was killed or is not running) is
/// believed when nothing of the image has changed for `patience` tries, nor while the system had every
/// processor finish the stores it had begun. Neither is enough by itself:
///
///  (5) Tries alone. A writer that was stopped at its mark may go on during the last of them, and two
///      readings can agree on what is visible between the two cache lines of its next store.
///  (6) Any number of tries without a change. A store has no longest time: on a virtual machine with
///      two processors one half of a store was visible and the other not for 10,000 cycles, perhaps as
///      it was interrupted between the two, and a reader met the halves of two results that agreed all
///      the while. What agrees before and after all begun stores were finished was no half of one.
///
/// The order between stores (and between loads) is the one that x86-64 gives to plain stores and
/// loads once the compiler keeps it; elsewhere fences give it.
///
/// Threads: one writer per image; readers anywhere.

#include "Weft/Types.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <type_traits>

namespace Vellum {

/// How often in a row loadImage finds a marked image unchanged before it has the system finish all
/// stores, which takes some microseconds. With the pause between two tries this is as long: most
/// writers are through by then. More would make a table over foreign bytes slow to build.
inline constexpr U32 patience = 64;

/// Has readers in other processes wait for the stores of this one, see loadImage. To be called before
/// the first store; VellumChunk does it for whoever maps a chunk for writing.
void announceWriter();

namespace detail {

/// Sixteen bytes moved by one instruction where the machine has one. GCC splits a memcpy of 16 bytes
/// in two as it likes; an access through the unaligned type stays one.
using Unit16 [[gnu::vector_size( 16 )]] = U64;
using Unit16InMemory [[gnu::vector_size( 16 ), gnu::aligned( 1 ), gnu::may_alias]] = U64;

inline void orderStores() {
#if defined( __x86_64__ )
   std::atomic_signal_fence( std::memory_order_seq_cst );
#else
   std::atomic_thread_fence( std::memory_order_release );
#endif
}

inline void orderLoads() {
#if defined( __x86_64__ )
   std::atomic_signal_fence( std::memory_order_seq_cst );
#else
   std::atomic_thread_fence( std::memory_order_acquire );
#endif
}

inline void pauseBriefly() {
#if defined( __x86_64__ )
   __builtin_ia32_pause();
#endif
}

/// Returns when every store that an announced writer had begun before is visible.
[[gnu::visibility( "default" )]] void awaitStores();

template<class Unit>
inline Unit loadUnit( U8 const* from ) {
   if constexpr ( sizeof( Unit ) == sizeof( Unit16 ) ) {
      return *reinterpret_cast<Unit16InMemory const*>( from );
   } else {
      Unit unit;
      std::memcpy( &unit, from, sizeof unit );
      return unit;
   }
}

template<class Unit>
inline void storeUnit( U8* to, Unit unit ) {
   if constexpr ( sizeof( Unit ) == sizeof( Unit16 ) ) {
      *reinterpret_cast<Unit16InMemory*>( to ) = unit;
   } else {
      std::memcpy( to, &unit, sizeof unit );
   }
}

inline U64 differenceOf( Unit16 a, Unit16 b ) {
   Unit16 const difference = a ^ b;
   return difference[ 0 ] | difference[ 1 ];
}

inline U64 differenceOf( U64 a, U64 b ) {
   return a ^ b;
}

// In registers: a byte stored into a unit in memory would hold up the wider load that follows it.
template<class Unit>
inline Unit withFirstByte( Unit unit, U8 value ) {
   constexpr U64 others = ~U64{ 0xff };
   if constexpr ( sizeof( Unit ) == sizeof( Unit16 ) ) {
      return ( unit & Unit16{ others, ~U64{ 0 } } ) | Unit16{ value, 0 };
   } else {
      return static_cast<Unit>( ( unit & others ) | value );
   }
}

inline U8 loadFirst( U8 const* image ) {
   return std::atomic_ref<U8>( const_cast<U8&>( *image ) ).load( std::memory_order_relaxed );
}

inline void storeFirst( U8* image, U8 value ) {
   std::atomic_ref<U8>( *image ).store( value, std::memory_order_relaxed );
}

/// The mark of an image under way whose first byte will be `final`: non-zero, and another value.
inline constexpr U8 markFor( U8 final ) {
   return final == 0xff ? 0xfe : 0xff;
}
inline constexpr bool maybeMark( U8 first ) {
   return first >= 0xfe;
}

/// `length` bytes, sizeof( Unit ) to count * sizeof( Unit ), as `count` units of which the last
/// ends with the bytes.
template<class Unit, U32 count>
class Reading {
 public:
   static constexpr bool isOneUnit = count == 1;
   static constexpr bool isExact = isOneUnit;
   /// `length`, as a constant where only one is possible.
   static constexpr U32 exactly( U32 length ) { return count == 1 ? sizeof( Unit ) : length; }

   Reading() = default;
   [[gnu::always_inline]] Reading( U8 const* from, U32 length ) {
      units_[ 0 ] = loadUnit<Unit>( from + length - sizeof( Unit ) );
      for ( U32 i = 1; i < count; ++i ) {
         units_[ i ] = loadUnit<Unit>( from + ( i - 1 ) * sizeof( Unit ) );
      }
   }

   static Reading zeros() {
      Reading reading;
      reading.units_.fill( Unit{} );
      return reading;
   }

   U8 firstByte() const {
      U8 byte = 0;
      std::memcpy( &byte, &first(), 1 );
      return byte;
   }
   void firstByteIs( U8 value ) { first() = withFirstByte( first(), value ); }

   [[gnu::always_inline]] void store( U8* to, U32 length ) const {
      storeUnit( to + length - sizeof( Unit ), units_[ 0 ] );
      for ( U32 i = 1; i < count; ++i ) {
         orderStores();
         storeUnit( to + ( i - 1 ) * sizeof( Unit ), units_[ i ] );
      }
   }

   /// Zero for the same bytes.
   [[gnu::always_inline]] friend U64 differenceOf( Reading const& a, Reading const& b ) {
      U64 difference = 0;
      for ( U32 i = 0; i < count; ++i ) {
         difference |= detail::differenceOf( a.units_[ i ], b.units_[ i ] );
      }
      return difference;
   }
   [[gnu::always_inline]] friend bool operator==( Reading const& a, Reading const& b ) {
      return differenceOf( a, b ) == 0;
   }

 private:
   Unit& first() { return units_[ count > 1 ? 1 : 0 ]; }
   Unit const& first() const { return units_[ count > 1 ? 1 : 0 ]; }

   std::array<Unit, count> units_; ///< the last unit, then the others from the front on
};

/// Calls `work` with the type of Reading that holds `length` bytes, 1 to 8; 8 and 4 are the lengths
/// that keys and results have most often.
template<class Work>
[[gnu::always_inline]] inline void withReadingUpTo8( U32 length, Work const& work ) {
   if ( length == 8 ) {
      work( std::type_identity<Reading<U64, 1>>() );
   } else if ( length == 4 ) {
      work( std::type_identity<Reading<U32, 1>>() );
   } else if ( length > 4 ) {
      work( std::type_identity<Reading<U32, 2>>() );
   } else if ( length > 2 ) {
      work( std::type_identity<Reading<U16, 2>>() );
   } else if ( length == 2 ) {
      work( std::type_identity<Reading<U16, 1>>() );
   } else {
      work( std::type_identity<Reading<U8, 1>>() );
   }
}

/// The same for 1 to 15 bytes.
template<class Work>
[[gnu::always_inline]] inline void withReadingBelow16( U32 length, Work const& work ) {
   if ( length > 8 ) {
      work( std::type_identity<Reading<U64, 2>>() );
   } else {
      withReadingUpTo8( length, work );
   }
}

/// The same for 1 to 48 bytes.
template<class Work>
[[gnu::always_inline]] inline void withReadingFor( U32 length, Work const& work ) {
   if ( length > 32 ) {
      work( std::type_identity<Reading<Unit16, 3>>() );
   } else if ( length > 16 ) {
      work( std::type_identity<Reading<Unit16, 2>>() );
   } else if ( length == 16 ) {
      work( std::type_identity<Reading<Unit16, 1>>() );
   } else {
      withReadingBelow16( length, work );
   }
}

inline constexpr U32 longestReading = 48;

/// One try at an image, in registers.
template<class R>
class ShortReading {
 public:
   explicit ShortReading( U32 length ) : length_( length ) {}

   U8 firstByte() const { return reading_.firstByte(); }
   void take( U8 const* from ) { reading_ = R( from, length_ ); }
   bool matches( U8 const* from ) const { return R( from, length_ ) == reading_; }
   void store( U8* to ) const { reading_.store( to, length_ ); }

 private:
   R reading_;
   U32 length_;
};

/// Stores all of an image but its first byte, in the place of which it stores `first`.
inline void storeBody( U8* to, U8 const* from, U32 length, U8 first ) {
   if ( length > longestReading ) {
      std::size_t const front = length - sizeof( Unit16 );
      storeUnit( to + front, loadUnit<Unit16>( from + front ) );
      orderStores();
      storeFirst( to, first );
      std::memcpy( to + 1, from + 1, front - 1 );
      return;
   }
   withReadingFor( length, [ & ]<class R>( std::type_identity<R> ) {
      R body( from, length );
      body.firstByteIs( first );
      body.store( to, length );
   } );
}

/// More bytes than any image of a table: a reading that a writer was in is repeated a few times.
inline void loadLong( U8 const* from, U8* to, U32 length ) {
   constexpr U32 enough = 4;
   for ( U32 tries = 0; tries < enough; ++tries ) {
      std::memcpy( to, from, length );
      orderLoads();
      if ( std::memcmp( to, from, length ) == 0 ) {
         return;
      }
   }
}

inline U32 firstWord( U8 const* image, U32 length ) {
   return length >= sizeof( U32 ) ? loadUnit<U32>( image ) : loadFirst( image );
}

/// Whether two readings, and the first word before, between and after them, agreed.
template<class AnyReading>
[[gnu::always_inline]] inline bool takeAgreeing( AnyReading& reading, U8 const* from, U32 length ) {
   U32 const before = firstWord( from, length );
   orderLoads();
   reading.take( from );
   orderLoads();
   U32 const between = firstWord( from, length );
   orderLoads();
   bool const same = reading.matches( from );
   orderLoads();
   return same && before == between && between == firstWord( from, length );
}

/// Whether the reading is one image, and finished.
template<class AnyReading>
[[gnu::always_inline]] inline bool takeFinished( AnyReading& reading, U8 const* from, U32 length ) {
   return takeAgreeing( reading, from, length ) && !maybeMark( reading.firstByte() );
}

/// For an image that somebody is writing, or was when he was killed.
template<class AnyReading>
[[gnu::cold, gnu::noinline]] AnyReading
takeWhenUnchanged( AnyReading reading, U8 const* from, U32 length ) {
   for ( U32 unchanged = 0; unchanged <= patience; ++unchanged ) {
      if ( unchanged < patience ) {
         pauseBriefly();
      } else {
         awaitStores(); // (6)
      }
      orderLoads();
      if ( !reading.matches( from ) ) {
         if ( takeFinished( reading, from, length ) ) {
            return reading;
         }
         unchanged = 0; // (5)
      }
   }
   return reading;
}

template<class AnyReading>
[[gnu::always_inline]] inline AnyReading
takeImage( AnyReading reading, U8 const* from, U32 length ) {
   if ( takeFinished( reading, from, length ) ) [[likely]] {
      return reading;
   }
   return takeWhenUnchanged( reading, from, length );
}

} // namespace detail

/// Copies at most 48 bytes, without the call that a memcpy of unknown length is. The two do not
/// overlap.
inline void copyShort( void* to, void const* from, U32 length ) {
   if ( length != 0 ) {
      detail::withReadingFor( length, [ & ]<class R>( std::type_identity<R> ) {
         R( static_cast<U8 const*>( from ), length ).store( static_cast<U8*>( to ), length );
      } );
   }
}

/// Whether at most 48 bytes are the same.
inline bool equalShort( void const* a, void const* b, U32 length ) {
   bool equal = true;
   if ( length != 0 ) {
      detail::withReadingFor( length, [ & ]<class R>( std::type_identity<R> ) {
         equal =
            R( static_cast<U8 const*>( a ), length ) == R( static_cast<U8 const*>( b ), length );
      } );
   }
   return equal;
}

/// Writes one image at `to`, over one that is known to show itself: (3) alone. Nothing is read of the
/// old image, so nothing waits for it to come from memory. `final` is not zero.
template<class StoreBody>
[[gnu::always_inline]] inline void rewriteImageBy( U8* to, U8 final, StoreBody const& storeBody ) {
   U8 const meanwhile = detail::markFor( final );
   detail::storeFirst( to, meanwhile ); // (3)
   detail::orderStores();
   storeBody( to, meanwhile ); // (4)
   detail::orderStores();
   detail::storeFirst( to, final ); // (3)
}

/// Writes one image at `to`, where it is known that none shows itself: (1) alone. Nothing is read
/// there; over a visible image, readers and kills would meet a mixture of the two.
/// `final` is not zero.
template<class StoreBody>
[[gnu::always_inline]] inline void storeNewImageBy( U8* to, U8 final, StoreBody const& storeBody ) {
   storeBody( to, U8{ 0 } ); // (4)
   detail::orderStores();
   detail::storeFirst( to, final ); // (1)
}

/// Writes one image at `to`, in the order given above. `final` is its first byte.
/// `storeBody( to, meanwhile )` stores all bytes behind the first one, those of (4) first, and may
/// store `meanwhile` in the first one.
template<class StoreBody>
[[gnu::always_inline]] inline void storeImageBy( U8* to, U8 final, StoreBody const& storeBody ) {
   if ( final == 0 ) {
      detail::storeFirst( to, 0 ); // (2)
      detail::orderStores();
      storeBody( to, U8{ 0 } );
      return;
   }
   if ( detail::loadFirst( to ) != 0 ) {
      rewriteImageBy( to, final, storeBody );
   } else {
      storeNewImageBy( to, final, storeBody );
   }
}

/// Writes `length` bytes at `from` as one image at `to`.
inline void storeImage( U8* to, U8 const* from, U32 length ) {
   if ( length == 0 ) {
      return;
   }
   storeImageBy( to, *from, [ & ]( U8* image, U8 meanwhile ) {
      detail::storeBody( image, from, length, meanwhile );
   } );
}

namespace detail {

// Out of the way of those who wipe images of usual lengths.
[[gnu::noinline]] inline void storeZerosOfAnyLength( U8* image, U32 length ) {
   withReadingFor( length,
                   [ & ]<class R>( std::type_identity<R> ) { R::zeros().store( image, length ); } );
}

} // namespace detail

/// Writes zeros over the image of `length` bytes, 1 to 48, at `to`.
[[gnu::always_inline]] inline void storeNoImage( U8* to, U32 length ) {
   storeImageBy(
      to, 0, [length]( U8 * image, U8 /*meanwhile*/ ) __attribute__( ( always_inline ) ) {
         using Usual = detail::Reading<detail::Unit16, 2>;
         if ( length - 16 <= 16 ) [[likely]] {
            Usual::zeros().store( image, length );
         } else {
            detail::storeZerosOfAnyLength( image, length );
         }
      } );
}

/// The same for a length that the compiler knows.
template<U32 length>
[[gnu::always_inline]] inline void storeNoImage( U8* to ) {
   storeImageBy(
      to, 0, []( U8 * image, U8 /*meanwhile*/ ) __attribute__( ( always_inline ) ) {
         detail::withReadingFor( length, [ & ]<class R>( std::type_identity<R> ) {
            R::zeros().store( image, length );
         } );
      } );
}

/// The same for `count` images that lie one behind the other: all of them disappear before the first one
/// is wiped, see (2).
inline void storeNoImages( U8* to, U32 length, U32 count ) {
   for ( U32 i = 0; i < count; ++i ) {
      detail::storeFirst( to + std::size_t{ i } * length, 0 );
   }
   detail::orderStores();
   std::memset( to, 0, std::size_t{ count } * length );
}

/// Takes one image of `length` bytes at `from`, written by storeImage with the same bounds in this
/// or another process: one of the images if it changes meanwhile.
///
/// `reading.take( from )` reads what is wanted of the image, `reading.matches( from )` whether the
/// same is read again, `reading.firstByte()` is the first byte that was taken.
template<class Reading>
[[gnu::always_inline]] inline Reading loadImageBy( Reading reading, U8 const* from, U32 length ) {
   return detail::takeImage( reading, from, length );
}

/// Reads `length` bytes at `from`, written by storeImage, to `to`: one image, or one of the images
/// if it changes meanwhile.
inline void loadImage( U8 const* from, U8* to, U32 length ) {
   if ( length == 0 ) {
      return;
   }
   if ( length > detail::longestReading ) {
      detail::loadLong( from, to, length );
      return;
   }
   detail::withReadingFor( length, [ & ]<class R>( std::type_identity<R> ) {
      detail::takeImage( detail::ShortReading<R>( length ), from, length ).store( to );
   } );
}

} // namespace Vellum
