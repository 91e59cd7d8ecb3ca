// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Exact-match tables: (chip, key) -> result, one image per entry in shadow memory, found through
/// bookkeeping in process memory that is rebuilt from the images.
///
/// The image of an entry with K key bytes and R result bytes, in memory order; the table writes it,
/// tables, readers and iterators of any process read it:
///
///    offset   bytes              contents
///    0        1                  valid: 1 holds an entry, 0 is free (any other value reads as valid)
///    1        1                  chip identifier
///    2        K                  key
///    2 + K    R                  result
///    …        L - ( 2 + K + R )  padding, zero
///
/// L is 2 + K + R rounded up to a multiple of 4, at most 36. A table's range is N images one after
/// the other, slot i at i * L; a free slot is all zero. Nothing else lies in the range.
///
/// Key pointers point at K bytes and result pointers at R bytes; no length travels with them.
///
/// Contract failures name the source "EmTable" unless said otherwise; after one, table and memory
/// are as they were before the call (but for the map's capacity). So they are after std::bad_alloc,
/// which any operation may throw that adds something or returns a new object. A bulk removal that
/// fails on its way stops between two entries, and so does reconcile(). Where a caller has put a bitmap
/// in place that is shorter than the table, reconcile() and a walk can fail its "bit < size()" or
/// "last < size()", with the source "HBitmap".
///
/// Threads: as Tessel/ManagedTableBase.h.

#include "Brine/HBitmap.h"
#include "Tessel/ManagedTableBase.h"
#include "Tessel/ShadowTypes.h"
#include "Weft/Contract.h"

#include <array>
#include <bit>
#include <bitset>
#include <cstddef>
#include <limits>
#include <span>

namespace Weft {
class Module;
}

/// The module's record in the type registry.
[[gnu::visibility( "default" )]] extern Weft::Module const _EmTable_bcf6a80e77543269_weftModule;

namespace Tessel {

class KeyToSlotMap;

/// The longest key and result of an exact-match table, in bytes.
inline constexpr U32 MAX_KEY_LENGTH_IN_BYTE = 20;
inline constexpr U32 MAX_RESULT_LENGTH_IN_BYTE = 12;

/// Room for the longest image.
struct EmTableEntryRaw {
   U8 valid;
   U8 chipId;
   std::array<U8, 34> keyAndResult; ///< K key bytes, R result bytes, zero padding
};

/// A key of the `keySize` bytes at `key`. Contract failure "keySize <= MAX_KEY_LENGTH_IN_BYTE".
[[gnu::visibility( "default" )]] EntryKey makeEmTableKey( Weft::CharPtrConst key, U32 keySize );
/// A result of the `resultSize` bytes at `result`. Contract failure
/// "resultSize <= MAX_RESULT_LENGTH_IN_BYTE".
[[gnu::visibility( "default" )]] EntryResult makeEmTableResult( Weft::CharPtrConst result,
                                                                U32 resultSize );

/// A slot number, or none.
class [[gnu::visibility( "default" )]] EmTableIndex {
 public:
   static constexpr U32 invalid = 0xFFFFFFFF;

   constexpr EmTableIndex() = default;
   constexpr explicit EmTableIndex( U32 value ) : value_( value ) {}
   /// From the string form, of which every character is consumed. Weft::ParseError says where a text
   /// is not one.
   explicit EmTableIndex( Weft::CharRange stringForm );

   constexpr U32 value() const { return value_; }
   constexpr bool valid() const { return value_ < invalid; }
   constexpr explicit operator bool() const { return valid(); }
   constexpr U32 hash() const { return value_; }

   friend constexpr auto operator<=>( EmTableIndex const&, EmTableIndex const& ) = default;
   /// The number, 4294967295 for none.
   friend std::ostream& operator<<( std::ostream& stream, EmTableIndex index ) {
      return stream << index.value_;
   }

 private:
   U32 value_ = invalid;
};

/// One entry in process memory.
class [[gnu::visibility( "default" )]] EmTableEntry {
 public:
   /// No entry: not valid, chip 255, empty key and result.
   EmTableEntry() = default;
   EmTableEntry( bool valid, Brine::ChipId chipId, EntryKey key, EntryResult result )
         : key_( std::move( key ) ), result_( std::move( result ) ), chipId_( chipId ),
           valid_( valid ) {}
   /// From the string form, of which every character is consumed. Weft::ParseError says where a text
   /// is not one.
   explicit EmTableEntry( Weft::CharRange stringForm );

