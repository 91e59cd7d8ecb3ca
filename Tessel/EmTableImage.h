// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The images of a table with keys of one class of lengths, read and written field by field. Internal
/// to EmTable.
///
/// No image is put together in private memory first where that can be avoided. What is stored in
/// pieces and loaded whole waits until every store before it has reached the cache; behind a store
/// that misses the cache, that is the time of a miss for each operation.

#include "Tessel/EmTableInternal.h"
#include "Tessel/KeyElement.h"

namespace Tessel {

/// The geometry of an image, as offsets and lengths in bytes.
struct ImageShape {
   U32 keyLength;
   U32 resultLength;
   U32 length; ///< of the image

   static constexpr U32 chipOffset = 1;
   static constexpr U32 keyOffset = 2;
   U32 resultOffset() const { return keyOffset + keyLength; }
   U32 paddingOffset() const { return resultOffset() + resultLength; }
   /// Whether valid byte, chip and key are one word of 8 bytes: those of a MAC address.
   bool isOneWordToResult() const { return resultOffset() == 8; }
};

/// A result that has no bytes.
class NoResult {
 public:
   static constexpr bool isOneUnit = true;
   static constexpr bool isExact = false;
   static constexpr U32 exactly( U32 /*length*/ ) { return 0; }

   NoResult() = default;
   NoResult( U8 const* /*from*/, U32 /*length*/ ) {}
   void store( U8* /*to*/, U32 /*length*/ ) const {}
   friend bool operator==( NoResult, NoResult ) { return true; }
   friend U64 differenceOf( NoResult, NoResult ) { return 0; }
};

/// A result of any length.
class AnyResult {
 public:
   static constexpr bool isOneUnit = false;
   static constexpr bool isExact = false;
   static constexpr U32 exactly( U32 length ) { return length; }

   AnyResult() = default;
   AnyResult( U8 const* from, U32 length ) { std::copy_n( from, length, bytes_.data() ); }
   void store( U8* to, U32 length ) const { std::copy_n( bytes_.data(), length, to ); }
   friend bool operator==( AnyResult const&, AnyResult const& ) = default;
   friend U64 differenceOf( AnyResult const& a, AnyResult const& b ) { return a == b ? 0 : 1; }

 private:
   std::array<U8, MAX_RESULT_LENGTH_IN_BYTE> bytes_{};
};

/// An image in registers, as Vellum::loadImageBy takes it.
template<std::size_t wordCount, class Result>
class ImageFields {
 public:
   explicit ImageFields( ImageShape shape ) : shape_( shape ) {}

   [[gnu::always_inline]] void take( U8 const* image ) {
      std::memcpy( &head_, image, sizeof head_ );
      key_ = keyWordsAt<wordCount>( reinterpret_cast<char const*>( image + ImageShape::keyOffset ),
                                    shape_.keyLength );
      result_ = Result( image + shape_.resultOffset(), shape_.resultLength );
   }
   [[gnu::always_inline]] bool matches( U8 const* image ) const {
      ImageFields again( shape_ );
      again.take( image );
      return again.head_ == head_ && sameWords( again.key_, key_ ) && again.result_ == result_;
   }
   U8 firstByte() const { return static_cast<U8>( head_ ); }
   Brine::ChipId chip() const { return Brine::ChipId( static_cast<U8>( head_ >> 8 ) ); }
   KeyWords<wordCount> const& key() const { return key_; }
   void storeIn( EmTableEntry& entry ) const {
      entry.filledBy(
         chip(), shape_.keyLength, shape_.resultLength, [ this ]( char* key, char* result ) {
            storeWords<wordCount>( key_, key ); // all fit inline
            storeResult( result );
         } );
   }
   void storeResult( Weft::CharPtr to ) const {
      result_.store( reinterpret_cast<U8*>( to ), shape_.resultLength );
   }

