// SPDX-License-Identifier: Apache-2.0
// What the registry says of every type of the library, written down once more by hand, and what the
// types do compared with what the registry says.

#include "WeftCorvo/Entities.h"
#include "support/Contract.h"
#include "support/Heap.h"
#include "support/Slots.h"
#include "support/Tables.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <numeric>
#include <optional>
#include <sstream>

namespace {

using namespace TestSupport;
using Weft::Attribute;
using Weft::AttributeKind;
using Weft::Op;
using Weft::Status;
using Weft::TypeInfo;
using Weft::TypeKind;

constexpr std::string_view written = R"(
ShadowTypes
0 Tessel::EntryKey value( bytes Weft::Bytes )
   2 bytes Weft::Bytes const
   3 hash U32 op const()
1 Tessel::EntryResult value( bytes Weft::Bytes )
   2 bytes Weft::Bytes const
   3 hash U32 op const()
TableHelper
0 Tessel::TableHelper entity( numEntries U32, keyLengthBytes U32, resultLengthBytes U32 )
   130 numEntries U32 const
   131 keyLengthBytes U32 const
   132 resultLengthBytes U32 const
1 Tessel::DirectTableHelper entity of Tessel::TableHelper( numEntries U32, keyLengthBytes U32, resultLengthBytes U32 )
2 Tessel::EmTableHelper entity of Tessel::TableHelper( numEntries U32, keyLengthBytes U32, resultLengthBytes U32 )
ManagedTableBase
0 Tessel::LocalMem entity, only listed( ptr Weft::BytePtr, size U32 )
   130 ptr Weft::BytePtr const
   131 size U32 const
1 Tessel::ManagedTableIteratorConst value, unhashable( table Tessel::ManagedTableBase )
   2 table Tessel::ManagedTableBase const
   3 done bool read-only
   4 chipId Brine::ChipId op const()
   5 key bool op const( keyBuf Weft::CharPtr )
   6 result bool op const( resultBuf Weft::CharPtr )
   7 doInc void op()
   8 key_py Weft::Bytes op const()
   9 result_py Weft::Bytes op const()
2 Tessel::ManagedTableReader entity, only listed( table Tessel::ManagedTableBase )
   130 table Tessel::ManagedTableBase const
   131 entryHas bool op const( chipId Brine::ChipId, key Weft::CharPtrConst )
   132 entry bool op const( chipId Brine::ChipId, key Weft::CharPtrConst, result Weft::CharPtr )
   133 entryHas_py bool op const( chipId Brine::ChipId, key Weft::Bytes )
   134 entry_py Weft::Bytes op const( chipId Brine::ChipId, key Weft::Bytes )
3 Tessel::ManagedTableBase entity, only listed( tableName Weft::String, tableHelper Tessel::TableHelper, vellumChunk Vellum::VellumChunk, vellumOffset U32 )
   130 tableName Weft::String const
   131 tableHelper Tessel::TableHelper const
   132 vellumChunk Vellum::VellumChunk const
   133 vellumOffset U32 const
   134 buf Weft::BytePtr state
   135 useLocalMem bool state
   136 localOffset U32 state
   137 localBuf Tessel::LocalMem state
   138 isFull bool op const()
   139 tableShadowSize U32 op const()
   140 entryIs bool op( chipId Brine::ChipId, key Weft::CharPtrConst, result Weft::CharPtrConst )
   141 entryDel void op( chipId Brine::ChipId, key Weft::CharPtrConst )
   142 entryHas bool op const( chipId Brine::ChipId, key Weft::CharPtrConst )
   143 entry bool op const( chipId Brine::ChipId, key Weft::CharPtrConst, result Weft::CharPtr )
   144 managedTableIteratorConst Tessel::ManagedTableIteratorConst op const()
   145 deleteAll void op( chipId Brine::ChipId )
   146 clearTable void op()
   147 entryIs_py bool op( chipId Brine::ChipId, key Weft::Bytes, value Weft::Bytes )
   148 entryDel_py void op( chipId Brine::ChipId, key Weft::Bytes )
   149 entryHas_py bool op const( chipId Brine::ChipId, key Weft::Bytes )
   150 entry_py Weft::Bytes op const( chipId Brine::ChipId, key Weft::Bytes )
   151 doWriteVellum void op( offset U32, data Weft::BytePtr, size U32 )
   152 doReadVellum void op const( offset U32, data Weft::BytePtr, size U32 )
   153 doWriteVellum64 void op( offset U32, data U64 )
   154 doReadVellum64 U64 op const( offset U32 )
   155 doWriteVellum32 void op( offset U32, data U32 )
   156 doReadVellum32 U32 op const( offset U32 )
   157 doWriteVellum16 void op( offset U32, data U16 )
   158 doReadVellum16 U16 op const( offset U32 )
DirectTable
0 Tessel::DirectShadowTable entity of Tessel::ManagedTableBase( tableName Weft::String, tableHelper Tessel::TableHelper, vellumChunk Vellum::VellumChunk, vellumOffset U32 )
EmTable
0 Tessel::EmTableIndex value( value U32 )
   2 value U32 const
   3 invalid U32 constant
   4 valid bool op const()
1 Tessel::EmTableFapIndices entity()
   130 index Tessel::EmTableIndex collection by Brine::ChipId
2 Tessel::EmTableEntry value, unhashable( valid bool, chipId Brine::ChipId, key Tessel::EntryKey, result Tessel::EntryResult )
   2 valid bool state
   3 chipId Brine::ChipId state
   4 key Tessel::EntryKey state
   5 result Tessel::EntryResult state
3 Tessel::EmShadowTableIteratorConst value, unhashable of Tessel::ManagedTableIteratorConst( table Tessel::ManagedTableBase )
   130 emTable Tessel::EmShadowTable state
   131 currentIndex U32 state
   132 currentEntry Tessel::EmTableEntry state
   133 handleInitialized void op()
4 Tessel::EmShadowTableReader entity of Tessel::ManagedTableReader( table Tessel::ManagedTableBase )
   258 emShadowTable Tessel::EmShadowTable hidden
   259 readByIndex Tessel::EmTableEntry op, hidden( chipId Brine::ChipId, key Weft::CharPtrConst )
   260 entryValid bool op, hidden( entry Tessel::EmTableEntry, chipId Brine::ChipId, key Weft::CharPtrConst )
   261 handleInitialized void op()
5 Tessel::EmShadowTable entity of Tessel::ManagedTableBase( tableName Weft::String, tableHelper Tessel::TableHelper, vellumChunk Vellum::VellumChunk, vellumOffset U32 )
   258 writeToShadowMemory void op, hidden( index Tessel::EmTableIndex, chipId Brine::ChipId, key Tessel::EntryKey, result Tessel::EntryResult )
   259 cleanupIndex void op( index Tessel::EmTableIndex )
   260 entryLengthBytes U32 op, hidden()
   261 keyToIndexList Tessel::EmTableFapIndices collection by Tessel::EntryKey
   262 freeIndexBmp Brine::HBitmap state( id U64, size U32, initialBitState U32 )
   263 numUsedEntries U32 state
   264 numUsedEntriesByChipId U32 collection by Brine::ChipId
   265 markIndexUsed void op, hidden( index Tessel::EmTableIndex )
   266 alloc Tessel::EmTableIndex op, hidden()
   267 free void op, hidden( index Tessel::EmTableIndex )
   268 getTableIndex Tessel::EmTableIndex op, hidden( chipId Brine::ChipId, key Tessel::EntryKey )
   269 updateTableIndex void op, hidden( chipId Brine::ChipId, key Tessel::EntryKey, index Tessel::EmTableIndex )
   270 deleteTableIndex void op, hidden( chipId Brine::ChipId, key Tessel::EntryKey )
   271 reconcile void op()
   272 writeToVellumMemory void op, hidden( index Tessel::EmTableIndex, chipId Brine::ChipId, key Tessel::EntryKey, result Tessel::EntryResult )
   273 invalidateVellumMemory void op, hidden( index Tessel::EmTableIndex )
   274 readFromVellumMemory Tessel::EmTableEntry op, hidden( index Tessel::EmTableIndex )
   275 handleInitialized void op()
TableManager
0 Tessel::TableManager entity( agentName Weft::String, vellumChunk Vellum::VellumChunk, startOffset U32, allowedSize U32 )
   130 agentName Weft::String const
   131 vellumChunk Vellum::VellumChunk read-only
   132 startOffset U32 read-only
   133 allowedSize U32 read-only
   134 currentOffset U32 hidden
   135 endOffset U32 op const()
   136 setVellum void op( chunk Vellum::VellumChunk, startingOffset U32, allowedSize U32 )
   137 manageDirectShadow Tessel::ManagedTableBase op( tableName Weft::String, tableHelper Tessel::DirectTableHelper )
   138 manageEmShadow Tessel::ManagedTableBase op( tableName Weft::String, emTableHelper Tessel::EmTableHelper )
   139 deleteAll void op( chipId Brine::ChipId )
   140 clearTable void op( tableName Weft::String )
   141 managedTable Tessel::ManagedTableBase collection by Weft::String
)";