   bool valid() const { return valid_; }
   void validIs( bool valid ) { valid_ = valid; }
   Brine::ChipId chipId() const { return chipId_; }
   void chipIdIs( Brine::ChipId chipId ) { chipId_ = chipId; }
   EntryKey const& key() const { return key_; }
   void keyIs( EntryKey const& key ) { key_ = key; }
   EntryResult const& result() const { return result_; }
   void resultIs( EntryResult const& result ) { result_ = result; }

   /// Writes all 36 bytes of `raw`: the image, zero behind it; all zero when not valid. A key or
   /// result shorter than its length is filled up with zeros, a longer one is cut. Contract failures of
   /// a valid entry: "keyLength <= MAX_KEY_LENGTH_IN_BYTE",
   /// "resultLength <= MAX_RESULT_LENGTH_IN_BYTE".
   void copyToBuf( EmTableEntryRaw* raw, U32 keyLength, U32 resultLength ) const;
   /// Takes the image in `raw` over; a free one leaves the entry unchanged. Contract failures as
   /// makeEmTableKey and makeEmTableResult.
   void copyFromBuf( EmTableEntryRaw const* raw, U32 keyLength, U32 resultLength );

   /// Becomes a valid entry of `chipId` in place: `fill( key, result )` writes the bytes of both, as
   /// Corvo::Bytes::resized has it.
   template<class Fill>
   void filledBy( Brine::ChipId chipId, U32 keyLength, U32 resultLength, Fill const& fill ) {
      char* const key = key_.resized( keyLength );
      fill( key, result_.resized( resultLength ) );
      chipId_ = chipId;
      valid_ = true;
   }

   /// Whether the entry differs from a default one.
   explicit operator bool() const { return *this != EmTableEntry(); }

   friend bool operator==( EmTableEntry const& a, EmTableEntry const& b ) {
      return ( a <=> b ) == 0;
   }
   /// By valid (false first), chip, key, result.
   friend std::strong_ordering operator<=>( EmTableEntry const& a, EmTableEntry const& b );

 private:
   EntryKey key_;
   EntryResult result_;
   Brine::ChipId chipId_{ 255 };
   bool valid_ = false;
};

/// Writes the string form, which parses back to an equal value.
[[gnu::visibility( "default" )]] std::ostream& operator<<( std::ostream&, EmTableEntry const& );

/// The slots of one key: one per chip that has it.
class [[gnu::visibility( "default" )]] EmTableFapIndices : public Corvo::Node {
 public:
   EmTableFapIndices() = default;

   /// A new object without members. std::bad_alloc.
   static Corvo::Ptr<EmTableFapIndices> EmTableFapIndicesIs();
   /// The same with room for so many, at most 256. Allocates once.
   static Corvo::Ptr<EmTableFapIndices> withRoomFor( U32 members );

   /// The chip's slot; the invalid index when it has none here.
   EmTableIndex index( Brine::ChipId chip ) const {
      U32 const place = placeOf( chip );
      return place < count_ ? EmTableIndex( slots_[ place ] ) : EmTableIndex();
   }
   /// Adds the member or replaces its slot. std::bad_alloc leaves the object as it was.
   void indexIs( Brine::ChipId chip, EmTableIndex slot );
   /// Removes the member and returns its slot; the invalid index when absent.
   EmTableIndex indexDel( Brine::ChipId chip );
   void indexDelAll() { count_ = 0; }

   bool indexHas( Brine::ChipId chip ) const { return placeOf( chip ) < count_; }
   /// Members now, and members held before more memory is taken.
   U32 indexCount() const { return count_; }
   U32 indexCapacity() const { return capacity_; }
   /// The lowest chip with a member that is at least `from`; 256 when there is none. A walk in
   /// this way may add and remove members as it goes.
   U32 nextChip( U32 from ) const;
   /// Makes sure that one more member can be added without memory. std::bad_alloc.
   void makeRoom();

