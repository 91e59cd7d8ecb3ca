// SPDX-License-Identifier: Apache-2.0
#pragma once

/// What the sources of EmTable share: its contract checks, its trace facility, and the one place
/// that knows how an image is laid out.

#include "Tessel/EmTable.h"
#include "Weft/Contract.h"
#include "Weft/Trace.h"

#include <algorithm>

namespace Tessel {

inline constexpr Weft::SassertHelper sassert{ "EmTable" };
extern Weft::TraceHelper const emTableTrace;

/// Bytes of a slot: valid, chip, key, result, up to a multiple of 4. In 64 bits, lengths past the
/// limits do not wrap into a slot that would fit.
template<class Number>
constexpr Number imageLength( Number keyLength, Number resultLength ) {
   return ( keyLength + resultLength + 5 ) & ~Number{ 3 };
}

/// What every making of a key or result from caller bytes traces and checks.
inline void checkKeySize( U32 keySize ) {
   constexpr char const* operation = "makeEmTableKey";
   emTableTrace( { 0, operation }, operation, " keySize:", keySize );
   sassert( keySize <= MAX_KEY_LENGTH_IN_BYTE, { "keySize <= MAX_KEY_LENGTH_IN_BYTE", operation } );
}

inline void checkResultSize( U32 resultSize ) {
   constexpr char const* operation = "makeEmTableResult";
   emTableTrace( { 0, operation }, operation, " resultSize:", resultSize );
   sassert( resultSize <= MAX_RESULT_LENGTH_IN_BYTE,
            { "resultSize <= MAX_RESULT_LENGTH_IN_BYTE", operation } );
}

/// The trace of one encoding and one decoding.
inline void traceImageCopy( char const* operation, U32 keyLength, U32 resultLength ) {
   emTableTrace( { 7, operation },
                 "EmTableEntry::",
                 operation,
                 " keyLength:",
                 keyLength,
                 " resultLength:",
                 resultLength );
}

inline void traceTableLookup( Brine::ChipId chip, EmTableIndex found ) {
   constexpr char const* operation = "getTableIndex";
   if ( found.valid() ) {
      emTableTrace(
         { 7, operation }, "EmShadowTable::", operation, " chipId:", chip, " index:", found );
   } else {
      emTableTrace( { 7, operation }, "EmShadowTable::", operation, " non-existing key" );
   }
}

inline void traceTableUpdate( Brine::ChipId chip, EmTableIndex index ) {
   constexpr char const* operation = "updateTableIndex";
   emTableTrace( { 7, operation },
                 "EmShadowTable::",
                 operation,
                 " chipId:",
                 chip,
                 " valid:",
                 index.valid(),
                 " index:",
                 index );
}

inline void traceTableDelete( Brine::ChipId chip ) {
   constexpr char const* operation = "deleteTableIndex";
   emTableTrace( { 7, operation }, "EmShadowTable::", operation, " chipId:", chip );
}

/// How many entries a bulk call takes before it looks again whether fetching ahead pays.
inline constexpr std::size_t bulkRun = 4096;
/// The same for its first entries, of which nothing is known.
inline constexpr std::size_t firstBulkRun = 64;
/// A map of at most so many bytes is taken to be in a cache next to the processor: there fetching costs
/// more than it saves.
inline constexpr U64 cachedBytes = U64{ 256 } << 10;
/// The same of a map beside the images of its pairs.
inline constexpr U64 cachedBesideImagesBytes = U64{ 64 } << 10;
/// One of more than so many bytes lies in no cache. A restart does not wait for what it reads, so that it
/// does not pay to fetch ahead before.
inline constexpr U64 uncachedBytes = U64{ 8 } << 20;

inline char* keyOf( EmTableEntryRaw& raw ) {
   return reinterpret_cast<char*>( raw.keyAndResult.data() );
}
inline char const* keyOf( EmTableEntryRaw const& raw ) {
   return reinterpret_cast<char const*>( raw.keyAndResult.data() );
}
inline char* resultOf( EmTableEntryRaw& raw, U32 keyLength ) {
   return keyOf( raw ) + keyLength;
}
inline char const* resultOf( EmTableEntryRaw const& raw, U32 keyLength ) {
   return keyOf( raw ) + keyLength;
}
inline Weft::BytePtr bytesOf( EmTableEntryRaw& raw ) {
   return reinterpret_cast<Weft::BytePtr>( &raw );
}

/// An entry's fixed bytes over zeros; key and result are for the caller to fill in.
inline EmTableEntryRaw emptyImageOf( Brine::ChipId chipId ) {
   return { .valid = 1, .chipId = chipId.value(), .keyAndResult = {} };
}

} // namespace Tessel
