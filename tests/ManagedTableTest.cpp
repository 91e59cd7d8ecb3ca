// SPDX-License-Identifier: Apache-2.0
#include "support/Contract.h"
#include "support/Tables.h"
#include "support/Traces.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>

namespace {

using namespace TestSupport;
using namespace Tessel;
using testing::ElementsAre;
using Bytes = Corvo::Bytes;

Corvo::Ptr<DirectShadowTable> directTable( Chunk const& chunk, U32 offset = 0 ) {
   return directShadowTableFactory( "vlan", directTableHelperFactory( 10, 4, 2 ), chunk, offset );
}

class ManagedTable : public testing::Test {
 protected:
   void TearDown() override { ::unsetenv( "SIMULATION_VMID" ); }

   Chunk chunk = Vellum::VellumChunk::inProcess( 2000 );
   Corvo::Ptr<DirectShadowTable> table = directTable( chunk, 1044 );
   std::array<U8, 300> memory{};
   Corvo::Ptr<LocalMem> local = Corvo::makePtr<LocalMem>( memory.data(), 100 );
   std::array<U8, 4> four{ 1, 2, 3, 4 };
};

TEST_F( ManagedTable, startsInChunkModeAtItsOffset ) {
   EXPECT_EQ( table->buf(), nullptr );
   EXPECT_FALSE( table->useLocalMem() );
   EXPECT_EQ( table->localOffset(), 0U );
   EXPECT_FALSE( table->localBuf() );
   table->doWriteVellum( 8, four.data(), 4 );
   EXPECT_EQ( bytesAt( chunk, 1051, 6 ), std::string( "\0\1\2\3\4\0", 6 ) );
   std::array<U8, 4> back{};
   table->doReadVellum( 8, back.data(), 4 );
   EXPECT_EQ( back, four );
}

TEST_F( ManagedTable, holdsReferencesWhileItLivesAndWritesNothingWhenItGoes ) {
   table->localBufIs( local );
   EXPECT_EQ( chunk->useCount(), 2U );
   EXPECT_EQ( local->useCount(), 2U );
   table->doWriteVellum( 8, four.data(), 4 );
   std::string const before = allBytes( chunk );
   auto const helper = table->tableHelper();
   EXPECT_EQ( helper->useCount(), 2U );
   table = nullptr;
   EXPECT_EQ( allBytes( chunk ), before );
   EXPECT_EQ( chunk->useCount(), 1U );
   EXPECT_EQ( local->useCount(), 1U );
   EXPECT_EQ( helper->useCount(), 1U );
}

TEST_F( ManagedTable, readsAndWritesNumbersLittleEndianAtAnyOffset ) {
   table->doWriteVellum32( 0, 0x11223344 );
   EXPECT_EQ( bytesAt( chunk, 1044, 4 ), "\x44\x33\x22\x11" );
   EXPECT_EQ( table->doReadVellum16( 0 ), 0x3344 );
   EXPECT_EQ( table->doReadVellum16( 2 ), 0x1122 );
   table->doWriteVellum64( 3, 0x0807060504030201 );
   EXPECT_EQ( table->doReadVellum64( 3 ), 0x0807060504030201U );
   EXPECT_EQ( table->doReadVellum32( 6 ), 0x07060504U );
   table->doWriteVellum16( 1, 0 );
   EXPECT_EQ( table->doReadVellum32( 0 ), 0x01000044U );
}

TEST_F( ManagedTable, inLocalMemoryChecksTheSizeAndAddsTheLocalOffset ) {
   table->localBufIs( local );
   table->useLocalMemIs( true );
   std::string const past = "localBuf()->size() >= ( size + offset )";
   table->doWriteVellum( 96, four.data(), 4 );
   EXPECT_EQ( memory[ 99 ], 4 );
   table->doWriteVellum( 100, four.data(), 0 );
   EXPECT_EQ( failedCondition( [ & ] { table->doWriteVellum( 97, four.data(), 4 ); } ), past );
   EXPECT_EQ( failedCondition( [ & ] { table->doReadVellum( 0xFFFFFFFE, four.data(), 4 ); } ),
              past )
      << "the sum does not wrap";
   table->localOffsetIs( 200 );
   table->doWriteVellum( 8, four.data(), 4 );
   EXPECT_EQ( memory[ 208 ], 1 );
   EXPECT_EQ( memory[ 8 ], 0 );
   EXPECT_EQ( allBytes( chunk ), std::string( 2000, '\0' ) );
   table->useLocalMemIs( false );
   table->doWriteVellum( 0, four.data(), 1 );
   EXPECT_EQ( bytesAt( chunk, 1044, 1 ), "\1" ) << "the next access goes elsewhere at once";
}

TEST_F( ManagedTable, withoutALocalBufferFailsBeforeAnythingIsTraced ) {
   table->useLocalMemIs( true );
   TraceRecorder trace( "TesselManagedTableBase" );
   auto const failure = contractFailure( [ & ] { table->doWriteVellum( 0, four.data(), 4 ); } );
   ASSERT_TRUE( failure );
   EXPECT_EQ( failure->condition(), "localBuf()" );
   EXPECT_EQ( failure->message(), "" );
   EXPECT_EQ( failure->module(), "ManagedTableBase" );
   EXPECT_THAT( trace.messages(), ElementsAre() );
}

TEST_F( ManagedTable, tracesLocalAccessesAtLevel9 ) {
   table->localBufIs( local );
   table->useLocalMemIs( true );
   std::ostringstream address;
   address << std::hex << reinterpret_cast<std::uintptr_t>( memory.data() );
   TraceRecorder trace( "TesselManagedTableBase", U64{ 1 } << 9 );
   table->doWriteVellum16( 4, 7 );
   table->doReadVellum16( 4 );
   EXPECT_THAT(
      trace.messages(),
      ElementsAre( "void Tessel::ManagedTableBase::doWriteVellum(U32, Weft::BytePtr, U32)"
                   " write to local memory : " +
                      address.str(),
                   "void Tessel::ManagedTableBase::doReadVellum(U32, Weft::BytePtr, U32) const"
                   " read from local memory : " +
                      address.str() ) );
}

TEST_F( ManagedTable, inARawBufferNeedsTheEnvironmentVariableAtEachAccess ) {
   table->useLocalMemIs( true ); // and no localBuf: the raw buffer wins
   table->localOffsetIs( 50 );
   table->bufIs( memory.data() );
   std::string const condition = "getenv( \"SIMULATION_VMID\" )";
   EXPECT_EQ( failedCondition( [ & ] { table->doWriteVellum( 0, four.data(), 4 ); } ), condition );
   ::setenv( "SIMULATION_VMID", "", 1 );
   table->doWriteVellum( 20, four.data(), 4 );
   EXPECT_EQ( memory[ 20 ], 1 );
   EXPECT_EQ( table->doReadVellum32( 20 ), 0x04030201U );
   ::unsetenv( "SIMULATION_VMID" );
   EXPECT_EQ( failedCondition( [ & ] { table->doReadVellum32( 20 ); } ), condition );
   table->bufIs( nullptr );
   table->useLocalMemIs( false );
   EXPECT_EQ( table->doReadVellum32( 20 ), 0U );
}

TEST_F( ManagedTable, inChunkModeIsBoundedByTheChunkIn64Bits ) {
   std::string const outside = "offset + length <= size()";
   table->doWriteVellum( 2000 - 1044 - 4, four.data(), 4 );
   EXPECT_EQ( failedCondition( [ & ] { table->doWriteVellum( 2000 - 1044 - 3, four.data(), 4 ); } ),
              outside );
   for ( U32 const past : { 0xFFFFFFFFU - 1046, 0xFFFFFFFFU - 1043 } ) { // by its end, its start
      EXPECT_EQ( failedCondition( [ & ] { table->doWriteVellum( past, four.data(), 4 ); } ),
                 outside );
      EXPECT_EQ( failedCondition( [ & ] { table->doReadVellum( past, four.data(), 4 ); } ),
                 outside );
   }
   EXPECT_EQ( failedCondition( [] { directTable( nullptr )->doReadVellum16( 0 ); } ),
              "vellumChunk()" );
}

TEST_F( ManagedTable, keepsItsEntriesInLocalMemoryToo ) {
   local = Corvo::makePtr<LocalMem>( memory.data(), 64 );
   auto const exact = newTable();
   exact->localBufIs( local );
   exact->useLocalMemIs( true );
   add( exact, chip3, "AAAA", "r1" );
   EXPECT_EQ( memory[ 0 ], 1 );
   EXPECT_EQ( memory[ 7 ], '1' );
   EXPECT_EQ( lookUp( *exact, chip3, "AAAA" ), "r1" );
   add( exact, chip3, "AAAA", "r2" );
   EXPECT_EQ( memory[ 7 ], '2' );
   add( exact, chip5, "AAAA", "r5" );
   EXPECT_EQ( lookUp( *exact, chip5, "AAAA" ), "r5" );
   exact->entryDel( chip3, "AAAA" );
   EXPECT_EQ( memory[ 0 ], 0 );
   EXPECT_EQ( lookUp( *exact, chip3, "AAAA" ), std::nullopt );
   exact->clearTable();
   EXPECT_EQ( memory[ 8 ], 0 );
   EXPECT_EQ( exact->numUsedEntries(), 0U );
   EXPECT_EQ( Corvo::makePtr<LocalMem>( memory.data(), 64 )->size(), 64U );
}

TEST( ByteStringOperations, traceTheLengthsThatAreGivenBeforeTheyCheckThem ) {
   auto const table = newTable();
   auto const reader = emShadowTableReaderFactory( table );
   TraceRecorder trace( "TesselManagedTableBase" );
   EXPECT_TRUE( table->entryIs_py( chip3, bytesOf( "AAAA" ), bytesOf( "r1" ) ) );
   EXPECT_TRUE( table->entryHas_py( chip3, bytesOf( "AAAA" ) ) );
   EXPECT_EQ( textOf( table->entry_py( chip3, bytesOf( "AAAA" ) ) ), "r1" );
   EXPECT_TRUE( reader->entryHas_py( chip3, bytesOf( "AAAA" ) ) );
   EXPECT_EQ( textOf( reader->entry_py( chip3, bytesOf( "AAAA" ) ) ), "r1" );
   table->entryDel_py( chip3, bytesOf( "AAAA" ) );
   EXPECT_TRUE( table->entry_py( chip3, bytesOf( "AAAA" ) ).empty() );
   auto const failure = contractFailure(
      [ & ] { table->entryIs_py( chip3, bytesOf( "AAA" ), bytesOf( "value" ) ); } );
   ASSERT_TRUE( failure );
   EXPECT_EQ( failure->message(), "key of 3 bytes given; table \"mac\" takes 4" );
   EXPECT_EQ( failure->module(), "ManagedTableBase" );
   EXPECT_THAT(
      trace.messages(),
      ElementsAre( "bool Tessel::ManagedTableBase::entryIs_py(Brine::ChipId, const Bytes&, const "
                   "Bytes&) chipId:3 keySize:4 valueSize:2",
                   "ManagedTableBase::entryHas_py chipId: 3 keySize:4",
                   "ManagedTableBase::entry_py chipId: 3 keySize:4",
                   "ManagedTableReader::entryHas_py chipId: 3 keySize:4",
                   "ManagedTableReader::entry_py chipId: 3 keySize:4",
                   "ManagedTableBase::entryDel_py chipId: 3 keySize:4",
                   "ManagedTableBase::entry_py chipId: 3 keySize:4",
                   "bool Tessel::ManagedTableBase::entryIs_py(Brine::ChipId, const Bytes&, const "
                   "Bytes&) chipId:3 keySize:3 valueSize:5" ) );
}

TEST( ByteStringOperations, refuseAnotherLengthThanTheTables ) {
   auto const table = newTable();
   auto const reader = emShadowTableReaderFactory( table );
   std::string const condition = "key.size() == tableHelper()->keyLengthBytes()";
   Bytes const longKey = bytesOf( "AAAAA" );
   EXPECT_EQ( failedCondition( [ & ] { table->entryIs_py( chip3, longKey, bytesOf( "r1" ) ); } ),
              condition );
   EXPECT_EQ( failedCondition( [ & ] { table->entryDel_py( chip3, longKey ); } ), condition );
   EXPECT_EQ( failedCondition( [ & ] { table->entryHas_py( chip3, longKey ); } ), condition );
   EXPECT_EQ( failedCondition( [ & ] { table->entry_py( chip3, Bytes() ); } ), condition );
   EXPECT_EQ( failedCondition( [ & ] { reader->entryHas_py( chip3, longKey ); } ), condition );
   EXPECT_EQ( failedCondition( [ & ] { reader->entry_py( chip3, Bytes() ); } ), condition );
   auto const value =
      contractFailure( [ & ] { table->entryIs_py( chip3, bytesOf( "AAAA" ), bytesOf( "r" ) ); } );
   ASSERT_TRUE( value );
   EXPECT_EQ( value->message(), "value of 1 bytes given; table \"mac\" takes 2" );
   EXPECT_EQ( table->numUsedEntries(), 0U );
   auto const without = directShadowTableFactory( "none", nullptr, nullptr, 0 );
   EXPECT_TRUE( contractFailure( [ & ] { without->entryHas_py( chip3, longKey ); } ) );
}

TEST( DirectTable, answersTheSameWhateverIsAsked ) {
   auto const chunk = Vellum::VellumChunk::inProcess( 100 );
   auto const table = directTable( chunk );
   std::string buffer = "##";
   EXPECT_FALSE( table->entryIs( chip3, "AAAA", "r1" ) );
   EXPECT_FALSE( table->entryHas( chip3, "AAAA" ) );
   EXPECT_FALSE( table->entry( chip3, "AAAA", buffer.data() ) );
   EXPECT_EQ( buffer, "##" );
   EXPECT_FALSE( table->entryIs_py( chip3, bytesOf( "AAAA" ), bytesOf( "r1" ) ) );
   EXPECT_FALSE( table->entryHas_py( chip3, bytesOf( "AAAA" ) ) );
   EXPECT_TRUE( table->entry_py( chip3, bytesOf( "AAAA" ) ).empty() );
   table->entryDel_py( chip3, bytesOf( "AAAA" ) );
   table->deleteAll( chip3 );
   table->clearTable();
   EXPECT_FALSE( table->isFull() );
   EXPECT_EQ( table->tableShadowSize(), 0U );
   EXPECT_EQ( allBytes( chunk ), std::string( 100, '\0' ) );
}

TEST( DirectTable, isNeverReadOrWrittenWhereItsMemoryWouldFail ) {
   auto const table = directTable( nullptr );
   table->useLocalMemIs( true );
   EXPECT_FALSE( table->entryIs( chip3, nullptr, nullptr ) );
   EXPECT_FALSE( table->entry( chip3, nullptr, nullptr ) );
   table->clearTable();
}

TEST( DirectTable, handsOutAnIteratorThatIsDone ) {
   auto const table = directTable( nullptr );
   auto at = table->managedTableIteratorConst();
   EXPECT_FALSE( at );
   EXPECT_EQ( at.table(), table );
   EXPECT_EQ( table->useCount(), 2U );
   EXPECT_EQ( at, table->managedTableIteratorConst() );
   EXPECT_NE( at, ManagedTableIteratorConst( table ) );
   at.doInc();
   EXPECT_FALSE( at.key( nullptr ) );
   EXPECT_TRUE( at.key_py().empty() );
   EXPECT_TRUE( at.result_py().empty() );
}

} // namespace
