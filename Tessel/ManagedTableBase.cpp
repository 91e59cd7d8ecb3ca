// SPDX-License-Identifier: Apache-2.0
#include "Tessel/ManagedTableBase.h"

#include "Weft/Contract.h"
#include "Weft/Trace.h"
#include "WeftCorvo/Describe.h"

#include <cstdlib>
#include <cstring>
#include <ios>
#include <typeinfo>

namespace Tessel {

Weft::AllocTrackTypeInfo LocalMem::memAllocationTracker_;
Weft::AllocTrackTypeInfo ManagedTableReader::memAllocationTracker_;
Weft::AllocTrackTypeInfo ManagedTableBase::memAllocationTracker_;

namespace {

constexpr Weft::SassertHelper sassert{ "ManagedTableBase" };
Weft::TraceHelper const trace{ "TesselManagedTableBase" };

constexpr char const* unimplemented = "Must be implemented in the derived class";

/// The geometry of a table that must be there and have one.
TableHelper const& geometryOf( ManagedTableBase const* table, Weft::ContractSite tableSite ) {
   sassert( table != nullptr, tableSite );
   TableHelper const* const geometry = table->tableHelper().get();
   tableSite.condition = "table()->tableHelper()";
   sassert( geometry != nullptr, tableSite );
   return *geometry;
}

void checkLength( Corvo::Bytes const& given,
                  U32 expected,
                  char const* what,
                  Corvo::String const& tableName,
                  Weft::ContractSite site ) {
   sassert( given.size() == expected,
            site,
            what,
            " of ",
            given.size(),
            " bytes given; table \"",
            tableName,
            "\" takes ",
            expected );
}

void checkKey( Corvo::Bytes const& key, ManagedTableBase const* table, Weft::ContractSite site ) {
   U32 const expected = geometryOf( table, site ).keyLengthBytes();
   site.condition = "key.size() == tableHelper()->keyLengthBytes()";
   checkLength( key, expected, "key", table->tableName(), site );
}

/// A byte string of `length` bytes that `fill` has written, or an empty one when it found nothing.
template<class Fill>
Corvo::Bytes filled( U32 length, Fill const& fill ) {
   // Filled in place: a separate buffer would have to be as long as any geometry says.
   Corvo::Bytes bytes = Corvo::Bytes::ofLength( length );
   return fill( bytes.writablePtr() ) ? std::move( bytes ) : Corvo::Bytes();
}

} // namespace

// ------------------------------------------------------------------- ManagedTableIteratorConst

ManagedTableIteratorConst::ManagedTableIteratorConst(
   Corvo::Ptr<ManagedTableBase const> const& table )
      : table_( table ) {}

ManagedTableIteratorConst::ManagedTableIteratorConst( ManagedTableIteratorConst const& other )
      : table_( other.table_ ), done_( other.done_ ),
        kind_( other.kind_ ? other.kind_->clone() : nullptr ) {}

ManagedTableIteratorConst::ManagedTableIteratorConst( ManagedTableIteratorConst&& ) noexcept =
   default;

ManagedTableIteratorConst&
ManagedTableIteratorConst::operator=( ManagedTableIteratorConst const& other ) {
   return *this = ManagedTableIteratorConst( other );
}

ManagedTableIteratorConst&
ManagedTableIteratorConst::operator=( ManagedTableIteratorConst&& ) noexcept = default;

ManagedTableIteratorConst::~ManagedTableIteratorConst() = default;

ManagedTableIteratorConst
ManagedTableIteratorConst::of( std::unique_ptr<ManagedTableIteratorConst> kind ) {
   sassert( kind != nullptr, "kind != nullptr" );
   ManagedTableIteratorConst abstractForm( kind->table_ );
   abstractForm.kind_ = std::move( kind );
   return abstractForm;
}

ManagedTableIteratorConst
ManagedTableIteratorConst::doneOver( Corvo::Ptr<ManagedTableBase const> const& table ) {
   ManagedTableIteratorConst iterator( table );
   iterator.doneIs();
   return iterator;
}

Brine::ChipId ManagedTableIteratorConst::chipId() const {
   sassert( kind_ != nullptr, "false", unimplemented );
   return kind_->chipId();
}

bool ManagedTableIteratorConst::key( Weft::CharPtr keyBuf ) const {
   if ( done() ) {
      return false;
   }
   sassert( kind_ != nullptr, "false", unimplemented );
   return kind_->key( keyBuf );
}

bool ManagedTableIteratorConst::result( Weft::CharPtr resultBuf ) const {
   if ( done() ) {
      return false;
   }
   sassert( kind_ != nullptr, "false", unimplemented );
   return kind_->result( resultBuf );
}

void ManagedTableIteratorConst::doInc() {
   if ( done() ) {
      return;
   }
   sassert( kind_ != nullptr, "false", unimplemented );
   kind_->doInc();
}

Corvo::Bytes ManagedTableIteratorConst::key_py() const {
   if ( done() ) {
      return {};
   }
   return filled( geometryOf( table_.get(), "table()" ).keyLengthBytes(),
                  [ this ]( Weft::CharPtr keyBuf ) { return key( keyBuf ); } );
}

Corvo::Bytes ManagedTableIteratorConst::result_py() const {
   if ( done() ) {
      return {};
   }
   return filled( geometryOf( table_.get(), "table()" ).resultLengthBytes(),
                  [ this ]( Weft::CharPtr resultBuf ) { return result( resultBuf ); } );
}

bool ManagedTableIteratorConst::operator==( ManagedTableIteratorConst const& other ) const {
   return this == &other ||
          ( table_ == other.table_ && done() == other.done() &&
            ( kind().isPlain() || other.kind().isPlain() || kind().sameAs( other.kind() ) ) );
}

bool ManagedTableIteratorConst::isEq( void const* a, void const* b ) {
   return *static_cast<ManagedTableIteratorConst const*>( a ) ==
          *static_cast<ManagedTableIteratorConst const*>( b );
}

bool ManagedTableIteratorConst::sameAs( ManagedTableIteratorConst const& other ) const {
   return typeid( *this ) == typeid( other );
}

std::unique_ptr<ManagedTableIteratorConst> ManagedTableIteratorConst::clone() const {
   return std::make_unique<ManagedTableIteratorConst>( *this );
}

// -------------------------------------------------------------------------- ManagedTableReader

ManagedTableReader::ManagedTableReader( Corvo::Ptr<ManagedTableBase const> const& table )
      : table_( table ) {}

ManagedTableReader::~ManagedTableReader() = default;

bool ManagedTableReader::entryHas_py( Brine::ChipId chipId, Corvo::Bytes const& key ) const {
   trace( 0, "ManagedTableReader::", "entryHas_py", " chipId: ", chipId, " keySize:", key.size() );
   checkKey( key, table_.get(), "table()" );
   return entryHas( chipId, key.bytesPtr() );
}

Corvo::Bytes ManagedTableReader::entry_py( Brine::ChipId chipId, Corvo::Bytes const& key ) const {
   trace( 0, "ManagedTableReader::", "entry_py", " chipId: ", chipId, " keySize:", key.size() );
   checkKey( key, table_.get(), "table()" );
   return filled( table_->tableHelper()->resultLengthBytes(), [ & ]( Weft::CharPtr result ) {
      return entry( chipId, key.bytesPtr(), result );
   } );
}

// ---------------------------------------------------------------------------- ManagedTableBase

ManagedTableBase::ManagedTableBase( Corvo::String const& tableName,
                                    Corvo::Ptr<TableHelper const> const& tableHelper,
                                    Corvo::Ptr<Vellum::VellumChunk> const& vellumChunk,
                                    U32 vellumOffset )
      : tableName_( tableName ), tableHelper_( tableHelper ), vellumChunk_( vellumChunk ),
        chunkInUse_( vellumChunk.get() ), vellumOffset_( vellumOffset ) {}

ManagedTableBase::~ManagedTableBase() = default;

void ManagedTableBase::bufIs( Weft::BytePtr buf ) {
   buf_ = buf;
   chooseMemory();
}

void ManagedTableBase::useLocalMemIs( bool use ) {
   useLocalMem_ = use;
   chooseMemory();
}

void ManagedTableBase::chooseMemory() {
   chunkInUse_ = buf_ || useLocalMem_ ? nullptr : vellumChunk_.get();
   bool const holdsRange =
      chunkInUse_ && rangeSize_ != 0 && U64{ vellumOffset_ } + rangeSize_ <= chunkInUse_->size();
   readableRange_ = holdsRange ? chunkInUse_->readableAt( vellumOffset_, 0 ) : nullptr;
   readableSize_ = holdsRange ? rangeSize_ : 0;
   bool const writable =
      holdsRange && chunkInUse_->access() == Vellum::VellumChunk::Access::readWrite;
   writableRange_ = writable ? chunkInUse_->writableAt( vellumOffset_, 0 ) : nullptr;
   // What was written elsewhere is not here, and what lies here may be another's.
   trustIsLost();
   isWriter_ = false;
}

void ManagedTableBase::rangeSizeIs( U64 size ) {
   rangeSize_ = size;
   chooseMemory();
   trustedSize_ = writableRange_ ? size : 0;
}

bool ManagedTableBase::entryIs_py( Brine::ChipId chipId,
                                   Corvo::Bytes const& key,
                                   Corvo::Bytes const& value ) {
   trace( 0,
          "bool Tessel::ManagedTableBase::entryIs_py(Brine::ChipId, const Bytes&, const Bytes&)",
          " chipId:",
          chipId,
          " keySize:",
          key.size(),
          " valueSize:",
          value.size() );
   checkKey( key, this, "table()" );
   checkLength( value,
                tableHelper_->resultLengthBytes(),
                "value",
                tableName_,
                "value.size() == tableHelper()->resultLengthBytes()" );
   return entryIs( chipId, key.bytesPtr(), value.bytesPtr() );
}

void ManagedTableBase::entryDel_py( Brine::ChipId chipId, Corvo::Bytes const& key ) {
   trace( 0, "ManagedTableBase::", "entryDel_py", " chipId: ", chipId, " keySize:", key.size() );
   checkKey( key, this, "table()" );
   entryDel( chipId, key.bytesPtr() );
}

bool ManagedTableBase::entryHas_py( Brine::ChipId chipId, Corvo::Bytes const& key ) const {
   trace( 0, "ManagedTableBase::", "entryHas_py", " chipId: ", chipId, " keySize:", key.size() );
   checkKey( key, this, "table()" );
   return entryHas( chipId, key.bytesPtr() );
}

Corvo::Bytes ManagedTableBase::entry_py( Brine::ChipId chipId, Corvo::Bytes const& key ) const {
   trace( 0, "ManagedTableBase::", "entry_py", " chipId: ", chipId, " keySize:", key.size() );
   checkKey( key, this, "table()" );
   return filled( tableHelper_->resultLengthBytes(), [ & ]( Weft::CharPtr result ) {
      return entry( chipId, key.bytesPtr(), result );
   } );
}

U8* ManagedTableBase::writableElsewhere( U32 offset, U32 size ) {
   return elsewhere( offset,
                     size,
                     "doWriteVellum",
                     "void Tessel::ManagedTableBase::doWriteVellum(U32, Weft::BytePtr, U32)"
                     " write to local memory : " );
}

U8 const* ManagedTableBase::readableElsewhere( U32 offset, U32 size ) const {
   return elsewhere( offset,
                     size,
                     "doReadVellum",
                     "void Tessel::ManagedTableBase::doReadVellum(U32, Weft::BytePtr, U32) const"
                     " read from local memory : " );
}

void ManagedTableBase::writeElsewhere( U32 offset, Weft::BytePtr data, U32 size ) {
   U8* const memory = writableElsewhere( offset, size );
   if ( size != 0 ) {
      std::memcpy( memory, data, size );
   }
}

void ManagedTableBase::readElsewhere( U32 offset, Weft::BytePtr data, U32 size ) const {
   U8 const* const memory = readableElsewhere( offset, size );
   if ( size != 0 ) {
      std::memcpy( data, memory, size );
   }
}

U8* ManagedTableBase::elsewhere( U32 offset,
                                 U32 size,
                                 char const* operation,
                                 char const* tracedAs ) const {
   if ( buf_ ) {
      // Looked up on every access: the variable may be set or removed at any time.
      sassert( std::getenv( "SIMULATION_VMID" ) != nullptr,
               { "getenv( \"SIMULATION_VMID\" )", operation } );
      return buf_ + offset;
   }
   sassert( useLocalMem_, { "vellumChunk()", operation } );
   sassert( bool( localBuf_ ), { "localBuf()", operation } );
   sassert( localBuf_->size() >= U64{ size } + offset,
            { "localBuf()->size() >= ( size + offset )", operation } );
   trace( { 9, operation },
          tracedAs,
          std::hex,
          reinterpret_cast<std::uintptr_t>( localBuf_->ptr() ),
          std::dec );
   return localBuf_->ptr() + U64{ localOffset_ } + offset;
}

// ------------------------------------------------------------------------- in the registry

Weft::TypeData LocalMem::typeData() const {
   return { &_ManagedTableBase_3e817fa977188f87_weftModule, 0 };
}

Weft::TypeData ManagedTableReader::typeData() const {
   return { &_ManagedTableBase_3e817fa977188f87_weftModule, 2 };
}

Weft::TypeData ManagedTableBase::typeData() const {
   return { &_ManagedTableBase_3e817fa977188f87_weftModule, 3 };
}

ManagedTableIteratorConst::ManagedTableIteratorConst( Weft::CharRange stringForm ) {
   WeftCorvo::readAttributes(
      stringForm, "Tessel::ManagedTableIteratorConst", "table", table_, "done", done_ );
}

std::ostream& operator<<( std::ostream& stream, ManagedTableIteratorConst const& iterator ) {
   return stream << WeftCorvo::stringForm( iterator );
}

namespace {

void describeIterator( Weft::TypeList& types ) {
   using Iterator = ManagedTableIteratorConst;
   WeftCorvo::valueType<Iterator>( types, "Tessel::ManagedTableIteratorConst" )
      .doc( "A cursor over the entries of one table, in slot order; it keeps the table alive." )
      .constructor<Corvo::Ptr<ManagedTableBase const>>( "table" )
      .constant( "table", &Iterator::table )
      .doc( "The table that it walks." )
      .readOnly( "done", &Iterator::done )
      .doc( "Whether the walk has passed the last entry." )
      .opConst( "chipId", &Iterator::chipId )
      .doc( "The chip of the current entry." )
      .opConst( "key", &Iterator::key, "keyBuf" )
      .doc( "Writes the current key to memory." )
      .opConst( "result", &Iterator::result, "resultBuf" )
      .doc( "Writes the current result to memory." )
      .op( "doInc", &Iterator::doInc )
      .doc( "Goes to the next entry; does nothing once done." )
      .opConst( "key_py", &Iterator::key_py )
      .doc( "The key of the current entry; empty once done." )
      .opConst( "result_py", &Iterator::result_py )
      .doc( "The result of the current entry; empty once done." )
      .unhashable();
}

void describeReader( Weft::TypeList& types ) {
   using Reader = ManagedTableReader;
   WeftCorvo::entityType<Reader>( types, "Tessel::ManagedTableReader" )
      .doc( "A read-only view on one table, which it keeps alive." )
      .constructorArguments<Corvo::Ptr<ManagedTableBase const>>( "table" )
      .constant( "table", &Reader::table )
      .doc( "The table that it reads." )
      .opConst( "entryHas", &Reader::entryHas, "chipId", "key" )
      .doc( "entryHas_py, with the key in memory." )
      .opConst( "entry", &Reader::entry, "chipId", "key", "result" )
      .doc( "entry_py, with key and result in memory." )
      .opConst( "entryHas_py", &Reader::entryHas_py, "chipId", "key" )
      .doc( "Whether the table holds an entry for this chip and key." )
      .opConst( "entry_py", &Reader::entry_py, "chipId", "key" )
      .doc( "The result for this chip and key; empty when there is no such entry." );
}

void describeTable( Weft::TypeList& types ) {
   using Table = ManagedTableBase;
   WeftCorvo::entityType<Table>( types, "Tessel::ManagedTableBase" )
      .doc(
         "What all shadow tables share: name, geometry, place in shadow memory, and operations." )
      .constructorArguments<Corvo::String,
                            Corvo::Ptr<TableHelper const>,
                            Corvo::Ptr<Vellum::VellumChunk>,
                            U32>( "tableName", "tableHelper", "vellumChunk", "vellumOffset" )
      .constant( "tableName", &Table::tableName )
      .doc( "Its name." )
      .constant( "tableHelper", &Table::tableHelper )
      .doc( "Its geometry." )
      .constant( "vellumChunk", &Table::vellumChunk )
      .doc( "The chunk that holds its range." )
      .constant( "vellumOffset", &Table::vellumOffset )
      .doc( "Where its range begins in the chunk, in bytes." )
      .state( "buf", &Table::buf, &Table::bufIs )
      .doc( "Memory that stands in for the chunk before all else." )
      .state( "useLocalMem", &Table::useLocalMem, &Table::useLocalMemIs )
      .doc( "Whether localBuf stands in for the chunk." )
      .state( "localOffset", &Table::localOffset, &Table::localOffsetIs )
      .doc( "Where its range begins in localBuf, in bytes." )
      .state( "localBuf", &Table::localBuf, &Table::localBufIs )
      .doc( "Memory of somebody else that may stand in for the chunk." )
      .opConst( "isFull", &Table::isFull )
      .doc( "Whether no further entry can be added." )
      .opConst( "tableShadowSize", &Table::tableShadowSize )
      .doc( "Bytes of shadow memory that its range occupies." )
      .op( "entryIs", &Table::entryIs, "chipId", "key", "result" )
      .doc( "entryIs_py, with key and result in memory." )
      .op( "entryDel", &Table::entryDel, "chipId", "key" )
      .doc( "entryDel_py, with the key in memory." )
      .opConst( "entryHas", &Table::entryHas, "chipId", "key" )
      .doc( "entryHas_py, with the key in memory." )
      .opConst( "entry", &Table::entry, "chipId", "key", "result" )
      .doc( "entry_py, with key and result in memory." )
      .opConst( "managedTableIteratorConst", &Table::managedTableIteratorConst )
      .doc( "An iterator on the first entry, or done." )
      .op( "deleteAll", &Table::deleteAll, "chipId" )
      .doc( "Removes every entry of a chip." )
      .lengthy()
      .op( "clearTable", &Table::clearTable )
      .doc( "Removes every entry." )
      .lengthy()
      .op( "entryIs_py", &Table::entryIs_py, "chipId", "key", "value" )
      .doc( "Adds an entry or replaces its result; False, nothing changed, when there is no room." )
      .op( "entryDel_py", &Table::entryDel_py, "chipId", "key" )
      .doc( "Removes the entry for this chip and key, if there is one." )
      .opConst( "entryHas_py", &Table::entryHas_py, "chipId", "key" )
      .doc( "Whether there is an entry for this chip and key." )
      .opConst( "entry_py", &Table::entry_py, "chipId", "key" )
      .doc( "The result for this chip and key; empty when there is no such entry." )
      .op( "doWriteVellum", &Table::doWriteVellum, "offset", "data", "size" )
      .doc( "Copies bytes from memory to the chunk, so far behind the start of the table's range." )
      .opConst( "doReadVellum", &Table::doReadVellum, "offset", "data", "size" )
      .doc( "Copies bytes of the chunk, so far behind the start of the table's range, to memory." )
      .op( "doWriteVellum64", &Table::doWriteVellum64, "offset", "data" )
      .doc( "Writes 8 bytes, little-endian, so far behind the start of the table's range." )
      .opConst( "doReadVellum64", &Table::doReadVellum64, "offset" )
      .doc( "Reads 8 bytes, little-endian, so far behind the start of the table's range." )
      .op( "doWriteVellum32", &Table::doWriteVellum32, "offset", "data" )
      .doc( "Writes 4 bytes, little-endian, so far behind the start of the table's range." )
      .opConst( "doReadVellum32", &Table::doReadVellum32, "offset" )
      .doc( "Reads 4 bytes, little-endian, so far behind the start of the table's range." )
      .op( "doWriteVellum16", &Table::doWriteVellum16, "offset", "data" )
      .doc( "Writes 2 bytes, little-endian, so far behind the start of the table's range." )
      .opConst( "doReadVellum16", &Table::doReadVellum16, "offset" )
      .doc( "Reads 2 bytes, little-endian, so far behind the start of the table's range." );
}

void describe( Weft::TypeList& types ) {
   WeftCorvo::entityType<LocalMem>( types, "Tessel::LocalMem" )
      .doc( "Memory of somebody else that stands in for shadow memory." )
      .constructorArguments<Weft::BytePtr, U32>( "ptr", "size" )
      .constant( "ptr", &LocalMem::ptr )
      .doc( "Its first byte." )
      .constant( "size", &LocalMem::size )
      .doc( "In bytes." );
   describeIterator( types );
   describeReader( types );
   describeTable( types );
}

} // namespace

} // namespace Tessel

constinit Weft::Module const _ManagedTableBase_3e817fa977188f87_weftModule( "ManagedTableBase",
                                                                            Tessel::describe );

namespace {

[[gnu::init_priority( 2003 )]] Weft::ModuleRegistration const
   registration( _ManagedTableBase_3e817fa977188f87_weftModule );

} // namespace
