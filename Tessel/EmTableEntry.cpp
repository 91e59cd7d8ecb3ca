// SPDX-License-Identifier: Apache-2.0
#include "Tessel/EmTableInternal.h"

namespace Tessel {

Weft::AllocTrackTypeInfo EmTableFapIndices::memAllocationTracker_;

static_assert( sizeof( EmTableEntryRaw ) == 36 );
static_assert( offsetof( EmTableEntryRaw, valid ) == 0 );
static_assert( offsetof( EmTableEntryRaw, chipId ) == 1 );
static_assert( offsetof( EmTableEntryRaw, keyAndResult ) == 2 );

EntryKey makeEmTableKey( Weft::CharPtrConst key, U32 keySize ) {
   checkKeySize( keySize );
   return EntryKey( Corvo::Bytes( key, keySize ) );
}

EntryResult makeEmTableResult( Weft::CharPtrConst result, U32 resultSize ) {
   checkResultSize( resultSize );
   return EntryResult( Corvo::Bytes( result, resultSize ) );
}

// -------------------------------------------------------------------------------- EmTableEntry

void EmTableEntry::copyToBuf( EmTableEntryRaw* raw, U32 keyLength, U32 resultLength ) const {
   traceImageCopy( "copyToBuf", keyLength, resultLength );
   if ( !valid_ ) {
      *raw = {};
      return;
   }
   sassert( keyLength <= MAX_KEY_LENGTH_IN_BYTE, "keyLength <= MAX_KEY_LENGTH_IN_BYTE" );
   sassert( resultLength <= MAX_RESULT_LENGTH_IN_BYTE,
            "resultLength <= MAX_RESULT_LENGTH_IN_BYTE" );
   *raw = emptyImageOf( chipId_ );
   Corvo::Bytes const& key = key_.bytes();
   Corvo::Bytes const& result = result_.bytes();
   std::memcpy( keyOf( *raw ), key.bytesPtr(), std::min( keyLength, key.size() ) );
   std::memcpy(
      resultOf( *raw, keyLength ), result.bytesPtr(), std::min( resultLength, result.size() ) );
}

void EmTableEntry::copyFromBuf( EmTableEntryRaw const* raw, U32 keyLength, U32 resultLength ) {
   traceImageCopy( "copyFromBuf", keyLength, resultLength );
   if ( raw->valid == 0 ) {
      return;
   }
   EntryKey key = makeEmTableKey( keyOf( *raw ), keyLength );
   result_ = makeEmTableResult( resultOf( *raw, keyLength ), resultLength );
   key_ = std::move( key );
   chipId_ = Brine::ChipId( raw->chipId );
   valid_ = true;
}

// Exported here: a friend declaration in a class takes no visibility.
[[gnu::visibility( "default" )]] std::strong_ordering operator<=>( EmTableEntry const& a,
                                                                   EmTableEntry const& b ) {
   if ( auto const order = a.valid_ <=> b.valid_; order != 0 ) {
      return order;
   }
   if ( auto const order = a.chipId_ <=> b.chipId_; order != 0 ) {
      return order;
   }
   if ( auto const order = a.key_ <=> b.key_; order != 0 ) {
      return order;
   }
   return a.result_ <=> b.result_;
}

// --------------------------------------------------------------------------- EmTableFapIndices

Corvo::Ptr<EmTableFapIndices> EmTableFapIndices::EmTableFapIndicesIs() {
   return Corvo::makePtr<EmTableFapIndices>();
}

/// An object and room for its members in one block.
class [[gnu::visibility( "hidden" )]] EmTableFapIndices::WithMembers final
      : public EmTableFapIndices {
 public:
   explicit WithMembers( U16 capacity )
         : EmTableFapIndices( reinterpret_cast<U32*>( this + 1 ), capacity ) {}

   static void* operator new( std::size_t size, U16 capacity ) {
      std::size_t const bytes = sizeof( Head ) + size + wordsFor( capacity ) * sizeof( U32 );
      auto* const head = ::new ( Quarry::slabAllocOrStdMalloc( bytes ) ) Head{ bytes };
      memAllocationTracker_.allocationInc();
      return head + 1;
   }
   static void operator delete( void* object, std::size_t /*size*/ ) noexcept {
      Head* const head = static_cast<Head*>( object ) - 1;
      memAllocationTracker_.allocationDec();
      Quarry::slabFreeOrStdFree( head, head->bytes );
   }

 private:
   /// In front of the object, which is gone when its memory is given back.
   struct alignas( 16 ) Head {
      std::size_t bytes; ///< of the block
   };
};

Corvo::Ptr<EmTableFapIndices> EmTableFapIndices::withRoomFor( U32 members ) {
   if ( members <= inlineMembers ) {
      return EmTableFapIndicesIs();
   }
   U16 const capacity = static_cast<U16>( std::bit_ceil( members ) );
   return Corvo::Ptr<EmTableFapIndices>::adopt( new ( capacity ) WithMembers( capacity ) );
}

Corvo::Ptr<EmTableFapIndices> emTableFapIndicesFactory() {
   return EmTableFapIndices::EmTableFapIndicesIs();
}

U32 EmTableFapIndices::placeOf( Brine::ChipId chip ) const {
   void const* const at = std::memchr( chips(), chip.value(), count_ );
   return at ? static_cast<U32>( static_cast<U8 const*>( at ) - chips() ) : count_;
}

void EmTableFapIndices::indexIs( Brine::ChipId chip, EmTableIndex slot ) {
   U32 const at = placeOf( chip );
   if ( at == count_ ) {
      makeRoom();
      chips()[ at ] = chip.value();
      ++count_;
   }
   slots_[ at ] = slot.value();
}

EmTableIndex EmTableFapIndices::indexDel( Brine::ChipId chip ) {
   U32 const place = placeOf( chip );
   if ( place == count_ ) {
      return {};
   }
   EmTableIndex const removed( slots_[ place ] );
   --count_;
   slots_[ place ] = slots_[ count_ ];
   chips()[ place ] = chips()[ count_ ];
   return removed;
}

U32 EmTableFapIndices::nextChip( U32 from ) const {
   U32 lowest = 256;
   for ( U32 i = 0; i < count_; ++i ) {
      U32 const chip = chips()[ i ];
      if ( chip >= from && chip < lowest ) {
         lowest = chip;
      }
   }
   return lowest;
}

void EmTableFapIndices::makeRoom() {
   if ( count_ < capacity_ ) {
      return;
   }
   U16 const larger = static_cast<U16>( capacity_ * 2 );
   auto memory = std::make_unique_for_overwrite<U32[]>( wordsFor( larger ) );
   std::copy_n( slots_, count_, memory.get() );
   std::copy_n( chips(), count_, reinterpret_cast<U8*>( memory.get() + larger ) );
   more_ = std::move( memory );
   slots_ = more_.get();
   capacity_ = larger;
}

} // namespace Tessel
