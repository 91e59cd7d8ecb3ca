// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The owner of one agent's tables, which carves the agent's share of a chunk into consecutive
/// ranges.
///
/// A direct table occupies nothing. An exact-match table is framed, all integers little-endian; the
/// manager writes the frame and nothing in the library reads it back:
///
///    offset           bytes   field
///    0                4       headerMagic       0xabcdef12
///    4                32      tableName         up to 31 bytes, zero behind them
///    36               4       tableShadowSize   bytes of the table's own range
///    40               4       tableOffset       chunk offset of the range: the header's own + 44
///    44                       the table's range (Tessel/EmTable.h)
///    44 + its size    8       trailerMagic      0x90abcdef12345678
///
/// Ranges are handed out in call order and never given back, so an agent that repeats its calls over
/// a live chunk gets the same ranges again, and with them its entries. A frame that stands in the
/// chunk already is not written again: such a restart changes no byte.
///
/// Contract failures name the source "TableManager"; after one, and after std::bad_alloc, manager,
/// tables and chunk are as they were before the call.
///
/// Threads: one manager is driven by one thread; references follow Corvo::ThreadControl::tsp_.

#include "Tessel/DirectTable.h"
#include "Tessel/EmTable.h"
#include "Weft/HashMap.h"

namespace Weft {
class Module;
}

/// The module's record in the type registry.
[[gnu::visibility(
   "default" )]] extern Weft::Module const _TableManager_511c2136f66f7356_weftModule;

namespace Tessel {

/// What lies in front of the range of an exact-match table.
struct EmTableHeader {
   static constexpr U32 magic = 0xabcdef12;
   static constexpr U32 nameCapacity = 32; ///< the last byte is always zero

   U32 headerMagic;
   std::array<char, nameCapacity> tableName;
   U32 tableShadowSize;
   U32 tableOffset;

   friend bool operator==( EmTableHeader const&, EmTableHeader const& ) = default;
};

/// What lies behind it.
struct EmTableTrailer {
   static constexpr U64 magic = 0x90abcdef12345678;

   U64 trailerMagic;

   friend bool operator==( EmTableTrailer const&, EmTableTrailer const& ) = default;
};

class [[gnu::visibility( "default" )]] TableManager : public Corvo::Node {
   struct NameHash {
      U32 operator()( Corvo::String const& name ) const;
   };

 public:
   using ManagedTables = Weft::HashMap<Corvo::String, ManagedTableBase::Ptr, NameHash>;

   /// `vellumChunk` may be null until setVellum. The manager uses the chunk's bytes from
   /// `startOffset` on, `allowedSize` of them.
   TableManager( Corvo::String const& agentName,
                 Corvo::Ptr<Vellum::VellumChunk> const& vellumChunk,
                 U32 startOffset,
                 U32 allowedSize );
   /// Drops the tables. Writes nothing to the chunk.
   ~TableManager() override;

   /// A new manager, with the notification-active flag set.
   static Corvo::Ptr<TableManager>
   TableManagerIs( Corvo::String const& agentName,
                   Corvo::Ptr<Vellum::VellumChunk> const& vellumChunk,
                   U32 startOffset,
                   U32 allowedSize );

   Corvo::String const& agentName() const { return agentName_; }
   Corvo::Ptr<Vellum::VellumChunk> vellumChunk() const { return vellumChunk_; }
   U32 startOffset() const { return startOffset_; }
   U32 allowedSize() const { return allowedSize_; }
   /// The next free chunk offset.
   U32 currentOffset() const { return static_cast<U32>( currentOffset_ ); }
   /// startOffset() + allowedSize(), modulo 2^32.
   U32 endOffset() const { return startOffset_ + allowedSize_; }

   /// Hands over the chunk and the range; a null chunk sets the range only. Contract failure
   /// "!vellumChunk()", message "vellumChunk has already been set!".
   void
   setVellum( Corvo::Ptr<Vellum::VellumChunk> const& chunk, U32 startingOffset, U32 allowedSize );

   /// The table held under this name, whatever its kind and geometry; else a new direct table.
   /// Contract failures: "vellumChunk()", message "vellumChunk must be set before managing any
   /// tables"; "currentOffset() <= endOffset()" when the manager's range passes 2^32.
   ManagedTableBase::Ptr manageDirectShadow( Corvo::String const& tableName,
                                             Corvo::Ptr<DirectTableHelper> const& tableHelper );
   /// The table held under this name, whatever its kind and geometry; else a new exact-match table
   /// with the entries that its range holds. Contract failures: as manageDirectShadow;
   /// "currentOffset() <= endOffset()" when the frame does not fit; "emTableHelper" without a
   /// geometry; those of EmShadowTable for its geometry and of the chunk for its bounds.
   ManagedTableBase::Ptr manageEmShadow( Corvo::String const& tableName,
                                         Corvo::Ptr<EmTableHelper> const& emTableHelper );

   /// Removes every entry of the chip from every table.
   void deleteAll( Brine::ChipId chipId );
   /// Removes every entry of the table of this name, if there is one.
   void clearTable( Corvo::String const& tableName );

   // ---- the tables by name

   /// Null when there is none of this name.
   ManagedTableBase::Ptr managedTable( Corvo::String const& tableName ) const;
   /// Adds or replaces; null removes. Chunk space is neither taken nor given back.
   void managedTableIs( Corvo::String const& tableName, ManagedTableBase::Ptr const& table );
   /// Removes and returns; null when absent.
   ManagedTableBase::Ptr managedTableDel( Corvo::String const& tableName );
   void managedTableDelAll();
   /// The whole collection, for counts and walks. Valid while the manager is.
   ManagedTables const& managedTables() const { return managedTables_; }

   /// Set and clear the flags of the reference word.
   void hasNotificationActiveIs( bool active );
   virtual void weftDoZombieReactors( bool zombie );

   Weft::TypeData typeData() const override;
   Weft::TypeInfo const& fwkType() const;
   static Weft::AllocTrackTypeInfo memAllocationTracker_;

 private:
   class NewTable;

   /// How both manage operations begin: the table held under this name, or null.
   ManagedTableBase::Ptr held( Corvo::String const& tableName,
                               char const* operation = __builtin_FUNCTION() ) const;
   void checkFit( U64 end, Weft::ContractSite site = "currentOffset() <= endOffset()" ) const;
   void flagIs( U32 flag, bool value );
   void writeFrame( EmTableHeader const& header );
   template<class Record>
   void writeUnlessThere( U64 offset, Record const& record );

   Corvo::String agentName_;
   Corvo::Ptr<Vellum::VellumChunk> vellumChunk_;
   U32 startOffset_;
   U32 allowedSize_;
   U64 currentOffset_;
   ManagedTables managedTables_;
};

/// As TableManager::TableManagerIs.
[[gnu::visibility( "default" )]] Corvo::Ptr<TableManager>
tableManagerFactory( Corvo::String const& agentName,
                     Corvo::Ptr<Vellum::VellumChunk> const& vellumChunk,
                     U32 startOffset,
                     U32 allowedSize );

} // namespace Tessel