   Weft::TypeData typeData() const override;
   static Weft::AllocTrackTypeInfo memAllocationTracker_;

 private:
   class WithMembers;
   static constexpr U16 inlineMembers = 4; // most keys are programmed on a handful of chips

   /// With memory for a multiple of four members, wordsFor( capacity ) words, which outlives the object.
   EmTableFapIndices( U32* members, U16 capacity ) : capacity_( capacity ), slots_( members ) {}

   static constexpr auto wordsFor = []( std::size_t capacity ) {
      return capacity + capacity / sizeof( U32 );
   };
   /// count_ when the chip is no member.
   U32 placeOf( Brine::ChipId chip ) const;
   U8* chips() { return reinterpret_cast<U8*>( slots_ + capacity_ ); }
   U8 const* chips() const { return reinterpret_cast<U8 const*>( slots_ + capacity_ ); }

   U16 count_ = 0;
   U16 capacity_ = inlineMembers;
   std::array<U32, wordsFor( inlineMembers )> inline_{};
   U32* slots_ = inline_.data(); ///< capacity_ slots, then as many chips
   std::unique_ptr<U32[]> more_; ///< where the members are once they have had to move
};

/// As EmTableFapIndices::EmTableFapIndicesIs.
[[gnu::visibility( "default" )]] Corvo::Ptr<EmTableFapIndices> emTableFapIndicesFactory();

/// Counts by chip. A chip whose count drops to zero stays a member until it is removed.
class ChipCounts {
 public:
   static constexpr U32 capacity = 256;

   U32 count( Brine::ChipId chip ) const { return counts_[ chip.value() ]; }
   void countIs( Brine::ChipId chip, U32 count ) {
      U32& now = counts_[ chip.value() ];
      if ( now == 0 ) { // else it is a member
         members_.set( chip.value() );
      }
      now = count;
   }
   U32 del( Brine::ChipId chip ) {
      members_.reset( chip.value() );
      return std::exchange( counts_[ chip.value() ], 0 );
   }
   void delAll() { *this = ChipCounts(); }
   /// The members stay.
   void countsAreZero() { counts_.fill( 0 ); }
   bool has( Brine::ChipId chip ) const { return members_.test( chip.value() ); }
   U32 members() const { return static_cast<U32>( members_.count() ); }
   /// The lowest member that is at least `from`; `capacity` when there is none.
   U32 nextChip( U32 from ) const {
      while ( from < capacity && !members_.test( from ) ) {
         ++from;
      }
      return from;
   }

 private:
   std::array<U32, capacity> counts_{};
   std::bitset<capacity> members_;
};

class EmEntryRange;

/// One entry of a bulk call. What it points at stays the caller's and is used during the call alone.
struct EmPair {
   Brine::ChipId chipId;
   Weft::CharPtrConst key;
};
/// With the result to set.
struct EmPairAndResult {
   Brine::ChipId chipId;
   Weft::CharPtrConst key;
   Weft::CharPtrConst result;
};
/// With the place that the result is written to.
struct EmPairAndBuffer {
   Brine::ChipId chipId;
   Weft::CharPtrConst key;
   Weft::CharPtr result;
};

/// The exact-match table.
///
/// What must change together: (chip, key) maps to slot i exactly when slot i holds a valid image
/// with that chip and key; the bit of slot i is clear exactly when the slot holds a valid image;
/// numUsedEntries is the number of clear bits and the sum of the counts by chip.
class [[gnu::visibility( "default" )]] EmShadowTable : public ManagedTableBase {
 public:
   /// Builds the table over its range and takes over the images there (see handleInitialized).
   /// Writes nothing to shadow memory.
   EmShadowTable( Corvo::String const& tableName,
                  Corvo::Ptr<TableHelper const> const& tableHelper,
                  Corvo::Ptr<Vellum::VellumChunk> const& vellumChunk,
                  U32 vellumOffset );
   /// Writes nothing to shadow memory: the images stay for readers and for the next table.
   ~EmShadowTable() override;

