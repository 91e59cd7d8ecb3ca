// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The table kind of direct-indexed hardware tables: a name and a geometry among the manager's
/// tables. It keeps no entries, occupies no shadow memory and never touches any.
///
/// Threads: as Tessel/ManagedTableBase.h.

#include "Tessel/ManagedTableBase.h"

namespace Weft {
class Module;
}

/// The module's record in the type registry.
[[gnu::visibility( "default" )]] extern Weft::Module const _DirectTable_4d49a269868ec5f0_weftModule;

namespace Tessel {

class [[gnu::visibility( "default" )]] DirectShadowTable : public ManagedTableBase {
 public:
   using ManagedTableBase::ManagedTableBase;

   /// A new table. std::bad_alloc.
   static Corvo::Ptr<DirectShadowTable>
   DirectShadowTableIs( Corvo::String const& tableName,
                        Corvo::Ptr<TableHelper const> const& tableHelper,
                        Corvo::Ptr<Vellum::VellumChunk> const& vellumChunk,
                        U32 vellumOffset );

   bool isFull() const override { return false; }
   U32 tableShadowSize() const override { return 0; }
   /// False: nothing is stored.
   bool entryIs( Brine::ChipId, Weft::CharPtrConst, Weft::CharPtrConst ) override { return false; }
   void entryDel( Brine::ChipId, Weft::CharPtrConst ) override {}
   bool entryHas( Brine::ChipId, Weft::CharPtrConst ) const override { return false; }
   /// False: the result buffer is left untouched.
   bool entry( Brine::ChipId, Weft::CharPtrConst, Weft::CharPtr ) const override { return false; }
   /// An iterator that is done.
   ManagedTableIteratorConst managedTableIteratorConst() const override;
   void deleteAll( Brine::ChipId ) override {}
   void clearTable() override {}

   Weft::TypeData typeData() const override;
   static Weft::AllocTrackTypeInfo memAllocationTracker_;
};

/// As DirectShadowTable::DirectShadowTableIs.
[[gnu::visibility( "default" )]] Corvo::Ptr<DirectShadowTable>
directShadowTableFactory( Corvo::String const& tableName,
                          Corvo::Ptr<TableHelper const> const& tableHelper,
                          Corvo::Ptr<Vellum::VellumChunk> const& vellumChunk,
                          U32 vellumOffset );

} // namespace Tessel