 private:
   ImageShape shape_;
   U16 head_ = 0; ///< valid byte, then chip
   KeyWords<wordCount> key_{};
   Result result_;
};

/// How the image at `image` differs from one of `chip` and `key` that nobody is writing; 0 if it does
/// not. Reads its result.
template<std::size_t wordCount, class Result>
[[gnu::always_inline]] inline U64 readImageOf( U8 const* image,
                                               ImageShape shape,
                                               Brine::ChipId chip,
                                               KeyWords<wordCount> const& key,
                                               Result& result ) {
   U32 const head = 1U | U32{ chip.value() } << 8;
   if ( wordCount == 1 && shape.isOneWordToResult() ) {
      result = Result( image + shape.resultOffset(), shape.resultLength );
      return Vellum::detail::loadUnit<U64>( image ) ^ ( head | key[ 0 ] << 16 );
   }
   auto const* const keyBytes = reinterpret_cast<char const*>( image + ImageShape::keyOffset );
   U64 const difference =
      differenceOf<wordCount>( keyWordsAt<wordCount>( keyBytes, shape.keyLength ), key );
   result = Result( image + shape.resultOffset(), shape.resultLength );
   return difference | ( U32{ Vellum::detail::loadUnit<U16>( image ) } ^ head );
}

/// The same of an image that somebody else writes: what Vellum::loadImageBy asks of an image and what
/// the caller asks of it, in one test. What is not 0 says only that loadImageBy must be asked.
template<std::size_t wordCount, class Result>
[[gnu::always_inline]] inline U64 readForeignImageOf( U8 const* image,
                                                      ImageShape shape,
                                                      Brine::ChipId chip,
                                                      KeyWords<wordCount> const& key,
                                                      Result& result ) {
   using Vellum::detail::orderLoads;
   auto const firstWord = [ image ] { return Vellum::detail::loadUnit<U32>( image ); };
   Result again;
   U32 const before = firstWord();
   orderLoads();
   U64 difference = readImageOf<wordCount>( image, shape, chip, key, result );
   orderLoads();
   difference |= firstWord() ^ before;
   orderLoads();
   difference |= readImageOf<wordCount>( image, shape, chip, key, again );
   orderLoads();
   return difference | ( firstWord() ^ before ) | differenceOf( again, result );
}

/// Reads chip and key of an image that shows itself. What is not 0 says that somebody may be writing it,
/// or that it shows itself no more: then Vellum::loadImageBy must be asked.
template<std::size_t wordCount>
[[gnu::always_inline]] inline U64 readFinishedImage( U8 const* image,
                                                     ImageShape shape,
                                                     Brine::ChipId& chip,
                                                     KeyWords<wordCount>& key ) {
   using Vellum::detail::loadUnit;
   using Vellum::detail::orderLoads;
   auto const* const keyBytes = reinterpret_cast<char const*>( image + ImageShape::keyOffset );
   U32 const before = loadUnit<U32>( image );
   orderLoads();
   key = keyWordsAt<wordCount>( keyBytes, shape.keyLength );
   orderLoads();
   U64 difference = loadUnit<U32>( image ) ^ before;
   orderLoads();
   difference |= differenceOf<wordCount>( keyWordsAt<wordCount>( keyBytes, shape.keyLength ), key );
   orderLoads();
   difference |= loadUnit<U32>( image ) ^ before;
   chip = Brine::ChipId( static_cast<U8>( before >> 8 ) );
   U8 const first = static_cast<U8>( before );
   return difference | ( first == 0 || Vellum::detail::maybeMark( first ) ? 1 : 0 );
}

/// The bytes of a key on their way into an image. They are read before the first byte of it is stored: a
/// caller's key may lie in this very image.
template<std::size_t wordCount>
class KeyBytes {
 public:
   /// `length` needs exactly `wordCount` words.
   [[gnu::always_inline]] KeyBytes( char const* from, U32 length ) {
      using namespace detail;
      if constexpr ( wordCount == 1 ) {
         pieces_ = { upToOneWordAt( from, length ) };
      } else if constexpr ( wordCount == 2 ) {
         pieces_ = { wordAt( from ), wordAt( from + length - 8 ) };
      } else {
         pieces_ = { wordAt( from ), wordAt( from + 8 ), halfWordAt( from + length - 4 ) };
      }
   }
   U64 firstWord() const { return pieces_[ 0 ]; }
   [[gnu::always_inline]] void store( U8* to, U32 length ) const {
      using Vellum::detail::storeUnit;
      if constexpr ( wordCount == 1 ) {
         storeUpToOneWord( to, length );
      } else if constexpr ( wordCount == 2 ) {
         storeUnit( to, pieces_[ 0 ] );
         storeUnit( to + length - 8, pieces_[ 1 ] );
      } else {
         storeUnit( to, pieces_[ 0 ] );
         storeUnit( to + 8, pieces_[ 1 ] );
         storeUnit( to + length - 4, static_cast<U32>( pieces_[ 2 ] ) );
      }
   }

