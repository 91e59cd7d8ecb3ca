// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/DemoScript.h"

#include "Tessel/TableManager.h"
#include "tools/tessel/Failure.h"

#include <algorithm>
#include <limits>
#include <numeric>

namespace TesselTool {

namespace {

Corvo::Bytes bytesOf( std::span<U8 const> bytes ) {
   return { bytes.data(), static_cast<U32>( bytes.size() ) };
}

void appendNumber( std::vector<U8>& bytes, U32 number ) {
   for ( U32 const shift : { 24U, 16U, 8U, 0U } ) {
      bytes.push_back( static_cast<U8>( number >> shift ) );
   }
}

Corvo::Bytes numberBytes( U32 number ) {
   std::vector<U8> bytes;
   appendNumber( bytes, number );
   return bytesOf( bytes );
}

/// FNV-1a.
U32 checksumOf( std::span<U8 const> bytes ) {
   return std::accumulate( bytes.begin(), bytes.end(), U32{ 2166136261 }, []( U32 sum, U8 byte ) {
      return ( sum ^ byte ) * 16777619U;
   } );
}

DemoOperation blockOperation( MacBlock const& block, U8 chip ) {
   std::vector<U8> key{ block.bits };
   key.insert( key.end(), block.prefix.begin(), block.prefix.end() );
   std::vector<U8> checked{ chip };
   checked.insert( checked.end(), key.begin(), key.end() );
   appendNumber( checked, block.organisation );
   std::vector<U8> result;
   appendNumber( result, block.organisation );
   appendNumber( result, checksumOf( checked ) );
   return { .entry = { .table = DemoTable::macBlock, .chip = chip, .key = bytesOf( key ) },
            .result = bytesOf( result ) };
}

DemoOperation vendorOperation( U32 organisation, U32 blocks ) {
   return { .entry = { .table = DemoTable::vendor,
                       .chip = static_cast<U8>( organisation % demoChips ),
                       .key = numberBytes( organisation ) },
            .result = numberBytes( blocks ) };
}

U8 homeOf( MacBlock const& block ) {
   return static_cast<U8>( std::accumulate( block.prefix.begin(), block.prefix.end(), 0U ) %
                           demoChips );
}

/// Room for the entries in a round number of slots.
U32 slotsFor( U64 entries ) {
   constexpr U64 step = 8192;
   constexpr U64 most = std::numeric_limits<U32>::max() / step * step;
   return static_cast<U32>( std::min( ( entries / step + 1 ) * step, most ) );
}

} // namespace

std::vector<DemoOperation> operationsFor( MacRegistry const& registry ) {
   constexpr U8 wholeBits = 24;
   std::vector<DemoOperation> operations;
   std::vector<U32> blocksOf( registry.organisations.size() );
   for ( MacBlock const& block : registry.blocks ) {
      U8 const home = homeOf( block );
      operations.push_back( blockOperation( block, home ) );
      if ( block.bits != wholeBits ) {
         operations.push_back(
            blockOperation( block, static_cast<U8>( ( home + 1 ) % demoChips ) ) );
      }
      operations.push_back(
         vendorOperation( block.organisation, ++blocksOf[ block.organisation ] ) );
   }
   return operations;
}

Plan planFor( MacRegistry const& registry,
              std::span<DemoOperation const> operations,
              std::string const& chunkName ) {
   U64 const blockEntries = operations.size() - registry.blocks.size();
   Plan plan{ .agent = "demo",
              .chunk = chunkName,
              .size = std::numeric_limits<U32>::max(),
              .startOffset = 0,
              .allowedSize = std::numeric_limits<U32>::max(),
              .tables = { { .name = "port",
                            .kind = TableKind::direct,
                            .entries = 1024,
                            .key = 2,
                            .result = 4 },
                          { .name = "mac-block",
                            .kind = TableKind::exact,
                            .entries = slotsFor( blockEntries ),
                            .key = 7,
                            .result = 8 },
                          { .name = "vendor",
                            .kind = TableKind::exact,
                            .entries = slotsFor( registry.organisations.size() ),
                            .key = 4,
                            .result = 4 } } };
   placeTables( plan );
   PlannedTable const& last = plan.tables.back();
   plan.size = last.offset + last.shadowSize + U32{ sizeof( Tessel::EmTableTrailer ) };
   plan.allowedSize = plan.size;
   return plan;
}

Entries entriesAfter( std::span<DemoOperation const> operations ) {
   Entries entries;
   for ( DemoOperation const& operation : operations ) {
      entries.insert_or_assign( operation.entry, operation.result );
   }
   return entries;
}

} // namespace TesselTool