   /// A new table, as the constructor builds it.
   static Corvo::Ptr<EmShadowTable>
   EmShadowTableIs( Corvo::String const& tableName,
                    Corvo::Ptr<TableHelper const> const& tableHelper,
                    Corvo::Ptr<Vellum::VellumChunk> const& vellumChunk,
                    U32 vellumOffset );

   /// Whether keys and results of this geometry are within the limits.
   static bool withinLimits( TableHelper const& geometry );
   /// Bytes of the range that a table of this geometry occupies; past 2^32 no table can be built.
   static U64 rangeBytes( TableHelper const& geometry );

   /// Creates the bitmap with every slot free unless it is there, then reconciles. Contract
   /// failures: "tableHelper()" without a geometry,
   /// "tableHelper()->keyLengthBytes() <= MAX_KEY_LENGTH_IN_BYTE",
   /// "tableHelper()->resultLengthBytes() <= MAX_RESULT_LENGTH_IN_BYTE", and, for a range that
   /// cannot lie within 32 bits, "vellumOffset() + tableShadowSize() <= 4294967296". Where images
   /// cannot be read or memory runs out, the bitmap and the counts stay what they were, and the map
   /// keeps what was found.
   void handleInitialized();
   /// Takes every valid image of the range into the bookkeeping. What was there already stays, so
   /// running it again changes nothing that callers see (and the table works from then on as one that
   /// has handed out its bitmap). Of two images with the same chip and key the one in the higher slot is
   /// found; both slots are used.
   void reconcile();

   // ---- entries

   /// Whether numUsedEntries() >= the geometry's numEntries.
   bool isFull() const override;
   /// entryLengthBytes() times the geometry's numEntries.
   U32 tableShadowSize() const override;
   /// Whether keys and results of `other` are as long as those of this table.
   bool sameLengths( ManagedTableBase const& other ) const;
   /// Bytes of one slot, L.
   U32 entryLengthBytes() const { return entryLengthBytes_; }

   /// A new pair takes the lowest free slot; a pair that has one is rewritten in place, also when
   /// the table is full. Contract failure "freeIndexBmp()" for a new pair when the bitmap has been
   /// removed.
   bool entryIs( Brine::ChipId chipId, Weft::CharPtrConst key, Weft::CharPtrConst result ) override;
   /// The slot becomes all zero and free. Contract failures "freeIndexBmp()" when the bitmap has been
   /// removed, "index.value() < freeIndexBmp()->size()" when a caller's bitmap ends before the slot.
   void entryDel( Brine::ChipId chipId, Weft::CharPtrConst key ) override;
   /// Answers from process memory.
   bool entryHas( Brine::ChipId chipId, Weft::CharPtrConst key ) const override;
   /// Answers from the slot's image. Contract failures when the image was changed behind the table's
   /// back: "entry.valid() == true", "entry.chipId() == chipId",
   /// "memcmp( key, entry.key().bytes().bytesPtr(), tableHelper()->keyLengthBytes() ) == 0".
   bool entry( Brine::ChipId chipId, Weft::CharPtrConst key, Weft::CharPtr result ) const override;

   // The same for many entries: what the single calls one after another would do, trace and answer,
   // in a fraction of their time once the table is larger than the processor's caches. `answers` is
   // empty, or as long as the other and gets what each single call would have answered; no key lies in
   // it. The number of true ones is returned.
   // Contract failure "answers.empty() || answers.size() == pairs.size()".
   // A call that fails on its way stops between two entries: those before are done and answered.

   U64 entryIsBulk( std::span<EmPairAndResult const> pairs, std::span<bool> answers = {} );
   /// The answer of an entry is whether it was there.
   U64 entryDelBulk( std::span<EmPair const> pairs, std::span<bool> answers = {} );
   U64 entryHasBulk( std::span<EmPair const> pairs, std::span<bool> answers = {} ) const;
   U64 entryBulk( std::span<EmPairAndBuffer const> pairs, std::span<bool> answers = {} ) const;

   ManagedTableIteratorConst managedTableIteratorConst() const override;
   /// One entryDel for every entry of the chip.
   void deleteAll( Brine::ChipId chipId ) override;
   /// One entryDel for every entry. Counts by chip stay, at zero.
   void clearTable() override;
   /// The entries in slot order, for range-for: `for ( EmTableEntry const& e : table->entries() )`.
   EmEntryRange entries() const;

