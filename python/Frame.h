// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The memory of one call into the registry: a slot per argument, and one for the result.
///
/// Threads: as python/Convert.h.

#include "python/Convert.h"

#include <array>
#include <cstddef>
#include <memory>
#include <vector>

namespace TesselPython {

/// Where the slots lie in a frame; the same for every call of one operation.
class Layout {
 public:
   void add( Converter const& converter ) {
      std::size_t const alignment = converter.alignment();
      size_ = ( size_ + alignment - 1 ) / alignment * alignment;
      slots_.push_back( { &converter, size_ } );
      size_ += converter.size();
   }

   std::size_t count() const { return slots_.size(); }
   std::size_t size() const { return size_; }
   Converter const& converter( std::size_t slot ) const { return *slots_[ slot ].converter; }
   std::size_t offset( std::size_t slot ) const { return slots_[ slot ].offset; }

 private:
   struct Slot {
      Converter const* converter;
      std::size_t offset;
   };

   std::vector<Slot> slots_;
   std::size_t size_ = 0;
};

/// Slots are built one after the other and destroyed together, last one first.
class Frame {
 public:
   explicit Frame( Layout const& layout ) : layout_( layout ) {
      if ( layout.count() > usual_.size() ) {
         manySlots_ = std::make_unique<void*[]>( layout.count() );
         slots_ = manySlots_.get();
      }
      if ( layout.size() > usualBytes_.size() ) {
         manyBytes_ = std::make_unique<Unit[]>( layout.size() / sizeof( Unit ) + 1 );
         bytes_ = manyBytes_[ 0 ].bytes;
      }
   }
   Frame( Frame const& ) = delete;
   Frame& operator=( Frame const& ) = delete;
   ~Frame() {
      while ( built_ > 0 ) {
         --built_;
         if ( slots_[ built_ ] == room( built_ ) ) {
            layout_.converter( built_ ).destroy( slots_[ built_ ] );
         }
      }
   }

   /// Builds the next slot, from an object or empty.
   void* build( PyObject* object ) {
      void* const slot = room( built_ );
      layout_.converter( built_ ).build( slot, object );
      return slots_[ built_++ ] = slot;
   }
   void* buildEmpty() {
      void* const slot = room( built_ );
      layout_.converter( built_ ).buildEmpty( slot );
      return slots_[ built_++ ] = slot;
   }
   /// Lets a slot of somebody else, which is only read, stand in the place of the next one.
   void borrow( void const* slot ) { slots_[ built_++ ] = const_cast<void*>( slot ); }

   std::size_t built() const { return built_; }
   void* const* slots() const { return slots_; }
   py::object object( std::size_t slot ) const {
      return layout_.converter( slot ).object( slots_[ slot ] );
   }

 private:
   struct alignas( std::max_align_t ) Unit {
      std::byte bytes[ alignof( std::max_align_t ) ];
   };

   void* room( std::size_t slot ) const { return bytes_ + layout_.offset( slot ); }

   Layout const& layout_;
   std::size_t built_ = 0;
   alignas( std::max_align_t ) std::array<std::byte, 256> usualBytes_;
   std::array<void*, 8> usual_;
   std::unique_ptr<Unit[]> manyBytes_;
   std::unique_ptr<void*[]> manySlots_;
   std::byte* bytes_ = usualBytes_.data();
   void** slots_ = usual_.data();
};

/// Builds the frame's next slot; a Refusal says that the object was given as `place`.
inline void buildNamed( Frame& frame, PyObject* object, std::string const& place ) {
   try {
      frame.build( object );
   } catch ( Refusal& refusal ) {
      refusal.placeIs( place );
      throw;
   }
}

} // namespace TesselPython
