// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The keyed collection of the type system: a hash map whose walks tolerate removals.
///
/// Threads: none of its own; use one map from one thread at a time.

#include "Weft/FlatTable.h"

#include <optional>

namespace Weft {

/// `HashOf` gives the 32-bit hash of a key. The order of members carries no meaning.
template<class Key, class Value, class HashOf>
class HashMap {
   struct Member {
      Key key;
      Value value;
   };
   struct MemberHash {
      U64 operator()( Member const& member ) const { return hashOf( member.key ); }
   };
   using Table = FlatTable<Member, MemberHash>;

   static U64 hashOf( Key const& key ) { return widened( HashOf()( key ) ); }

 public:
   /// Members now.
   U64 count() const { return members_.size(); }
   /// Members held before the map takes more memory.
   U64 capacity() const { return members_.capacity(); }

   /// The member's value, valid until the map is changed; null when the key is absent.
   Value const* find( Key const& key ) const {
      auto const at = positionOf( key );
      return at == Table::nowhere ? nullptr : &members_[ at ].value;
   }

   /// Adds the member or replaces its value. std::bad_alloc leaves the map as it was.
   void set( Key const& key, Value value ) {
      if ( auto const at = positionOf( key ); at != Table::nowhere ) {
         std::swap( members_[ at ].value, value );
         return;
      }
      Member member{ key, std::move( value ) };
      members_.makeRoom();
      members_.insert( hashOf( key ), std::move( member ) );
   }

   /// Removes the member and returns its value; nothing when the key is absent.
   std::optional<Value> del( Key const& key ) {
      auto const at = positionOf( key );
      if ( at == Table::nowhere ) {
         return std::nullopt;
      }
      return members_.erase( at, hashOf( key ) ).value;
   }

   void delAll() noexcept { members_.clear(); }

   /// A place in a walk over the map. The member under it and any other may be removed while the
   /// walk goes on; a member added meanwhile may be met or not, and may make the walk meet others
   /// twice or not at all.
   class Cursor {
    public:
      explicit Cursor( HashMap const& map ) : map_( &map ), at_( map.members_.next( 0 ) ) {}
      /// Stands on `key`, or on no member when it is absent.
      Cursor( HashMap const& map, Key const& key ) : map_( &map ), at_( map.positionOf( key ) ) {}

      bool onMember() const { return at_ != Table::nowhere && map_->members_.next( at_ ) == at_; }
      /// The member's key and value; only while onMember(), and valid until the map is changed.
      Key const& key() const { return map_->members_[ at_ ].key; }
      Value const& value() const { return map_->members_[ at_ ].value; }
      void advance() {
         if ( at_ != Table::nowhere ) {
            at_ = map_->members_.next( at_ + 1 );
         }
      }

    private:
      HashMap const* map_;
      typename Table::Position at_;
   };

 private:
   typename Table::Position positionOf( Key const& key ) const {
      return members_
         .find( hashOf( key ), [ & ]( Member const& member ) { return member.key == key; } )
         .position;
   }

   Table members_;
};

} // namespace Weft
