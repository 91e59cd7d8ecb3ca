// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Geometry records: how many entries a table has, and how long a key and a result are.
///
/// No value is checked here; a table checks what it cannot hold when it is built.
///
/// Threads: immutable after creation, and shared by any number of tables and threads; references
/// follow Corvo::ThreadControl::tsp_.

#include "Corvo/Ptr.h"

namespace Weft {
class Module;
class TypeInfo;
} // namespace Weft

/// The module's record in the type registry.
[[gnu::visibility( "default" )]] extern Weft::Module const _TableHelper_c2d35676720714fb_weftModule;

namespace Tessel {

class [[gnu::visibility( "default" )]] TableHelper : public Corvo::Node {
 public:
   TableHelper( U32 numEntries, U32 keyLengthBytes, U32 resultLengthBytes )
         : numEntries_( numEntries ), keyLengthBytes_( keyLengthBytes ),
           resultLengthBytes_( resultLengthBytes ) {}

   /// A new record. std::bad_alloc.
   static Corvo::Ptr<TableHelper>
   TableHelperIs( U32 numEntries, U32 keyLengthBytes, U32 resultLengthBytes );

   /// Entries (slots) that the table has.
   U32 numEntries() const { return numEntries_; }
   /// Bytes of every key of the table.
   U32 keyLengthBytes() const { return keyLengthBytes_; }
   /// Bytes of every result of the table.
   U32 resultLengthBytes() const { return resultLengthBytes_; }

   Weft::TypeData typeData() const override;
   /// The descriptor of the object's dynamic type.
   Weft::TypeInfo const& fwkType() const;

   static Weft::AllocTrackTypeInfo memAllocationTracker_;

 private:
   U32 numEntries_;
   U32 keyLengthBytes_;
   U32 resultLengthBytes_;
};

/// The geometry of a direct-indexed table.
class [[gnu::visibility( "default" )]] DirectTableHelper : public TableHelper {
 public:
   using TableHelper::TableHelper;

   /// A new record. std::bad_alloc.
   static Corvo::Ptr<DirectTableHelper>
   DirectTableHelperIs( U32 numEntries, U32 keyLengthBytes, U32 resultLengthBytes );

   Weft::TypeData typeData() const override;
   static Weft::AllocTrackTypeInfo memAllocationTracker_;
};

/// The geometry of an exact-match table.
class [[gnu::visibility( "default" )]] EmTableHelper : public TableHelper {
 public:
   using TableHelper::TableHelper;

   /// A new record. std::bad_alloc.
   static Corvo::Ptr<EmTableHelper>
   EmTableHelperIs( U32 numEntries, U32 keyLengthBytes, U32 resultLengthBytes );

   Weft::TypeData typeData() const override;
   static Weft::AllocTrackTypeInfo memAllocationTracker_;
};

/// New records, as the static creators make them. The entry count comes first.
[[gnu::visibility( "default" )]] Corvo::Ptr<TableHelper>
tableHelperFactory( U32 numEntries, U32 keyLengthBytes, U32 resultLengthBytes );
[[gnu::visibility( "default" )]] Corvo::Ptr<DirectTableHelper>
directTableHelperFactory( U32 numEntries, U32 keyLengthBytes, U32 resultLengthBytes );
[[gnu::visibility( "default" )]] Corvo::Ptr<EmTableHelper>
emTableHelperFactory( U32 numEntries, U32 keyLengthBytes, U32 resultLengthBytes );

} // namespace Tessel