 private:
   [[gnu::always_inline]] void storeUpToOneWord( U8* to, U32 length ) const {
      using Vellum::detail::storeUnit;
      U64 const word = pieces_[ 0 ];
      if ( length == 8 ) {
         storeUnit( to, word );
      } else if ( length >= 4 ) {
         storeUnit( to, static_cast<U32>( word ) );
         storeUnit( to + length - 4, static_cast<U32>( word >> 8 * ( length - 4 ) ) );
      } else {
         for ( U32 i = 0; i < length; ++i ) {
            to[ i ] = static_cast<U8>( word >> 8 * i );
         }
      }
   }

   KeyWords<wordCount> pieces_; ///< from the front on; the last of several ends with the key
};

/// At most 3 zero bytes, in at most two stores.
[[gnu::always_inline]] inline void storePadding( U8* image, ImageShape shape ) {
   U32 const at = shape.paddingOffset();
   U32 const length = shape.length - at;
   if ( length == 1 ) {
      image[ at ] = 0;
   } else if ( length != 0 ) {
      Vellum::detail::storeUnit( image + at, U16{ 0 } );
      Vellum::detail::storeUnit( image + shape.length - 2, U16{ 0 } );
   }
}

/// For a result that no one store holds: put together first, then stored as any other image.
template<std::size_t wordCount>
[[gnu::noinline]] void storeComposedImage( U8* to,
                                           ImageShape shape,
                                           Brine::ChipId chip,
                                           Weft::CharPtrConst key,
                                           Weft::CharPtrConst result ) {
   EmTableEntryRaw raw = emptyImageOf( chip );
   KeyBytes<wordCount>( key, shape.keyLength )
      .store( reinterpret_cast<U8*>( keyOf( raw ) ), shape.keyLength );
   Vellum::copyShort( resultOf( raw, shape.keyLength ), result, shape.resultLength );
   Vellum::storeImage( to, bytesOf( raw ), shape.length );
}

/// What is known to show itself where an image is about to be written.
enum class Before { maybeNothing, nothing };

/// Writes the image of an entry at `to`, in the order of Vellum/OrderedCopy.h.
template<std::size_t wordCount, class Result, Before before = Before::maybeNothing>
[[gnu::always_inline]] inline void storeEntryImage( U8* to,
                                                    ImageShape shape,
                                                    Brine::ChipId chip,
                                                    Weft::CharPtrConst key,
                                                    Weft::CharPtrConst result ) {
   if constexpr ( !Result::isOneUnit ) {
      storeComposedImage<wordCount>( to, shape, chip, key, result );
   } else {
      // The result goes in one store, as the last bytes of an image must.
      Result const bytes( reinterpret_cast<U8 const*>( result ), shape.resultLength );
      KeyBytes<wordCount> const keyBytes( key, shape.keyLength );
      auto const storeBody = [ & ]( U8 * image, U8 meanwhile ) __attribute__( ( always_inline ) ) {
         bytes.store( image + shape.resultOffset(), shape.resultLength );
         Vellum::detail::orderStores();
         if ( wordCount == 1 && shape.isOneWordToResult() ) {
            U64 const head = U64{ meanwhile } | U64{ chip.value() } << 8;
            Vellum::detail::storeUnit( image, head | keyBytes.firstWord() << 16 );
         } else {
            image[ ImageShape::chipOffset ] = chip.value();
            keyBytes.store( image + ImageShape::keyOffset, shape.keyLength );
         }
         storePadding( image, shape );
      };
      if constexpr ( before == Before::nothing ) {
         Vellum::storeNewImageBy( to, 1, storeBody );
      } else {
         Vellum::storeImageBy( to, 1, storeBody );
      }
   }
}

/// The same over an image of the same chip and key, of which only the result can differ.
template<std::size_t wordCount, class Result>
[[gnu::always_inline]] inline void storeResultInImage( U8* to,
                                                       ImageShape shape,
                                                       Brine::ChipId chip,
                                                       Weft::CharPtrConst key,
                                                       Weft::CharPtrConst result ) {
   if constexpr ( !Result::isOneUnit ) {
      storeComposedImage<wordCount>( to, shape, chip, key, result );
   } else {
      Result const bytes( reinterpret_cast<U8 const*>( result ), shape.resultLength );
      Vellum::rewriteImageBy(
         to, 1, [ & ]( U8 * image, U8 /*meanwhile*/ ) __attribute__( ( always_inline ) ) {
            bytes.store( image + shape.resultOffset(), shape.resultLength );
            Vellum::detail::orderStores();
            storePadding( image, shape ); // that of an image that a restart found may be anything
         } );
   }
}

} // namespace Tessel
