// SPDX-License-Identifier: Apache-2.0
#include "Tessel/DirectTable.h"

#include "WeftCorvo/Describe.h"

namespace Tessel {

Weft::AllocTrackTypeInfo DirectShadowTable::memAllocationTracker_;

Corvo::Ptr<DirectShadowTable>
DirectShadowTable::DirectShadowTableIs( Corvo::String const& tableName,
                                        Corvo::Ptr<TableHelper const> const& tableHelper,
                                        Corvo::Ptr<Vellum::VellumChunk> const& vellumChunk,
                                        U32 vellumOffset ) {
   return Corvo::makePtr<DirectShadowTable>( tableName, tableHelper, vellumChunk, vellumOffset );
}

ManagedTableIteratorConst DirectShadowTable::managedTableIteratorConst() const {
   return ManagedTableIteratorConst::doneOver( Corvo::Ptr<ManagedTableBase const>( this ) );
}

Corvo::Ptr<DirectShadowTable>
directShadowTableFactory( Corvo::String const& tableName,
                          Corvo::Ptr<TableHelper const> const& tableHelper,
                          Corvo::Ptr<Vellum::VellumChunk> const& vellumChunk,
                          U32 vellumOffset ) {
   return DirectShadowTable::DirectShadowTableIs(
      tableName, tableHelper, vellumChunk, vellumOffset );
}

Weft::TypeData DirectShadowTable::typeData() const {
   return { &_DirectTable_4d49a269868ec5f0_weftModule, 0 };
}

namespace {

void describe( Weft::TypeList& types ) {
   WeftCorvo::entityType<DirectShadowTable, ManagedTableBase>( types, "Tessel::DirectShadowTable" )
      .doc( "A direct-indexed table: a name and a geometry, without entries and without shadow "
            "memory." )
      .creator( &DirectShadowTable::DirectShadowTableIs,
                "tableName",
                "tableHelper",
                "vellumChunk",
                "vellumOffset" );
}

} // namespace

} // namespace Tessel

constinit Weft::Module const _DirectTable_4d49a269868ec5f0_weftModule( "DirectTable",
                                                                       Tessel::describe );

namespace {

[[gnu::init_priority( 2004 )]] Weft::ModuleRegistration const
   registration( _DirectTable_4d49a269868ec5f0_weftModule );

} // namespace
