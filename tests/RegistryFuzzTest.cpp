// SPDX-License-Identifier: Apache-2.0
// Anything at all, asked of the registry by name: random types, attributes, operation codes, arguments
// and string forms. Every answer is a status that fits the attribute's kind, or one of the documented
// exceptions.
//
// TESSEL_FUZZ_OPERATIONS and TESSEL_FUZZ_SEED ask for more, or for the same again.

#include "WeftCorvo/Entities.h"
#include "support/Asked.h"
#include "support/Contract.h"
#include "support/Slots.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <system_error>

namespace {

using namespace TestSupport;
using Weft::Attribute;
using Weft::Op;
using Weft::Status;
using Weft::TypeInfo;

class Fuzz {
 public:
   explicit Fuzz( U32 seed ) : sampler_( seed ) {
      for ( Weft::Module const* const module : Weft::modules() ) {
         for ( TypeInfo const& type : module->types() ) {
            if ( !type.name().starts_with( "House::" ) ) {
               types_.push_back( &type );
            }
         }
      }
   }

   void operation() {
      try {
         oneOperation();
         ++answers[ "done" ];
      } catch ( Weft::ContractFailure const& ) {
         ++answers[ "contract" ];
      } catch ( Weft::ParseError const& ) {
         ++answers[ "no string form" ];
      } catch ( std::invalid_argument const& ) {
         ++answers[ "missing" ];
      } catch ( std::out_of_range const& ) {
         ++answers[ "out of range" ];
      } catch ( Weft::TypeException const& ) {
         ++answers[ "type" ];
      } catch ( std::system_error const& ) {
         ++answers[ "system" ];
      } catch ( std::bad_alloc const& ) {
         ++answers[ "memory" ];
      }
   }

   std::map<std::string, U64> answers;

 private:
   struct Walk {
      std::unique_ptr<Weft::CollectionIterator> at;
      Attribute const* attribute;
      AnySlot owner; ///< a value has to outlive its walk
   };

   TypeInfo const& anyType() {
      return *types_[ sampler_.below( static_cast<U32>( types_.size() ) ) ];
   }

   void oneOperation() {
      switch ( sampler_.below( 10 ) ) {
      case 0:
         construct();
         break;
      case 1:
         readMutated();
         break;
      case 2:
         wholeValue();
         break;
      case 3:
         walk();
         break;
      case 4:
         sampler_.disturb();
         break;
      default:
         attributeOp();
      }
   }

   void construct() {
      TypeInfo const& type = anyType();
      auto const arguments = sampler_.slots( type.constructorArguments() );
      auto const pointers = withGaps( pointersTo( arguments ) );
      keep( type,
            AnySlot( type, [ & ]( void* memory ) { type.construct( memory, pointers.data() ); } ) );
   }

   void readMutated() {
      TypeInfo const& type = anyType();
      std::string text = sampler_.slot( type.name() ).text();
      for ( U32 changes = sampler_.below( 4 ); changes > 0; --changes ) {
         constexpr std::string_view alphabet = "(),:\"\\x0@9 aT\xff\n";
         auto const at = sampler_.below( static_cast<U32>( text.size() ) + 1 );
         text.replace( at,
                       sampler_.below( 4 ),
                       alphabet.substr( sampler_.below( alphabet.size() ), sampler_.below( 3 ) ) );
      }
      AnySlot const value( type, [ & ]( void* memory ) { type.fromStringForm( memory, text ); } );
      std::string const form = value.text();
      AnySlot const again( type, [ & ]( void* memory ) { type.fromStringForm( memory, form ); } );
      EXPECT_EQ( again.text(), form );
   }

   void wholeValue() {
      TypeInfo const& type = anyType();
      AnySlot const value = sampler_.slot( type.name() );
      AnySlot const other = sampler_.slot( type.name() );
      AnySlot const copy( type, [ & ]( void* memory ) {
         type.copy( memory, sampler_.oneIn( 4 ) ? nullptr : value.get() );
      } );
      void* const second[] = { sampler_.oneIn( 10 ) ? nullptr : other.get() };
      bool result = false;
      type.attributeOp( &result,
                        value.get(),
                        nullptr,
                        Op{ sampler_.oneIn( 2 ) ? 11 + sampler_.below( 3 ) : sampler_.below( 20 ) },
                        nullptr,
                        second );
      type.viewAs( anyType(), value.get() );
      type.hash( sampler_.oneIn( 10 ) ? nullptr : copy.get() );
   }

