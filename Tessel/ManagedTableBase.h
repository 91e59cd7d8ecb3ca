// SPDX-License-Identifier: Apache-2.0
#pragma once

/// What all shadow tables share: name, geometry, the place of their range in shadow memory and the
/// only way to touch it, the table operations that each kind implements, and the abstract reader
/// and iterator.
///
/// A key pointer always points at exactly keyLengthBytes bytes and a result pointer at exactly
/// resultLengthBytes bytes of the table's geometry; no length travels with them. Both stay the
/// caller's.
///
/// Every failure is a contract failure of the source "ManagedTableBase" (see Weft/Contract.h);
/// after one, table and memory are as they were before the call.
///
/// Threads: one table, with the readers and iterators built on it, is used from one thread at a
/// time; references follow Corvo::ThreadControl::tsp_. Other processes may read the images in the
/// chunk at any time.

#include "Brine/ChipId.h"
#include "Corvo/Bytes.h"
#include "Corvo/Ptr.h"
#include "Corvo/String.h"
#include "Tessel/TableHelper.h"
#include "Vellum/VellumChunk.h"
#include "Weft/CharRange.h"

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <iterator>
#include <memory>
#include <type_traits>
#include <typeinfo>
#include <utility>

namespace Weft {
class Module;
}

/// The module's record in the type registry.
[[gnu::visibility(
   "default" )]] extern Weft::Module const _ManagedTableBase_3e817fa977188f87_weftModule;

namespace Tessel {

class ManagedTableBase;

/// Describes memory that somebody else owns and that stands in for shadow memory. The creator keeps
/// the bytes alive for as long as any table refers to the LocalMem. Made with
/// Corvo::makePtr<LocalMem>( ptr, size ).
class [[gnu::visibility( "default" )]] LocalMem : public Corvo::Node {
 public:
   LocalMem( Weft::BytePtr ptr, U32 size ) : ptr_( ptr ), size_( size ) {}

   Weft::BytePtr ptr() const { return ptr_; }
   /// Bytes at ptr().
   U32 size() const { return size_; }

   Weft::TypeData typeData() const override;
   static Weft::AllocTrackTypeInfo memAllocationTracker_;

 private:
   Weft::BytePtr ptr_;
   U32 size_;
};

/// A read-only cursor over the entries of one table, as a value: copies move independently. The walk:
///
///    for ( auto at = table->managedTableIteratorConst(); at; at.doInc() ) {
///       at.key( keyBuf ); at.result( resultBuf ); … at.chipId() …
///    }
///
/// An iterator that a table hands out reaches the operations of the table's kind. One that is built
/// on a table directly is a plain base iterator: not done, and its chipId, key, result and doInc are
/// contract failures "false", message "Must be implemented in the derived class".
///
/// It keeps its table alive. Once done, it stays done.
class [[gnu::visibility( "default" )]] ManagedTableIteratorConst {
 public:
   /// A plain base iterator over no table.
   ManagedTableIteratorConst() = default;
   /// A plain base iterator; `table` may be null.
   explicit ManagedTableIteratorConst( Corvo::Ptr<ManagedTableBase const> const& table );
   /// From the string form, of which every character is consumed. Weft::ParseError says where a text
   /// is not one, or what it names is not a table that lives.
   explicit ManagedTableIteratorConst( Weft::CharRange stringForm );
   /// std::bad_alloc when the copy has to hold an iterator of the table's kind.
   ManagedTableIteratorConst( ManagedTableIteratorConst const& other );
   ManagedTableIteratorConst( ManagedTableIteratorConst&& other ) noexcept;
   ManagedTableIteratorConst& operator=( ManagedTableIteratorConst const& other );
   ManagedTableIteratorConst& operator=( ManagedTableIteratorConst&& other ) noexcept;
   virtual ~ManagedTableIteratorConst();

   /// An iterator in the abstract form that stands where `kind` stands and reaches its operations.
   /// (A kind's iterator that is copied into this type leaves its operations behind.) Contract failure
   /// "kind != nullptr".
   static ManagedTableIteratorConst of( std::unique_ptr<ManagedTableIteratorConst> kind );
   /// An iterator over `table` that is done: for a kind without entries to walk.
   static ManagedTableIteratorConst doneOver( Corvo::Ptr<ManagedTableBase const> const& table );

   Corvo::Ptr<ManagedTableBase const> table() const { return table_; }
   /// Whether the walk has passed the last entry.
   bool done() const { return kind_ ? kind_->done() : done_; }
   explicit operator bool() const { return !done(); }

   /// The chip of the current entry; without meaning once done.
   virtual Brine::ChipId chipId() const;
   /// Writes the current entry's keyLengthBytes key bytes to `keyBuf` and returns true; once done,
   /// writes nothing and returns false.
   virtual bool key( Weft::CharPtr keyBuf ) const;
   /// The same with the resultLengthBytes result bytes.
   virtual bool result( Weft::CharPtr resultBuf ) const;
   /// Moves to the next entry; does nothing once done.
   virtual void doInc();