std::string_view nameOf( AttributeKind kind ) {
   switch ( kind ) {
   case AttributeKind::constant:
      return "const";
   case AttributeKind::readOnly:
      return "read-only";
   case AttributeKind::state:
      return "state";
   case AttributeKind::hidden:
      return "hidden";
   case AttributeKind::fixedValue:
      return "constant";
   case AttributeKind::op:
      return "op";
   case AttributeKind::opConst:
      return "op const";
   case AttributeKind::opStatic:
      return "op static";
   case AttributeKind::opHidden:
      return "op, hidden";
   case AttributeKind::collection:
      return "collection";
   }
   return "?";
}

bool isOperation( AttributeKind kind ) {
   return nameOf( kind ).starts_with( "op" );
}

std::string listOf( std::span<Weft::Argument const> arguments ) {
   std::string list = "(";
   for ( Weft::Argument const& argument : arguments ) {
      list.append( list == "(" ? " " : ", " ).append( argument.name() ).append( " " );
      list.append( argument.typeName() );
   }
   return list + ( arguments.empty() ? ")" : " )" );
}

void tell( std::ostream& out, TypeInfo const& type ) {
   out << type.index() << ' ' << type.name()
       << ( type.kind() == TypeKind::value ? " value" : " entity" )
       << ( type.constructible() ? "" : ", only listed" )
       << ( type.hashable() ? "" : ", unhashable" )
       << ( type.base() ? " of " + std::string( type.base()->name() ) : "" )
       << listOf( type.constructorArguments() ) << '\n';
   for ( Attribute const& attribute : type.attributes() ) {
      bool const listed = isOperation( attribute.kind() ) || !attribute.arguments().empty();
      out << "   " << attribute.id() << ' ' << attribute.name() << ' ' << attribute.typeName()
          << ' ' << nameOf( attribute.kind() ) << ( listed ? listOf( attribute.arguments() ) : "" );
      if ( attribute.kind() == AttributeKind::collection ) {
         out << " by " << attribute.keyTypeName();
      }
      out << '\n';
   }
}