   // ---- the map from keys to slots

   /// The key's object; null when the key is absent. The same object every time while the key is
   /// present. Made when it is asked for first, which may throw std::bad_alloc and then has changed
   /// nothing; from then on look-ups of the key go through it and take longer, and the table works
   /// as one that has handed out its bitmap.
   Corvo::Ptr<EmTableFapIndices> keyToIndexList( EntryKey const& key ) const;
   /// Sets the key's object; null removes the key.
   void keyToIndexListIs( EntryKey const& key, Corvo::Ptr<EmTableFapIndices> const& indices );
   /// Removes the key and returns its object; null when absent.
   Corvo::Ptr<EmTableFapIndices> keyToIndexListDel( EntryKey const& key );
   void keyToIndexListDelAll();
   bool keyToIndexListHas( EntryKey const& key ) const;
   /// Keys now. Where the table has seen several chips, each pair is looked at, and looked for on each of
   /// the lower chips.
   U64 keyToIndexListCount() const;
   /// Pairs held before more memory is taken.
   U64 keyToIndexListCapacity() const;

   /// A place in a walk over the keys. Keys, the one under it included, may be removed as it goes; one
   /// that loses its lowest chip only may be met again.
   class KeyCursor {
    public:
      bool onMember() const;
      /// Only while onMember().
      EntryKey key() const;
      Corvo::Ptr<EmTableFapIndices> value() const;
      void advance();

    private:
      friend class EmShadowTable;
      KeyCursor( EmShadowTable const& table, U64 position )
            : table_( &table ), position_( position ) {}
      EmShadowTable const* table_;
      U64 position_;
   };
   KeyCursor keyToIndexListCursor() const;
   /// Stands on `key`, or on no member when it is absent.
   KeyCursor keyToIndexListCursor( EntryKey const& key ) const;

   /// The slot of (chip, key), or the invalid index.
   EmTableIndex getTableIndex( Brine::ChipId chipId, EntryKey const& key ) const;
   /// Sets the slot of (chip, key). Contract failure "index.valid()".
   void updateTableIndex( Brine::ChipId chipId, EntryKey const& key, EmTableIndex index );
   /// Removes the slot of (chip, key), and the key with its last chip.
   void deleteTableIndex( Brine::ChipId chipId, EntryKey const& key );

   // ---- slots

   /// One bit per slot, set while the slot is free; null before handleInitialized and after
   /// freeIndexBmpDel. Whoever has it may change it at any time, so from then on the table checks what
   /// it would else know of its slots, and its operations take longer, the first one that adds an entry as
   /// long as a look at all of them. (isFull, numUsedEntries and a walk tell much of the same and cost
   /// nothing.)
   Corvo::Ptr<Brine::HBitmap> freeIndexBmp() const {
      trustIsLost(); // a caller may change it at any time
      return freeIndexBmp_;
   }
   /// Keeps the present bitmap when it was created with these arguments, else creates a new one.
   Corvo::Ptr<Brine::HBitmap>
   freeIndexBmpIs( U64 id, U32 size, Brine::HBitmap::BitState initialBitState );
   /// Takes the bitmap out of the table.
   Corvo::Ptr<Brine::HBitmap> freeIndexBmpDel();

   // A table whose counts a caller has set works as one that has handed out its bitmap.

   U32 numUsedEntries() const { return numUsedEntries_; }
   void numUsedEntriesIs( U32 count ) {
      trustIsLost();
      numUsedEntries_ = count;
   }
   /// New value, modulo 2^32.
   U32 numUsedEntriesInc( U32 amount ) {
      numUsedEntriesIs( numUsedEntries_ + amount );
      return numUsedEntries_;
   }
   U32 numUsedEntriesDec( U32 amount ) { return numUsedEntriesInc( 0 - amount ); }