   /// The current entry's key, keyLengthBytes long; empty when there is none. Contract failures:
   /// "table()" without a table, "table()->tableHelper()" without a geometry.
   Corvo::Bytes key_py() const;
   /// The same with the result.
   Corvo::Bytes result_py() const;

   /// The same table object and the same done(); where both are of a kind, in the abstract form too,
   /// the kind's rule counts besides. (What the string form gives back is a plain base iterator.)
   bool operator==( ManagedTableIteratorConst const& other ) const;
   /// operator== of two iterators of this type, neither null.
   static bool isEq( void const* a, void const* b );

 protected:
   void doneIs() { done_ = true; }
   void tableIs( Corvo::Ptr<ManagedTableBase const> table ) { table_ = std::move( table ); }
   /// Whether `other` equals this; `other` has passed the base's rule and may be of any kind. For a
   /// kind that does not override it: whether it is of the same one.
   virtual bool sameAs( ManagedTableIteratorConst const& other ) const;
   /// A copy of the dynamic type: every kind that is handed out overrides it.
   virtual std::unique_ptr<ManagedTableIteratorConst> clone() const;

 private:
   ManagedTableIteratorConst const& kind() const { return kind_ ? kind_->kind() : *this; }
   bool isPlain() const { return typeid( *this ) == typeid( ManagedTableIteratorConst ); }

   Corvo::Ptr<ManagedTableBase const> table_;
   bool done_ = false;
   std::unique_ptr<ManagedTableIteratorConst> kind_; ///< in the abstract form; null otherwise
};

/// What a walk meets, as a range of one pass for range-for. An element is what ElementOf makes of the
/// iterator: the iterator itself, with chipId, key, result and their byte-string forms, or what a kind
/// of table has to show. It is valid until the loop's next step.
template<class Walk, class ElementOf = std::identity>
class WalkRange {
 public:
   class Iterator {
    public:
      using value_type = std::remove_cvref_t<std::invoke_result_t<ElementOf, Walk const&>>;
      using difference_type = std::ptrdiff_t;

      explicit Iterator( Walk& walk ) : walk_( &walk ) {}
      value_type const& operator*() const { return ElementOf()( std::as_const( *walk_ ) ); }
      value_type const* operator->() const { return &**this; }
      Iterator& operator++() {
         walk_->doInc();
         return *this;
      }
      void operator++( int ) { walk_->doInc(); }
      bool operator==( std::default_sentinel_t ) const { return walk_->done(); }

    private:
      Walk* walk_;
   };

   explicit WalkRange( Walk walk ) : walk_( std::move( walk ) ) {}
   Iterator begin() { return Iterator( walk_ ); }
   std::default_sentinel_t end() const { return std::default_sentinel; }

 private:
   Walk walk_;
};

/// Writes the string form: table and done(). It parses back, while the table lives, to a plain base
/// iterator over the same table.
[[gnu::visibility( "default" )]] std::ostream& operator<<( std::ostream&,
                                                           ManagedTableIteratorConst const& );

/// A read-only view on one table, which it keeps alive.
class [[gnu::visibility( "default" )]] ManagedTableReader : public Corvo::Node {
 public:
   explicit ManagedTableReader( Corvo::Ptr<ManagedTableBase const> const& table );
   ~ManagedTableReader() override;

   Corvo::Ptr<ManagedTableBase const> table() const { return table_; }

   /// Whether the table holds an entry for this chip and key.
   virtual bool entryHas( Brine::ChipId chipId, Weft::CharPtrConst key ) const = 0;
   /// Whether it does; when true, the entry's result bytes have been written to `result`.
   virtual bool
   entry( Brine::ChipId chipId, Weft::CharPtrConst key, Weft::CharPtr result ) const = 0;

   /// The same with byte strings. A key of another length than the table's is a contract failure
   /// whose message names both lengths; so is a table or a geometry that is missing.
   bool entryHas_py( Brine::ChipId chipId, Corvo::Bytes const& key ) const;
   /// The result, resultLengthBytes long; empty when there is no such entry.
   Corvo::Bytes entry_py( Brine::ChipId chipId, Corvo::Bytes const& key ) const;

   Weft::TypeData typeData() const override;
   static Weft::AllocTrackTypeInfo memAllocationTracker_;

 private:
   Corvo::Ptr<ManagedTableBase const> table_;
};

/// The abstract base of every shadow table.
class [[gnu::visibility( "default" )]] ManagedTableBase : public Corvo::Node {
 public:
   using Ptr = Corvo::Ptr<ManagedTableBase>;