/// The types of the library's six modules; House's belong to the tests.
std::vector<TypeInfo const*> libraryTypes() {
   std::vector<TypeInfo const*> types;
   for ( Weft::Module const* const module : Weft::modules() ) {
      for ( TypeInfo const& type : module->types() ) {
         if ( type.name().starts_with( "Tessel::" ) ) {
            types.push_back( &type );
         }
      }
   }
   return types;
}

TEST( RegisteredTypes, areTheOnesWrittenDown ) {
   std::ostringstream told;
   told << '\n';
   Weft::Module const* module = nullptr;
   for ( TypeInfo const* const type : libraryTypes() ) {
      if ( module != &type->module() ) {
         module = &type->module();
         told << module->name() << '\n';
      }
      tell( told, *type );
   }
   EXPECT_EQ( told.str(), written );
}

class RegisteredTypesDo : public testing::Test {
 protected:
   /// An object of the type for attributeOp; it lives as long as `slot`.
   static void* objectIn( TypeInfo const& type, AnySlot const& slot ) {
      return type.kind() == TypeKind::value
                ? slot.get()
                : WeftCorvo::objectAs( type, *WeftCorvo::nodeIn( type, slot.get() ) );
   }
   AnySlot sample( TypeInfo const& type ) {
      AnySlot slot = sampler.slot( type.name() );
      if ( type.kind() == TypeKind::entity ) {
         WeftCorvo::nodeInto( type, slot.get(), sampler.object( type ) );
      }
      return slot;
   }