   /// Used slots of the chip; 0 for a chip that is no member.
   U32 numUsedEntriesByChipId( Brine::ChipId chip ) const { return usedByChip_.count( chip ); }
   void numUsedEntriesByChipIdIs( Brine::ChipId chip, U32 count ) {
      trustIsLost();
      usedByChip_.countIs( chip, count );
   }
   /// New value, modulo 2^32; the chip becomes a member.
   U32 numUsedEntriesByChipIdInc( Brine::ChipId chip, U32 amount ) {
      numUsedEntriesByChipIdIs( chip, usedByChip_.count( chip ) + amount );
      return usedByChip_.count( chip );
   }
   U32 numUsedEntriesByChipIdDec( Brine::ChipId chip, U32 amount ) {
      return numUsedEntriesByChipIdInc( chip, 0 - amount );
   }
   /// Removes the member and returns its count; 0 when absent.
   U32 numUsedEntriesByChipIdDel( Brine::ChipId chip ) {
      trustIsLost();
      return usedByChip_.del( chip );
   }
   void numUsedEntriesByChipIdDelAll() {
      trustIsLost();
      usedByChip_.delAll();
   }
   bool numUsedEntriesByChipIdHas( Brine::ChipId chip ) const { return usedByChip_.has( chip ); }
   U32 numUsedEntriesByChipIdCount() const { return usedByChip_.members(); }
   /// The lowest chip with a member that is at least `from`; 256 when there is none.
   U32 numUsedEntriesByChipIdNext( U32 from ) const { return usedByChip_.nextChip( from ); }

   // The slot operations below change neither counts nor, but for the one that says so, the map. A table
   // whose slots or images a caller has changed by them works as one that has handed out its bitmap.
   // Contract failures: "freeIndexBmp()" where the bitmap is needed and absent, and
   // "index.value() < tableHelper()->numEntries()" for an index that is no slot.

   /// Takes the lowest free slot; the invalid index when none is free.
   EmTableIndex alloc();
   /// Returns a slot to the free ones; its image is left as it is. Contract failure
   /// "index.valid()".
   void free( EmTableIndex index );
   void markIndexUsed( EmTableIndex index );
   /// Writes the whole image in one write.
   void writeToVellumMemory( EmTableIndex index,
                             Brine::ChipId chipId,
                             EntryKey const& key,
                             EntryResult const& result );
   /// The same with a trace line of its own.
   void writeToShadowMemory( EmTableIndex index,
                             Brine::ChipId chipId,
                             EntryKey const& key,
                             EntryResult const& result );
   /// Writes zeros over the image in one write.
   void invalidateVellumMemory( EmTableIndex index );
   /// The decoded image; a default entry when the slot is free.
   EmTableEntry readFromVellumMemory( EmTableIndex index ) const;
   /// Invalidates the image, then frees the slot.
   void cleanupIndex( EmTableIndex index );

   Weft::TypeData typeData() const override;
   static Weft::AllocTrackTypeInfo memAllocationTracker_;

 private:
   friend class EmShadowTableIteratorConst;

   // The operations as templates, and the code chosen for the table's geometry; internal to EmTable.
   template<bool traced, class Table>
   class [[gnu::visibility( "hidden" )]] SlotWork;
   template<bool traced, class KeyClass, class Table>
   class [[gnu::visibility( "hidden" )]] EntryWork;
   template<bool traced, class KeyClass>
   class [[gnu::visibility( "hidden" )]] BulkLook;
   template<bool traced, class KeyClass>
   class [[gnu::visibility( "hidden" )]] BulkWork;
   template<bool traced, class KeyClass>
   class [[gnu::visibility( "hidden" )]] WholeWork;
   struct Code;
   struct CodeChoice;
   Code const& code() const;
   [[gnu::cold, gnu::noinline]] Code const& tracedCode() const;
   void countAfresh( Corvo::Ptr<Brine::HBitmap> const& formerBitmap );
   /// Modulo 2^32.
   [[gnu::always_inline]] void countMore( Brine::ChipId chip, U32 amount ) {
      numUsedEntries_ += amount;
      usedByChip_.countIs( chip, usedByChip_.count( chip ) + amount );
   }

