// SPDX-License-Identifier: Apache-2.0
#include "Tessel/TableManager.h"

#include "Weft/Contract.h"
#include "Weft/Hash.h"
#include "Weft/Trace.h"
#include "WeftCorvo/Describe.h"

#include <algorithm>

namespace Tessel {

Weft::AllocTrackTypeInfo TableManager::memAllocationTracker_;

namespace {

constexpr Weft::SassertHelper sassert{ "TableManager" };
Weft::TraceHelper const trace{ "TesselTableManager" };

constexpr U64 addressableBytes = U64{ 1 } << 32;

static_assert( sizeof( EmTableHeader ) == 44 );
static_assert( offsetof( EmTableHeader, headerMagic ) == 0 );
static_assert( offsetof( EmTableHeader, tableName ) == 4 );
static_assert( offsetof( EmTableHeader, tableShadowSize ) == 36 );
static_assert( offsetof( EmTableHeader, tableOffset ) == 40 );
static_assert( sizeof( EmTableTrailer ) == 8 );

EmTableHeader headerFor( Corvo::String const& name, U32 shadowSize, U64 tableOffset ) {
   EmTableHeader header{ .headerMagic = EmTableHeader::magic,
                         .tableName = {},
                         .tableShadowSize = shadowSize,
                         .tableOffset = static_cast<U32>( tableOffset ) };
   std::string_view const upToNul( name.c_str() );
   upToNul.copy( header.tableName.data(), EmTableHeader::nameCapacity - 1 );
   return header;
}

} // namespace

/// A table just registered, taken out again unless it is kept.
class TableManager::NewTable {
 public:
   NewTable( TableManager& manager, ManagedTableBase::Ptr const& table )
         : manager_( manager ), table_( table ) {
      manager_.managedTableIs( table_->tableName(), table_ );
   }
   NewTable( NewTable const& ) = delete;
   NewTable& operator=( NewTable const& ) = delete;
   ~NewTable() {
      if ( !kept_ ) {
         manager_.managedTableDel( table_->tableName() );
      }
   }
   ManagedTableBase::Ptr keep() {
      kept_ = true;
      return table_;
   }