   RaiseContracts const raise;
   Sampler sampler{ 1 };
};

/// The operations that an attribute supports, by its kind.
std::vector<Op> supported( Attribute const& attribute ) {
   switch ( attribute.kind() ) {
   case AttributeKind::constant:
   case AttributeKind::readOnly:
   case AttributeKind::fixedValue:
      return { Op::read };
   case AttributeKind::state:
      return attribute.arguments().empty() ? std::vector{ Op::read, Op::write }
                                           : std::vector{ Op::read, Op::write, Op::del };
   case AttributeKind::op:
   case AttributeKind::opConst:
   case AttributeKind::opStatic:
      return { Op::call };
   case AttributeKind::collection:
      return { Op::read, Op::write, Op::del, Op::count, Op::capacity, Op::contains };
   default:
      return {};
   }
}

/// Whether the operation was carried out, if only to fail: on a contract or a value out of range.
template<class Operation>
Status statusOf( Operation const& operation ) {
   try {
      return operation();
   } catch ( std::logic_error const& ) { // contract failures, out_of_range, invalid_argument
      return Status::done;
   }
}

TEST_F( RegisteredTypesDo, whatTheirKindsOfAttributesSupportAndNothingElse ) {
   for ( TypeInfo const* const type : libraryTypes() ) {
      AnySlot const slot = sample( *type );
      void* const object = objectIn( *type, slot );
      for ( Attribute const& attribute : type->attributes() ) {
         auto const can = supported( attribute );
         EXPECT_EQ( attribute.hidden(), can.empty() );
         for ( U32 code = 0; code < 20; ++code ) {
            Op const op{ code };
            bool const sets = op == Op::write && attribute.arguments().empty();
            std::vector<AnySlot> arguments = sampler.slots( attribute.arguments() );
            if ( sets ) {
               arguments.push_back( sampler.slot( attribute.typeName(), attribute.name() ) );
            }
            AnySlot const result =
               AnySlot::ofType( op == Op::contains                      ? "bool"
                                : op == Op::count || op == Op::capacity ? "U32"
                                                                        : attribute.typeName() );
            AnySlot const key = AnySlot::ofType(
               attribute.keyTypeName().empty() ? "void" : attribute.keyTypeName() );
            bool const supports = std::ranges::find( can, op ) != can.end();
            EXPECT_EQ( statusOf( [ & ] {
                          return type->attributeOp( supports ? result.get() : nullptr,
                                                    object,
                                                    &attribute,
                                                    op,
                                                    key.get(),
                                                    pointersTo( arguments ).data() );
                       } ),
                       supports ? Status::done : Status::unsupported )
               << type->name() << "::" << attribute.name() << ", " << code;
            for ( TypeInfo const* const other : libraryTypes() ) {
               if ( other != type ) {
                  EXPECT_EQ(
                     other->attributeOp( nullptr, object, &attribute, op, nullptr, nullptr ),
                     Status::notMine );
               }
            }
         }
      }
   }
}

TEST_F( RegisteredTypesDo, constructWhatTheirAttributesRead ) {
   U32 compared = 0;
   for ( TypeInfo const* const type : libraryTypes() ) {
      for ( U32 round = 0; type->constructible() && round < 20; ++round ) {
         auto const arguments = sampler.slots( type->constructorArguments() );
         std::optional<AnySlot> slot;
         auto const build = [ & ]( void* memory ) {
            type->construct( memory, pointersTo( arguments ).data() );
         };
         if ( contractFailure( [ & ] { slot.emplace( *type, build ); } ) ) {
            continue;
         }
         for ( std::size_t i = 0; i < arguments.size(); ++i ) {
            Attribute const* const attribute =
               type->attribute( type->constructorArguments()[ i ].name() );
            ASSERT_NE( attribute, nullptr ) << type->name();
            TypeInfo const& owner = attribute->owner();
            AnySlot const read = AnySlot::ofType( attribute->typeName() );
            EXPECT_EQ( owner.attributeOp( read.get(),
                                          type->viewAs( owner, objectIn( *type, *slot ) ),
                                          attribute,
                                          Op::read,
                                          nullptr,
                                          nullptr ),
                       Status::done );
            EXPECT_EQ( read.text(), arguments[ i ].text() ) << type->name() << ' ' << i;
            ++compared;
         }
      }
   }
   EXPECT_GT( compared, 300U );
}