   [[gnu::always_inline]] void checkSlot( EmTableIndex index,
                                          char const* operation = __builtin_FUNCTION() ) const {
      if ( index.value() >= numEntries_ ) [[unlikely]] {
         refuseSlot( index, operation );
      }
   }
   [[noreturn]] void refuseSlot( EmTableIndex index, char const* operation ) const;
   [[gnu::always_inline]] Brine::HBitmap&
   bitmap( char const* operation = __builtin_FUNCTION() ) const {
      if ( !freeIndexBmp_ ) [[unlikely]] {
         refuseWithoutBitmap( operation );
      }
      return *freeIndexBmp_;
   }
   [[noreturn]] void refuseWithoutBitmap( char const* operation ) const;
   U32 offsetOf( EmTableIndex index ) const { return index.value() * entryLengthBytes_; }
   bool hasBitmap( U64 id, U32 size, Brine::HBitmap::BitState initialBitState ) const;
   void writeEntry( EmTableIndex index, EmTableEntry const& entry, char const* operation );
   /// What readFromVellumMemory returns, into an entry that is there.
   [[gnu::visibility( "hidden" )]] void readEntry( EmTableIndex index, EmTableEntry& entry ) const;
   Code const* code_ = nullptr;
   Code const* tracedCode_ = nullptr;
   // The geometry, which never changes, where every operation needs it.
   U32 keyLengthBytes_ = 0;
   U32 resultLengthBytes_ = 0;
   U32 numEntries_ = 0;
   U32 entryLengthBytes_ = 0;
   U32 numUsedEntries_ = 0;
   Corvo::Ptr<Brine::HBitmap> freeIndexBmp_;
   std::unique_ptr<KeyToSlotMap> keyToSlot_;
   ChipCounts usedByChip_;
};

/// As EmShadowTable::EmShadowTableIs.
[[gnu::visibility( "default" )]] Corvo::Ptr<EmShadowTable>
emShadowTableFactory( Corvo::String const& tableName,
                      Corvo::Ptr<TableHelper const> const& tableHelper,
                      Corvo::Ptr<Vellum::VellumChunk> const& vellumChunk,
                      U32 vellumOffset );

/// The read-only view on an exact-match table: every image is checked before it is trusted, so a
/// slot that another process has freed or reused reads as absent.
class [[gnu::visibility( "default" )]] EmShadowTableReader : public ManagedTableReader {
 public:
   /// Contract failure "emShadowTable()", message "Table NAME is not an EmShadowTable" ("(null)"
   /// for NAME when there is no table).
   explicit EmShadowTableReader( Corvo::Ptr<ManagedTableBase const> const& table );

   /// A new reader. std::bad_alloc, and as the constructor.
   static Corvo::Ptr<EmShadowTableReader>
   EmShadowTableReaderIs( Corvo::Ptr<ManagedTableBase const> const& table );

   Corvo::Ptr<EmShadowTable const> emShadowTable() const { return emShadowTable_; }
   /// Looks entries up in `table` from now on, or, when it is null, in none. Contract failure
   /// "table->sameLengths( *this->table() )": buffers are as long as table() says.
   void emShadowTableIs( Corvo::Ptr<EmShadowTable const> const& table );
   /// Takes table() as the exact-match table that it is. Contract failure as the constructor.
   void handleInitialized();

   /// The image of the slot that the table's map names, unchecked; a default entry when it names
   /// none.
   EmTableEntry readByIndex( Brine::ChipId chipId, Weft::CharPtrConst key ) const;
   /// Whether the entry is valid and is that of (chip, key).
   bool entryValid( EmTableEntry const& entry, Brine::ChipId chipId, Weft::CharPtrConst key ) const;

   bool entryHas( Brine::ChipId chipId, Weft::CharPtrConst key ) const override;
   bool entry( Brine::ChipId chipId, Weft::CharPtrConst key, Weft::CharPtr result ) const override;

   Weft::TypeData typeData() const override;
   static Weft::AllocTrackTypeInfo memAllocationTracker_;

 private:
   EmShadowTable const& emTable( Weft::ContractSite site = "emShadowTable()" ) const;