   /// Takes a reference on each pointer that is not null, and touches no shadow memory. The table's
   /// range starts at byte `vellumOffset` of the chunk.
   ManagedTableBase( Corvo::String const& tableName,
                     Corvo::Ptr<TableHelper const> const& tableHelper,
                     Corvo::Ptr<Vellum::VellumChunk> const& vellumChunk,
                     U32 vellumOffset );
   /// Leaves the shadow memory as it is: entries outlive their table object.
   ~ManagedTableBase() override;

   Corvo::String const& tableName() const { return tableName_; }
   Corvo::Ptr<TableHelper const> tableHelper() const { return tableHelper_; }
   Corvo::Ptr<Vellum::VellumChunk> vellumChunk() const { return vellumChunk_; }
   U32 vellumOffset() const { return vellumOffset_; }

   /// The four attributes below say where the next access to shadow memory goes; setting one copies
   /// nothing. `buf` is not owned and needs at least tableShadowSize() bytes, which nothing checks.
   Weft::BytePtr buf() const { return buf_; }
   void bufIs( Weft::BytePtr buf );
   bool useLocalMem() const { return useLocalMem_; }
   void useLocalMemIs( bool use );
   /// Where the table's range starts in localBuf, in bytes. Nothing checks it against the buffer's
   /// size.
   U32 localOffset() const { return localOffset_; }
   void localOffsetIs( U32 offset ) { localOffset_ = offset; }
   Corvo::Ptr<LocalMem> localBuf() const { return localBuf_; }
   void localBufIs( Corvo::Ptr<LocalMem> const& localBuf ) { localBuf_ = localBuf; }

   // The table operations of the kinds.

   /// Whether no further entry can be added.
   virtual bool isFull() const = 0;
   /// Bytes of shadow memory that the table's range occupies from vellumOffset() on.
   virtual U32 tableShadowSize() const = 0;
   /// Adds the entry for (chip, key), or replaces its result. False when no room is left; then
   /// nothing has changed.
   virtual bool
   entryIs( Brine::ChipId chipId, Weft::CharPtrConst key, Weft::CharPtrConst result ) = 0;
   /// Removes the entry for (chip, key) if there is one.
   virtual void entryDel( Brine::ChipId chipId, Weft::CharPtrConst key ) = 0;
   virtual bool entryHas( Brine::ChipId chipId, Weft::CharPtrConst key ) const = 0;
   /// Whether there is an entry; when true, its result bytes have been written to `result`.
   virtual bool
   entry( Brine::ChipId chipId, Weft::CharPtrConst key, Weft::CharPtr result ) const = 0;
   /// An iterator on the first entry, or done.
   virtual ManagedTableIteratorConst managedTableIteratorConst() const = 0;
   /// The same walk for range-for, whatever the kind of table:
   ///
   ///    for ( auto const& at : table->entries() ) { … at.chipId() … at.key_py() … }
   WalkRange<ManagedTableIteratorConst> entries() const {
      return WalkRange( managedTableIteratorConst() );
   }
   /// Removes every entry of that chip.
   virtual void deleteAll( Brine::ChipId chipId ) = 0;
   /// Removes every entry.
   virtual void clearTable() = 0;

   // The same with byte strings, for scripts. A key or value of another length than the table's is a
   // contract failure whose message names both lengths; so is a table without a geometry.

   bool entryIs_py( Brine::ChipId chipId, Corvo::Bytes const& key, Corvo::Bytes const& value );
   void entryDel_py( Brine::ChipId chipId, Corvo::Bytes const& key );
   bool entryHas_py( Brine::ChipId chipId, Corvo::Bytes const& key ) const;
   /// The result, resultLengthBytes long; empty when there is no such entry.
   Corvo::Bytes entry_py( Brine::ChipId chipId, Corvo::Bytes const& key ) const;

   // Access to the table's range of shadow memory; offsets are in bytes from its start. Each access
   // goes to the first of:
   //  - buf() + offset, when buf() is set. Contract failure "getenv( "SIMULATION_VMID" )" when that
   //    environment variable is absent.
   //  - localBuf()->ptr() + localOffset() + offset, when useLocalMem(). Contract failures
   //    "localBuf()" when there is none, "localBuf()->size() >= ( size + offset )".
   //  - the chunk at vellumOffset() + offset, as one image (see Vellum/OrderedCopy.h). Contract
   //    failures "vellumChunk()" when there is none, and those of VellumChunk::write and read.

