// SPDX-License-Identifier: Apache-2.0
#pragma once

/// A module of made-up types, described to the registry as a user's own would be.
///
/// Threads: as the registry.

#include "Brine/BrineTypes.h"
#include "Brine/ChipId.h"
#include "Weft/HashMap.h"
#include "WeftCorvo/Describe.h"

#include <utility>

namespace House {

extern Weft::Module const rooms;

/// A value with every kind of stored slot.
struct Colour {
   bool lit = false;
   U16 shade = 0;
   Corvo::String name;
   Corvo::Bytes raw;
   Brine::ChipId chip{ 7 };

   Colour() = default;
   Colour( U16 theShade, Corvo::String theName )
         : shade( theShade ), name( std::move( theName ) ) {}
   explicit Colour( Weft::CharRange text ) {
      WeftCorvo::readAttributes( text,
                                 "House::Colour",
                                 "lit",
                                 lit,
                                 "shade",
                                 shade,
                                 "name",
                                 name,
                                 "raw",
                                 raw,
                                 "chip",
                                 chip );
   }
   void shadeIs( U16 value ) { shade = value; }
   U16 mixed( Colour const& other ) const { return static_cast<U16>( shade + other.shade ); }
   explicit operator bool() const { return shade != 0; }
   U32 hash() const { return shade; }
   friend bool operator==( Colour const&, Colour const& ) = default;
   friend bool operator<( Colour const& a, Colour const& b ) { return a.shade < b.shade; }
};

class Room : public Corvo::Node {
 public:
   explicit Room( Corvo::String name ) : name_( std::move( name ) ) {}
   static Corvo::Ptr<Room> RoomIs( Corvo::String const& name ) {
      return Corvo::makePtr<Room>( name );
   }
   Corvo::String const& name() const { return name_; }
   U32 area() const { return area_; }
   void areaIs( U32 area ) { area_ = area; }
   Corvo::Ptr<Room const> next() const { return next_; }
   void nextIs( Corvo::Ptr<Room const> const& next ) { next_ = next; }
   virtual Corvo::String kind() const { return "room"; }
   U32 grown( U32 by ) { return area_ += by; }
   U32 grown( U32 by, U32 times ) { return area_ += by * times; }
   Weft::TypeData typeData() const override { return { &rooms, 1 }; }

   Colour scene( Corvo::String const& name ) const {
      auto const* found = scenes_.find( name );
      return found ? *found : Colour();
   }
   void sceneIs( Corvo::String const& name, Colour const& colour ) { scenes_.set( name, colour ); }
   Colour sceneDel( Corvo::String const& name ) { return scenes_.del( name ).value_or( Colour() ); }
   auto const& scenes() const { return scenes_; }

   Corvo::Ptr<Brine::HBitmap> bitmap() const { return bitmap_; }
   void bitmapIs( U64 id, U32 size, Brine::HBitmap::BitState state ) {
      bitmap_ = Corvo::makePtr<Brine::HBitmap>( id, size, state );
   }
   Corvo::Ptr<Brine::HBitmap> bitmapDel() { return std::exchange( bitmap_, nullptr ); }

   static inline Weft::AllocTrackTypeInfo memAllocationTracker_;

 private:
   struct NameHash {
      U32 operator()( Corvo::String const& name ) const {
         return WeftCorvo::foldedHash( std::hash<Corvo::String>()( name ) );
      }
   };

   Corvo::String name_;
   U32 area_ = 0;
   Corvo::Ptr<Room const> next_;
   Corvo::Ptr<Brine::HBitmap> bitmap_;
   Weft::HashMap<Corvo::String, Colour, NameHash> scenes_;
};

class Kitchen : public Room {
 public:
   using Room::Room;
   Corvo::String kind() const override { return "kitchen"; }
   Weft::TypeData typeData() const override { return { &rooms, 2 }; }
   static inline Weft::AllocTrackTypeInfo memAllocationTracker_;
};

/// A value that refers to an entity, and one derived from it.
struct Visit {
   Corvo::Ptr<Room const> room;

   Visit() = default;
   virtual ~Visit() = default;
   Visit( Visit const& ) = default;
   Visit& operator=( Visit const& ) = default;
   explicit Visit( Weft::CharRange text )
         : room(
              WeftCorvo::readAttribute<Corvo::Ptr<Room const>>( text, "House::Visit", "room" ) ) {}
   bool operator==( Visit const& ) const = default;
};

struct LongVisit : Visit {
   U32 days = 0;
   Colour colour;

   LongVisit() = default;
   explicit LongVisit( Weft::CharRange text ) {
      WeftCorvo::readAttributes(
         text, "House::LongVisit", "room", room, "days", days, "colour", colour );
   }
   bool operator==( LongVisit const& ) const = default;
};

/// How often the module was described.
int describings();

} // namespace House
