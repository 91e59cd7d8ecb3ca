// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The keys of a table's pairs in the order of their slots. Internal to EmTable.
///
/// Slots are handed out from the lowest on, so the array fills up from the front: what is added next to each
/// other lies next to each other, as the images do. What lies in a slot that no pair has means nothing.
///
///    taken    a bit per slot: 1 if a pair has it. Kept from the moment on when a caller can give a slot
///             to two pairs; before that, nobody has to ask.
///    keys     a KeyOfSlot per slot
///
/// Threads: as the table.

#include "Tessel/KeyElement.h"
#include "Weft/ArrayMemory.h"
#include "Weft/FlatSearch.h"

#include <cstring>

namespace Tessel {

template<std::size_t wordCount>
class KeysBySlot {
   using Key = KeyOfSlot<wordCount>;

 public:
   /// std::bad_alloc when there is no memory for them. What is not touched takes none.
   explicit KeysBySlot( U32 slots )
         : slots_( slots ), memory_( memoryFor( slots ) ),
           keys_( reinterpret_cast<Key*>( memory_.bytes() + takenBytes( slots ) ) ) {}

   /// The keys alone, for who asks often. Good as long as the array, wherever that is moved.
   class View {
    public:
      View() = default;
      explicit View( Key* first ) : first_( first ) {}

      Key& operator[]( EmTableIndex slot ) const { return first_[ slot.value() ]; }
      /// `slot` may be none.
      [[gnu::always_inline]] void fetch( EmTableIndex slot ) const {
         Weft::fetchBytes( first_, slot.value() * sizeof( Key ), sizeof( Key ) );
      }

    private:
      Key* first_ = nullptr;
   };
   View view() const { return keys_; }

   /// Whether it is known of each slot if it is taken.
   bool tracks() const { return tracks_; }
   /// From now on. `forEachTaken( visit )` calls `visit( slot )` for every slot that is taken.
   template<class ForEachTaken>
   void track( ForEachTaken const& forEachTaken ) {
      std::memset( memory_.bytes(), 0, takenBytes( slots_ ) );
      forEachTaken( [ & ]( EmTableIndex slot ) { takenWord( slot ) |= takenBit( slot ); } );
      tracks_ = true;
   }
   void trackNoMore() { tracks_ = false; }

   // Of an array that tracks:

   /// Takes a slot; false when it is taken, or when there is no such slot.
   bool take( EmTableIndex slot ) {
      if ( slot.value() >= slots_ || ( takenWord( slot ) & takenBit( slot ) ) != 0 ) {
         return false;
      }
      takenWord( slot ) |= takenBit( slot );
      return true;
   }
   void giveBack( EmTableIndex slot ) { takenWord( slot ) &= ~takenBit( slot ); }

 private:
   static constexpr U64 wordBits = 64;

   static U64 takenBytes( U32 slots ) {
      return ( U64{ slots } + wordBits - 1 ) / wordBits * sizeof( U64 );
   }
   static U64 takenBit( EmTableIndex slot ) { return U64{ 1 } << slot.value() % wordBits; }
   U64& takenWord( EmTableIndex slot ) {
      return reinterpret_cast<U64*>( memory_.bytes() )[ slot.value() / wordBits ];
   }

   static Weft::ArrayMemory memoryFor( U32 slots ) {
      using Weft::ArrayMemory;
      U64 const bytes = takenBytes( slots ) + slots * sizeof( Key );
      return bytes < ArrayMemory::hugePagesFrom ? ArrayMemory::fromHeap( bytes, 0 )
                                                : ArrayMemory::fromSystem( bytes );
   }

   U32 slots_;
   bool tracks_ = false;
   Weft::ArrayMemory memory_;
   View keys_;
};

} // namespace Tessel