   void doWriteVellum( U32 offset, Weft::BytePtr data, U32 size ) {
      trustIsLost();
      if ( chunkInUse_ ) [[likely]] {
         chunkInUse_->writeAt( U64{ vellumOffset_ } + offset, data, size );
      } else {
         writeElsewhere( offset, data, size );
      }
   }
   void doReadVellum( U32 offset, Weft::BytePtr data, U32 size ) const {
      if ( chunkInUse_ ) [[likely]] {
         chunkInUse_->readAt( U64{ vellumOffset_ } + offset, data, size );
      } else {
         readElsewhere( offset, data, size );
      }
   }
   /// Little-endian, at any alignment.
   void doWriteVellum64( U32 offset, U64 data ) { writeNumber( offset, data ); }
   void doWriteVellum32( U32 offset, U32 data ) { writeNumber( offset, data ); }
   void doWriteVellum16( U32 offset, U16 data ) { writeNumber( offset, data ); }
   U64 doReadVellum64( U32 offset ) const { return readNumber<U64>( offset ); }
   U32 doReadVellum32( U32 offset ) const { return readNumber<U32>( offset ); }
   U16 doReadVellum16( U32 offset ) const { return readNumber<U16>( offset ); }

   Weft::TypeData typeData() const override;
   static Weft::AllocTrackTypeInfo memAllocationTracker_;

 protected:
   /// Says how many bytes the range has, once a kind knows it.
   void rangeSizeIs( U64 size );
   /// The range while accesses go to a chunk that holds all of it (and, for the second, may be
   /// written); else null: then each access has to be asked for. Valid until the attributes above
   /// are set.
   U8 const* readableRange() const { return readableRange_; }
   U8* writableRange() const { return writableRange_; }
   /// How many bytes lie there: all of the range, or none where readableRange() is null.
   U64 readableSize() const { return readableSize_; }
   /// Whether this table writes what lies there: it then need not read it twice, as nobody else changes
   /// it.
   bool isWriter() const { return isWriter_; }
   /// To be called with each write.
   void isWriterIs() {
      isWriter_ = true;
      ownedSize_ = trustedSize_;
   }
   /// How many bytes lie at writableRange() that this table writes, and with which its bookkeeping, as it
   /// has never been out of its hands, agrees (unless somebody writes there behind the table's back): all
   /// of the range, or none.
   U64 ownedSize() const { return ownedSize_; }
   /// Whether that is so, or will be once the table writes.
   bool isTrusted() const { return trustedSize_ != 0; }
   /// For all that lets callers change what lies in the range, where the range is, or the bookkeeping.
   void trustIsLost() const { trustedSize_ = ownedSize_ = 0; }
   /// Where the access to `size` bytes at `offset` goes, for the functions of Vellum/OrderedCopy.h.
   /// Contract failures as doWriteVellum and doReadVellum.
   [[gnu::always_inline]] U8* writableAt( U32 offset, U32 size ) {
      if ( chunkInUse_ ) [[likely]] {
         return chunkInUse_->writableAt( U64{ vellumOffset_ } + offset, size );
      }
      return writableElsewhere( offset, size );
   }
   [[gnu::always_inline]] U8 const* readableAt( U32 offset, U32 size ) const {
      if ( chunkInUse_ ) [[likely]] {
         return chunkInUse_->readableAt( U64{ vellumOffset_ } + offset, size );
      }
      return readableElsewhere( offset, size );
   }

 private:
   // The accesses of raw-buffer and local-memory mode: where the bytes are.
   U8* writableElsewhere( U32 offset, U32 size );
   U8 const* readableElsewhere( U32 offset, U32 size ) const;
   U8* elsewhere( U32 offset, U32 size, char const* operation, char const* tracedAs ) const;
   void writeElsewhere( U32 offset, Weft::BytePtr data, U32 size );
   void readElsewhere( U32 offset, Weft::BytePtr data, U32 size ) const;
   void chooseMemory();

   template<class Number>
   void writeNumber( U32 offset, Number number ) {
      doWriteVellum( offset, reinterpret_cast<Weft::BytePtr>( &number ), sizeof number );
   }
   template<class Number>
   Number readNumber( U32 offset ) const {
      Number number = 0;
      doReadVellum( offset, reinterpret_cast<Weft::BytePtr>( &number ), sizeof number );
      return number;
   }

   Corvo::String tableName_;
   Corvo::Ptr<TableHelper const> tableHelper_;
   Corvo::Ptr<Vellum::VellumChunk> vellumChunk_;
   /// The chunk while accesses go there, so that the usual access tests one pointer; else null.
   Vellum::VellumChunk* chunkInUse_;
   U64 rangeSize_ = 0;
   U8 const* readableRange_ = nullptr;
   U8* writableRange_ = nullptr;
   U64 readableSize_ = 0;
   mutable U64 trustedSize_ = 0; ///< what ownedSize() is once the table has written
   mutable U64 ownedSize_ = 0;
   bool isWriter_ = false;
   Weft::BytePtr buf_ = nullptr;
   Corvo::Ptr<LocalMem> localBuf_;
   U32 vellumOffset_;
   U32 localOffset_ = 0;
   bool useLocalMem_ = false;
};

} // namespace Tessel
