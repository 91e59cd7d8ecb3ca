// SPDX-License-Identifier: Apache-2.0
#include "Tessel/TableHelper.h"

#include "WeftCorvo/Describe.h"

namespace Tessel {

Weft::AllocTrackTypeInfo TableHelper::memAllocationTracker_;
Weft::AllocTrackTypeInfo DirectTableHelper::memAllocationTracker_;
Weft::AllocTrackTypeInfo EmTableHelper::memAllocationTracker_;

Corvo::Ptr<TableHelper>
TableHelper::TableHelperIs( U32 numEntries, U32 keyLengthBytes, U32 resultLengthBytes ) {
   return Corvo::makePtr<TableHelper>( numEntries, keyLengthBytes, resultLengthBytes );
}

Corvo::Ptr<DirectTableHelper> DirectTableHelper::DirectTableHelperIs( U32 numEntries,
                                                                      U32 keyLengthBytes,
                                                                      U32 resultLengthBytes ) {
   return Corvo::makePtr<DirectTableHelper>( numEntries, keyLengthBytes, resultLengthBytes );
}

Corvo::Ptr<EmTableHelper>
EmTableHelper::EmTableHelperIs( U32 numEntries, U32 keyLengthBytes, U32 resultLengthBytes ) {
   return Corvo::makePtr<EmTableHelper>( numEntries, keyLengthBytes, resultLengthBytes );
}

Corvo::Ptr<TableHelper>
tableHelperFactory( U32 numEntries, U32 keyLengthBytes, U32 resultLengthBytes ) {
   return TableHelper::TableHelperIs( numEntries, keyLengthBytes, resultLengthBytes );
}

Corvo::Ptr<DirectTableHelper>
directTableHelperFactory( U32 numEntries, U32 keyLengthBytes, U32 resultLengthBytes ) {
   return DirectTableHelper::DirectTableHelperIs( numEntries, keyLengthBytes, resultLengthBytes );
}

Corvo::Ptr<EmTableHelper>
emTableHelperFactory( U32 numEntries, U32 keyLengthBytes, U32 resultLengthBytes ) {
   return EmTableHelper::EmTableHelperIs( numEntries, keyLengthBytes, resultLengthBytes );
}

Weft::TypeData TableHelper::typeData() const {
   return { &_TableHelper_c2d35676720714fb_weftModule, 0 };
}

Weft::TypeData DirectTableHelper::typeData() const {
   return { &_TableHelper_c2d35676720714fb_weftModule, 1 };
}

Weft::TypeData EmTableHelper::typeData() const {
   return { &_TableHelper_c2d35676720714fb_weftModule, 2 };
}

Weft::TypeInfo const& TableHelper::fwkType() const {
   return Weft::fwkType( typeData() );
}

namespace {

void describe( Weft::TypeList& types ) {
   WeftCorvo::entityType<TableHelper>( types, "Tessel::TableHelper" )
      .doc( "The geometry of a table; it never changes." )
      .creator( &TableHelper::TableHelperIs, "numEntries", "keyLengthBytes", "resultLengthBytes" )
      .constant( "numEntries", &TableHelper::numEntries )
      .doc( "Slots." )
      .constant( "keyLengthBytes", &TableHelper::keyLengthBytes )
      .doc( "Bytes of every key." )
      .constant( "resultLengthBytes", &TableHelper::resultLengthBytes )
      .doc( "Bytes of every result." );
   WeftCorvo::entityType<DirectTableHelper, TableHelper>( types, "Tessel::DirectTableHelper" )
      .doc( "The geometry of a direct-indexed table." )
      .creator( &DirectTableHelper::DirectTableHelperIs,
                "numEntries",
                "keyLengthBytes",
                "resultLengthBytes" );
   WeftCorvo::entityType<EmTableHelper, TableHelper>( types, "Tessel::EmTableHelper" )
      .doc(
         "The geometry of an exact-match table: keys of at most 20 bytes, results of at most 12." )
      .creator(
         &EmTableHelper::EmTableHelperIs, "numEntries", "keyLengthBytes", "resultLengthBytes" );
}

} // namespace

} // namespace Tessel

constinit Weft::Module const _TableHelper_c2d35676720714fb_weftModule( "TableHelper",
                                                                       Tessel::describe );

namespace {

[[gnu::init_priority( 2002 )]] Weft::ModuleRegistration const
   registration( _TableHelper_c2d35676720714fb_weftModule );

} // namespace