TEST_F( RegisteredTypesDo, readBackWhatIsWrittenToTheirState ) {
   U32 compared = 0;
   for ( TypeInfo const* const type : libraryTypes() ) {
      AnySlot const slot = sample( *type );
      void* const object = objectIn( *type, slot );
      for ( Attribute const& attribute : type->attributes() ) {
         if ( attribute.kind() != AttributeKind::state || !attribute.arguments().empty() ) {
            continue;
         }
         AnySlot const value = sampler.slot( attribute.typeName(), attribute.name() );
         void* const arguments[] = { value.get() };
         AnySlot const read = AnySlot::ofType( attribute.typeName() );
         bool const refused =
            contractFailure( [ & ] {
               type->attributeOp( nullptr, object, &attribute, Op::write, nullptr, arguments );
            } ).has_value();
         type->attributeOp( read.get(), object, &attribute, Op::read, nullptr, nullptr );
         EXPECT_EQ( read.text() == value.text(), !refused ) << attribute.name();
         compared += refused ? 0 : 1;
      }
   }
   EXPECT_GT( compared, 9U );
}

TEST_F( RegisteredTypesDo, copyCompareHashPrintAndParseTheirValues ) {
   for ( TypeInfo const* const type : libraryTypes() ) {
      for ( U32 round = 0; type->kind() == TypeKind::value && round < 20; ++round ) {
         AnySlot const value = sample( *type );
         auto const parse = [ & ]( std::string const& text ) {
            return AnySlot( *type,
                            [ & ]( void* memory ) { type->fromStringForm( memory, text ); } );
         };
         AnySlot const parsed = parse( value.text() );
         AnySlot const copy( *type, [ & ]( void* memory ) { type->copy( memory, value.get() ); } );
         for ( AnySlot const* const same : { &parsed, &copy } ) {
            void* const second[] = { same->get() };
            bool equal = false;
            type->attributeOp( &equal, value.get(), nullptr, Op::equal, nullptr, second );
            EXPECT_TRUE( equal ) << value.text();
            EXPECT_EQ( same->text(), value.text() );
            bool less = false;
            Status const ordered =
               type->attributeOp( &less, value.get(), nullptr, Op::less, nullptr, second );
            EXPECT_EQ( ordered,
                       type->name().ends_with( "IteratorConst" ) ? Status::unsupported
                                                                 : Status::done );
            EXPECT_FALSE( less );
            if ( type->hashable() ) {
               EXPECT_EQ( type->hash( same->get() ), type->hash( value.get() ) );
            } else {
               EXPECT_THROW( type->hash( value.get() ), Weft::UnhashableError );
            }
         }
         EXPECT_THROW( parse( value.text() + " " ), Weft::ParseError );
         for ( TypeInfo const* const other : libraryTypes() ) {
            if ( type->isA( *other ) ) {
               EXPECT_NE( type->viewAs( *other, value.get() ), nullptr );
            } else {
               EXPECT_THROW( type->viewAs( *other, value.get() ), Weft::TypeException );
            }
         }
      }
   }
}