   /// Null, or with keys and results as long as table()'s: entry_py checks and hands out by the
   /// lengths of table(), and entry reads and fills by those of this one.
   Corvo::Ptr<EmShadowTable const> emShadowTable_;
};

/// As EmShadowTableReader::EmShadowTableReaderIs.
[[gnu::visibility( "default" )]] Corvo::Ptr<EmShadowTableReader>
emShadowTableReaderFactory( Corvo::Ptr<ManagedTableBase const> const& table );

/// Walks the entries of an exact-match table in slot order. Each step asks the table's bitmap as it
/// is at that moment and takes the image as it reads it.
class [[gnu::visibility( "default" )]] EmShadowTableIteratorConst final
      : public ManagedTableIteratorConst {
 public:
   /// An iterator over no table: contract failure "emTable()".
   EmShadowTableIteratorConst() : EmShadowTableIteratorConst( nullptr ) {}
   /// On the first used slot, or done. Contract failure "emTable()" when `table` is null or no
   /// exact-match table.
   explicit EmShadowTableIteratorConst( Corvo::Ptr<ManagedTableBase const> const& table );
   /// From the string form, of which every character is consumed. Weft::ParseError says where a text
   /// is not one, or what it names is not a table that lives.
   explicit EmShadowTableIteratorConst( Weft::CharRange stringForm );

   Corvo::Ptr<EmShadowTable const> emTable() const { return emTable_; }
   /// Goes on in `table`, or, when it is null, nowhere. Contract failure
   /// "table->sameLengths( *this->table() )": buffers are as long as table() says.
   void emTableIs( Corvo::Ptr<EmShadowTable const> const& table );
   /// The slot at which the next step starts its search.
   U32 currentIndex() const { return currentIndex_; }
   void currentIndexIs( U32 index ) { currentIndex_ = index; }
   /// The image of the slot last stepped to; a default entry before any, and when the slot was
   /// invalidated behind the table's back.
   EmTableEntry const& currentEntry() const { return currentEntry_; }
   void currentEntryIs( EmTableEntry const& entry ) { currentEntry_ = entry; }

   /// Takes table() as the exact-match table that it is, and steps. Contract failure as the
   /// constructor.
   void handleInitialized();
   /// Contract failures "emTable()" without a table, "emTable()->freeIndexBmp()" without its bitmap.
   void doInc() override;
   Brine::ChipId chipId() const override { return currentEntry_.chipId(); }
   bool key( Weft::CharPtr keyBuf ) const override;
   bool result( Weft::CharPtr resultBuf ) const override;

   bool operator==( EmShadowTableIteratorConst const& other ) const {
      return ManagedTableIteratorConst::operator==( other );
   }
   static bool isEq( void const* a, void const* b );

 private:
   bool sameAs( ManagedTableIteratorConst const& other ) const override;
   std::unique_ptr<ManagedTableIteratorConst> clone() const override;
   /// Writes as many of the current entry's `bytes` as the table says; false when there are not as
   /// many.
   bool give( Corvo::Bytes const& bytes,
              U32 EmShadowTable::*lengthInTable,
              Weft::CharPtr target,
              char const* operation = __builtin_FUNCTION() ) const;

   /// Null, or with keys and results as long as table()'s: key_py and result_py hand out that many
   /// bytes of room, which key and result fill to the lengths of this one.
   Corvo::Ptr<EmShadowTable const> emTable_;
   U32 currentIndex_ = 0;
   EmTableEntry currentEntry_;
};

/// Writes the string form, which parses back to an equal value while its table lives.
[[gnu::visibility( "default" )]] std::ostream& operator<<( std::ostream&,
                                                           EmShadowTableIteratorConst const& );

struct CurrentEntryOf {
   EmTableEntry const& operator()( EmShadowTableIteratorConst const& at ) const {
      return at.currentEntry();
   }
};

/// The entries of a table as a range of one pass; an element is an EmTableEntry const&, which is not
/// valid() where a slot was invalidated behind the table's back.
class EmEntryRange : public WalkRange<EmShadowTableIteratorConst, CurrentEntryOf> {
 public:
   using WalkRange::WalkRange;
};

inline EmEntryRange EmShadowTable::entries() const {
   return EmEntryRange( EmShadowTableIteratorConst( Corvo::Ptr<ManagedTableBase const>( this ) ) );
}

} // namespace Tessel

template<>
struct std::hash<Tessel::EmTableIndex> {
   std::size_t operator()( Tessel::EmTableIndex index ) const { return index.hash(); }
};