   void walk() {
      if ( walks_.size() < 5 ) {
         begin( anyType() );
      } else if ( sampler_.oneIn( 5 ) ) {
         walks_.erase( walks_.begin() + sampler_.below( 5 ) );
      } else {
         go( walks_[ sampler_.below( 5 ) ] );
      }
   }

   void begin( TypeInfo const& type ) {
      auto const attributes = type.attributes();
      AnySlot owner = sampler_.slot( type.name() );
      if ( attributes.empty() ) {
         return;
      }
      Attribute const& attribute =
         attributes[ sampler_.below( static_cast<U32>( attributes.size() ) ) ];
      AnySlot const key = sampler_.keyOf( attribute );
      auto at = type.collectionIterator(
         objectIn( type, owner ), &attribute, sampler_.oneIn( 2 ) ? nullptr : key.get() );
      EXPECT_EQ( at != nullptr, attribute.kind() == Weft::AttributeKind::collection );
      if ( at ) {
         walks_.push_back( { std::move( at ), &attribute, std::move( owner ) } );
      }
   }

   void go( Walk& walk ) {
      AnySlot const key = AnySlot::ofType( walk.attribute->keyTypeName() );
      AnySlot const value = AnySlot::ofType( walk.attribute->typeName() );
      walk.at->advance();
      walk.at->key( key.get() );
      walk.at->value( value.get() );
      key.text();
      value.text();
   }

   void attributeOp() {
      TypeInfo const& type = anyType();
      TypeInfo const& owner = sampler_.oneIn( 10 ) ? anyType() : type;
      if ( owner.attributes().empty() ) {
         return;
      }
      Attribute const& attribute =
         owner.attributes()[ sampler_.below( static_cast<U32>( owner.attributes().size() ) ) ];
      AnySlot const object = sampler_.slot( type.name() );
      auto const can = supportedBy( attribute );
      Op const op = can.empty() || sampler_.oneIn( 4 )
                       ? Op{ sampler_.below( 20 ) }
                       : can[ sampler_.below( static_cast<U32>( can.size() ) ) ];
      bool const supports = std::ranges::find( can, op ) != can.end();
      auto const arguments = sampler_.argumentsOf( attribute, op );
      AnySlot const result = resultOf( attribute, supports ? op : Op::read );
      AnySlot const key = sampler_.keyOf( attribute );
      Status const status = type.attributeOp( sampler_.oneIn( 10 ) ? nullptr : result.get(),
                                              objectIn( type, object ),
                                              &attribute,
                                              op,
                                              sampler_.oneIn( 20 ) ? nullptr : key.get(),
                                              withGaps( pointersTo( arguments ) ).data() );
      EXPECT_EQ( status,
                 &owner != &type ? Status::notMine
                 : supports      ? Status::done
                                 : Status::unsupported )
         << attribute.name();
      bool const yields = op == Op::read || op == Op::del || op == Op::call;
      if ( status == Status::done && attribute.type() && yields ) {
         keep( *attribute.type(), result );
      }
   }

   void keep( TypeInfo const& type, AnySlot const& slot ) {
      if ( type.kind() == Weft::TypeKind::entity ) {
         sampler_.keep( WeftCorvo::nodeIn( type, slot.get() ) );
      }
   }

   /// Now and then an argument is missing. An array of none still has an address.
   std::vector<void*> withGaps( std::vector<void*> pointers ) {
      for ( void*& pointer : pointers ) {
         pointer = sampler_.oneIn( 50 ) ? nullptr : pointer;
      }
      pointers.push_back( nullptr );
      return pointers;
   }

   Sampler sampler_;
   std::vector<TypeInfo const*> types_;
   std::vector<Walk> walks_;
};

TEST( RegistryFuzz, isAnsweredAsDocumented ) {
   RaiseContracts const raise;
   U64 const operations = asked( "TESSEL_FUZZ_OPERATIONS", 40000 );
   Fuzz fuzz( static_cast<U32>( asked( "TESSEL_FUZZ_SEED", 1 ) ) );
   for ( U64 i = 0; i < operations && !HasFailure(); ++i ) {
      fuzz.operation();
   }
   for ( auto const& [ answer, times ] : fuzz.answers ) {
      RecordProperty( answer, std::to_string( times ) );
      std::cout << answer << ": " << times << '\n';
   }
   EXPECT_GT( fuzz.answers[ "done" ], operations / 4 );
}

} // namespace