TEST_F( RegisteredTypesDo, refuseNullPointersWhereAnOperationWantsMemory ) {
   U32 refused = 0;
   std::array<char, 100> memory{};
   for ( TypeInfo const* const type : libraryTypes() ) {
      AnySlot const slot = sample( *type );
      for ( Attribute const& attribute : type->attributes() ) {
         std::vector<AnySlot> arguments;
         for ( Weft::Argument const& argument : attribute.arguments() ) {
            arguments.push_back( AnySlot::ofType( argument.typeName() ) );
         }
         for ( std::size_t i = 0; !attribute.hidden() && i < arguments.size(); ++i ) {
            Weft::Argument const& argument = attribute.arguments()[ i ];
            if ( argument.typeName().find( "Ptr" ) == std::string::npos ) {
               continue;
            }
            EXPECT_THAT(
               [ & ] {
                  type->attributeOp( nullptr,
                                     objectIn( *type, slot ),
                                     &attribute,
                                     Op::call,
                                     nullptr,
                                     pointersTo( arguments ).data() );
               },
               testing::ThrowsMessage<std::invalid_argument>(
                  "argument " + std::string( argument.name() ) + " is a null pointer" ) );
            arguments[ i ] = AnySlot( memory.data() );
            ++refused;
         }
      }
   }
   EXPECT_EQ( refused, 13U );
}

/// All that can be read of an object.
std::string stateOf( TypeInfo const& type, void* object ) {
   std::vector<std::string> lines;
   for ( TypeInfo const* level = &type; level != nullptr; level = level->base() ) {
      void* const view = type.viewAs( *level, object );
      for ( Attribute const& attribute : level->attributes() ) {
         auto const can = supported( attribute );
         AnySlot const value = AnySlot::ofType( attribute.typeName() );
         if ( attribute.kind() == AttributeKind::collection ) {
            AnySlot const key = AnySlot::ofType( attribute.keyTypeName() );
            auto const at = level->collectionIterator( view, &attribute );
            for ( ; at->onMember(); at->advance() ) {
               at->key( key.get() );
               at->value( value.get() );
               lines.push_back( key.text() + value.text() );
            }
         } else if ( std::ranges::find( can, Op::read ) != can.end() ) {
            level->attributeOp( value.get(), view, &attribute, Op::read, nullptr, nullptr );
            lines.push_back( value.text() );
         }
      }
   }
   std::ranges::sort( lines ); // a collection that has more room walks in another order
   return std::accumulate( lines.begin(), lines.end(), std::string() );
}

TEST_F( RegisteredTypesDo, leaveTheirObjectsAsTheyWereWhenMemoryRunsOut ) {
   U64 failures = 0;
   for ( TypeInfo const* const type : libraryTypes() ) {
      AnySlot const slot = sample( *type );
      void* const object = objectIn( *type, slot );
      std::string before;
      auto const failEach = [ & ]( auto const& attempt ) {
         before = stateOf( *type, object );
         failures += failEachAllocation(
            [ & ] {
               statusOf( [ & ] {
                  attempt();
                  return Status::done;
               } );
            },
            [ & ] { EXPECT_EQ( stateOf( *type, object ), before ); } );
      };
      for ( Attribute const& attribute : type->attributes() ) {
         for ( Op const op : supported( attribute ) ) {
            auto arguments = sampler.slots( attribute.arguments() );
            if ( arguments.empty() && op == Op::write ) {
               arguments.push_back( sampler.slot( attribute.typeName(), attribute.name() ) );
            }
            auto const pointers = pointersTo( arguments );
            bool const keyed = attribute.kind() == AttributeKind::collection;
            AnySlot const key = keyed ? sampler.slot( attribute.keyTypeName() ) : AnySlot( false );
            failEach( [ & ] {
               type->attributeOp( nullptr, object, &attribute, op, key.get(), pointers.data() );
            } );
            failEach( [ & ] { type->collectionIterator( object, &attribute, key.get() ); } );
         }
      }
      failEach(
         [ & ] { AnySlot( *type, [ & ]( void* memory ) { type->copy( memory, slot.get() ); } ); } );
      std::string const text = slot.text();
      failEach( [ & ] { type->stringForm( slot.get() ); } );
      failEach( [ & ] {
         AnySlot( *type, [ & ]( void* memory ) { type->fromStringForm( memory, text ); } );
      } );
      auto const arguments = sampler.slots( type->constructorArguments() );
      auto const pointers = pointersTo( arguments );
      failEach( [ & ] {
         AnySlot( *type, [ & ]( void* memory ) { type->construct( memory, pointers.data() ); } );
      } );
   }
   EXPECT_GT( failures, 50U );
}

} // namespace
