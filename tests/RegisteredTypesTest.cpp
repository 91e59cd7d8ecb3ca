// SPDX-License-Identifier: Apache-2.0
// What the registry says of every type of the library compared with registered-types.txt, which is
// written by hand, and with what the types do.

#include "WeftCorvo/Entities.h"
#include "support/Contract.h"
#include "support/Heap.h"
#include "support/Slots.h"
#include "support/Tool.h"

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

/// In the order of the enumeration.
constexpr std::array<std::string_view, 10> kinds{ "const",     "read-only", "state",
                                                  "hidden",    "constant",  "op",
                                                  "op const",  "op static", "op, hidden",
                                                  "collection" };

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
      std::string_view const kind = kinds.at( static_cast<std::size_t>( attribute.kind() ) );
      bool const listed = kind.starts_with( "op" ) || !attribute.arguments().empty();
      out << "   " << attribute.id() << ' ' << attribute.name() << ' ' << attribute.typeName()
          << ' ' << kind << ( listed ? listOf( attribute.arguments() ) : "" );
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
   Weft::Module const* module = nullptr;
   for ( TypeInfo const* const type : libraryTypes() ) {
      if ( module != &type->module() ) {
         module = &type->module();
         told << module->name() << '\n';
      }
      tell( told, *type );
   }
   std::string const written = contentsOf( TESSEL_TESTS_FOLDER "/registered-types.txt" );
   ASSERT_FALSE( written.empty() );
   EXPECT_EQ( told.str(), written );
}

class RegisteredTypesDo : public testing::Test {
 protected:
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
         auto const can = supportedBy( attribute );
         for ( U32 code = 0; code < 20; ++code ) {
            Op const op{ code };
            bool const supports = std::ranges::find( can, op ) != can.end();
            auto const arguments = sampler.argumentsOf( attribute, op );
            AnySlot const result = resultOf( attribute, supports ? op : Op::read );
            AnySlot const key = sampler.keyOf( attribute );
            auto const perform = [ & ]( TypeInfo const& asType ) {
               return asType.attributeOp(
                  result.get(), object, &attribute, op, key.get(), pointersTo( arguments ).data() );
            };
            EXPECT_EQ( statusOf( [ & ] { return perform( *type ); } ),
                       supports ? Status::done : Status::unsupported )
               << type->name() << "::" << attribute.name() << ", " << code;
            for ( TypeInfo const* const other : libraryTypes() ) {
               EXPECT_TRUE( other == type || perform( *other ) == Status::notMine );
            }
         }
      }
      if ( type->kind() == TypeKind::entity ) {
         EXPECT_EQ( type->attributeOp( nullptr, object, nullptr, Op::read, nullptr, nullptr ),
                    type->attributes().empty() ? Status::notMine : Status::unsupported );
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
         auto const can = supportedBy( attribute );
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

TEST_F( RegisteredTypesDo, nameTypesOfOtherModulesThatTheirRecordsList ) {
   std::string lists;
   for ( Weft::Module const* const module : Weft::modules() ) {
      lists.append( module->name() ).append( ":" );
      for ( TypeInfo const* const type : module->referredTypes() ) {
         lists.append( " " ).append( type->name() );
      }
      lists += '\n';
   }
   EXPECT_THAT( lists,
                testing::HasSubstr(
                   "ShadowTypes:\n"
                   "TableHelper:\n"
                   "ManagedTableBase: Brine::ChipId Vellum::VellumChunk Tessel::TableHelper\n"
                   "DirectTable: Tessel::ManagedTableBase\n"
                   "EmTable: Brine::ChipId Brine::HBitmap Tessel::EntryKey Tessel::EntryResult"
                   " Tessel::ManagedTableBase Tessel::ManagedTableIteratorConst"
                   " Tessel::ManagedTableReader\n"
                   "TableManager: Vellum::VellumChunk Tessel::ManagedTableBase\n" ) );
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
         if ( attribute.name() == "handleInitialized" || attribute.name() == "reconcile" ) {
            continue; // of many entries at once: they stop between two
         }
         for ( Op const op : supportedBy( attribute ) ) {
            auto const arguments = sampler.argumentsOf( attribute, op );
            auto const pointers = pointersTo( arguments );
            AnySlot const key = sampler.keyOf( attribute );
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