 private:
   TableManager& manager_;
   ManagedTableBase::Ptr table_;
   bool kept_ = false;
};

U32 TableManager::NameHash::operator()( Corvo::String const& name ) const {
   Weft::Hash hash;
   hash.mixNi( name.data(), static_cast<U32>( name.size() ) );
   return hash.result();
}

TableManager::TableManager( Corvo::String const& agentName,
                            Corvo::Ptr<Vellum::VellumChunk> const& vellumChunk,
                            U32 startOffset,
                            U32 allowedSize )
      : agentName_( agentName ), vellumChunk_( vellumChunk ), startOffset_( startOffset ),
        allowedSize_( allowedSize ), currentOffset_( startOffset ) {}

TableManager::~TableManager() {
   hasNotificationActiveIs( false );
   TableManager::weftDoZombieReactors( true );
}

Corvo::Ptr<TableManager>
TableManager::TableManagerIs( Corvo::String const& agentName,
                              Corvo::Ptr<Vellum::VellumChunk> const& vellumChunk,
                              U32 startOffset,
                              U32 allowedSize ) {
   auto manager = Corvo::makePtr<TableManager>( agentName, vellumChunk, startOffset, allowedSize );
   manager->hasNotificationActiveIs( true );
   return manager;
}

Corvo::Ptr<TableManager> tableManagerFactory( Corvo::String const& agentName,
                                              Corvo::Ptr<Vellum::VellumChunk> const& vellumChunk,
                                              U32 startOffset,
                                              U32 allowedSize ) {
   return TableManager::TableManagerIs( agentName, vellumChunk, startOffset, allowedSize );
}

void TableManager::setVellum( Corvo::Ptr<Vellum::VellumChunk> const& chunk,
                              U32 startingOffset,
                              U32 allowedSize ) {
   trace( 0, "setVellum", " startOffset: ", startingOffset, " allowedSize: ", allowedSize );
   sassert( !vellumChunk_, "!vellumChunk()", "vellumChunk has already been set!" );
   vellumChunk_ = chunk;
   startOffset_ = startingOffset;
   currentOffset_ = startingOffset;
   allowedSize_ = allowedSize;
}

ManagedTableBase::Ptr TableManager::held( Corvo::String const& tableName,
                                          char const* operation ) const {
   trace( { 0, operation },
          "Tessel::ManagedTableBase::Ptr Tessel::TableManager::",
          operation,
          "(const String&, const Ptr&)tableName: ",
          std::string_view( tableName ) );
   sassert( bool( vellumChunk_ ),
            { "vellumChunk()", operation },
            "vellumChunk must be set before managing any tables" );
   return managedTable( tableName );
}

void TableManager::checkFit( U64 end, Weft::ContractSite site ) const {
   U64 const rangeEnd = U64{ startOffset_ } + allowedSize_;
   sassert( end <= rangeEnd && rangeEnd <= addressableBytes, site );
}

ManagedTableBase::Ptr
TableManager::manageDirectShadow( Corvo::String const& tableName,
                                  Corvo::Ptr<DirectTableHelper> const& tableHelper ) {
   if ( auto before = held( tableName ) ) {
      return before;
   }
   checkFit( currentOffset_ );
   auto const table =
      directShadowTableFactory( tableName, tableHelper, vellumChunk_, currentOffset() );
   managedTableIs( tableName, table );
   currentOffset_ += table->tableShadowSize();
   return table;
}

ManagedTableBase::Ptr
TableManager::manageEmShadow( Corvo::String const& tableName,
                              Corvo::Ptr<EmTableHelper> const& emTableHelper ) {
   if ( auto before = held( tableName ) ) {
      return before;
   }
   sassert( bool( emTableHelper ), "emTableHelper" );
   U64 const tableOffset = currentOffset_ + sizeof( EmTableHeader );
   U64 const end =
      tableOffset + EmShadowTable::rangeBytes( *emTableHelper ) + sizeof( EmTableTrailer );
   // A geometry past the limits has its own failure, which the table raises before it reads a byte.
   if ( EmShadowTable::withinLimits( *emTableHelper ) ) {
      checkFit( end );
   }
   auto const table = emShadowTableFactory(
      tableName, emTableHelper, vellumChunk_, static_cast<U32>( tableOffset ) );
   NewTable registered( *this, table );
   writeFrame( headerFor( tableName, table->tableShadowSize(), tableOffset ) );
   currentOffset_ = end;
   return registered.keep();
}

void TableManager::writeFrame( EmTableHeader const& header ) {
   // The trailer first: it lies highest, so when the chunk refuses a write, it refuses this one and
   // no byte of the frame has changed.
   writeUnlessThere( U64{ header.tableOffset } + header.tableShadowSize,
                     EmTableTrailer{ EmTableTrailer::magic } );
   writeUnlessThere( header.tableOffset - sizeof( EmTableHeader ), header );
}

template<class Record>
void TableManager::writeUnlessThere( U64 offset, Record const& record ) {
   Record there{};
   vellumChunk_->readAt( offset, &there, sizeof there );
   if ( there != record ) {
      vellumChunk_->writeAt( offset, &record, sizeof record );
   }
}

void TableManager::deleteAll( Brine::ChipId chipId ) {
   for ( ManagedTables::Cursor at( managedTables_ ); at.onMember(); at.advance() ) {
      auto const table = ManagedTableBase::Ptr( at.value() ); // outlives its own removal
      table->deleteAll( chipId );
   }
}

// NOLINTNEXTLINE(readability-make-member-function-const): it changes what the manager owns
void TableManager::clearTable( Corvo::String const& tableName ) {
   if ( auto const table = managedTable( tableName ) ) {
      table->clearTable();
   }
}

ManagedTableBase::Ptr TableManager::managedTable( Corvo::String const& tableName ) const {
   auto const* const table = managedTables_.find( tableName );
   return table ? *table : nullptr;
}

void TableManager::managedTableIs( Corvo::String const& tableName,
                                   ManagedTableBase::Ptr const& table ) {
   if ( table ) {
      managedTables_.set( tableName, table );
   } else {
      managedTableDel( tableName );
   }
}

ManagedTableBase::Ptr TableManager::managedTableDel( Corvo::String const& tableName ) {
   return managedTables_.del( tableName ).value_or( nullptr );
}

void TableManager::managedTableDelAll() {
   managedTables_.delAll();
}

void TableManager::flagIs( U32 flag, bool value ) {
   if ( nodeFlag( flag ) != value ) {
      nodeFlagSet( flag, value );
   }
}

void TableManager::hasNotificationActiveIs( bool active ) {
   flagIs( notificationActiveFlag, active );
}

void TableManager::weftDoZombieReactors( bool zombie ) {
   flagIs( zombieReactorsFlag, zombie );
}

// ------------------------------------------------------------------------- in the registry

Weft::TypeData TableManager::typeData() const {
   return { &_TableManager_511c2136f66f7356_weftModule, 0 };
}

Weft::TypeInfo const& TableManager::fwkType() const {
   return Weft::fwkType( TableManager::typeData() );
}

namespace {

void describe( Weft::TypeList& types ) {
   using Manager = TableManager;
   WeftCorvo::entityType<Manager>( types, "Tessel::TableManager" )
      .doc( "Owns the tables of one agent and gives each its range of the chunk, one after the "
            "other." )
      .creator( &Manager::TableManagerIs, "agentName", "vellumChunk", "startOffset", "allowedSize" )
      .lengthy()
      .constant( "agentName", &Manager::agentName )
      .doc( "Its name." )
      .readOnly( "vellumChunk", &Manager::vellumChunk )
      .doc( "The chunk that its tables share." )
      .readOnly( "startOffset", &Manager::startOffset )
      .doc( "Where its part of the chunk begins, in bytes." )
      .readOnly( "allowedSize", &Manager::allowedSize )
      .doc( "Bytes of the chunk that it may use." )
      .hidden<U32>( "currentOffset" )
      .opConst( "endOffset", &Manager::endOffset )
      .doc( "Where its part of the chunk ends, in bytes." )
      .op( "setVellum", &Manager::setVellum, "chunk", "startingOffset", "allowedSize" )
      .doc( "Hands over the chunk, when there is none yet, and the range." )
      .op( "manageDirectShadow", &Manager::manageDirectShadow, "tableName", "tableHelper" )
      .doc( "The direct-indexed table of this name; makes it when there is none." )
      .lengthy()
      .op( "manageEmShadow", &Manager::manageEmShadow, "tableName", "emTableHelper" )
      .doc( "The exact-match table of this name; makes it, with the entries found in its range, "
            "when there is none." )
      .lengthy()
      .op( "deleteAll", &Manager::deleteAll, "chipId" )
      .doc( "Removes every entry of a chip from every table." )
      .lengthy()
      .op( "clearTable", &Manager::clearTable, "tableName" )
      .doc( "Removes every entry of the table of this name." )
      .lengthy()
      .collection( "managedTable",
                   &Manager::managedTable,
                   &Manager::managedTableIs,
                   &Manager::managedTableDel,
                   &Manager::managedTables )
      .doc( "Its tables, by name." );
}

} // namespace

} // namespace Tessel

constinit Weft::Module const _TableManager_511c2136f66f7356_weftModule( "TableManager",
                                                                        Tessel::describe );

namespace {

[[gnu::init_priority( 2006 )]] Weft::ModuleRegistration const
   registration( _TableManager_511c2136f66f7356_weftModule );

} // namespace
