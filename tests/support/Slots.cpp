// SPDX-License-Identifier: Apache-2.0
#include "support/Slots.h"

#include "Tessel/TableManager.h"
#include "WeftCorvo/Entities.h"
#include "support/Tables.h"

#include <cstring>
#include <map>

namespace TestSupport {

using namespace Tessel;
using Vellum::VellumChunk;

// ------------------------------------------------------------------------- AnySlot

AnySlot::AnySlot( BuiltIn value ) : builtIn_( std::make_unique<BuiltIn>( std::move( value ) ) ) {}

AnySlot::AnySlot( Weft::TypeInfo const& type, std::function<void( void* )> const& build )
      : described_( static_cast<std::byte*>( ::operator new( type.valueSize() ) ),
                    { &type, false } ) {
   build( described_.get() );
   described_.get_deleter().built = true;
}

void AnySlot::Destroy::operator()( std::byte* memory ) const {
   if ( built ) {
      type->destroy( memory );
   }
   ::operator delete( memory );
}

AnySlot AnySlot::ofType( std::string_view typeName ) {
   static std::map<std::string_view, BuiltIn> const builtIns{
      { "void", false },
      { "bool", false },
      { "U8", U8{ 0 } },
      { "U16", U16{ 0 } },
      { "U32", U32{ 0 } },
      { "U64", U64{ 0 } },
      { "Weft::String", Corvo::String() },
      { "Weft::Bytes", Corvo::Bytes() },
      { "Weft::CharPtr", static_cast<Weft::CharPtr>( nullptr ) },
      { "Weft::CharPtrConst", static_cast<Weft::CharPtrConst>( nullptr ) },
      { "Weft::BytePtr", static_cast<Weft::BytePtr>( nullptr ) }
   };
   if ( Weft::TypeInfo const* const type = Weft::typeByName( typeName ) ) {
      return AnySlot( *type, [ & ]( void* memory ) { type->copy( memory, nullptr ); } );
   }
   return AnySlot( builtIns.at( typeName ) );
}

void* AnySlot::get() const {
   return described_ ? described_.get()
                     : std::visit( []( auto& value ) -> void* { return &value; }, *builtIn_ );
}

std::string AnySlot::text() const {
   if ( described_ ) {
      return described_.get_deleter().type->stringForm( described_.get() );
   }
   return std::visit(
      []( auto const& value ) {
         if constexpr ( std::is_same_v<decltype( value ), Corvo::Bytes const&> ) {
            return Weft::hexadecimal( std::string_view( value ) );
         } else if constexpr ( std::is_same_v<decltype( value ), Corvo::String const&> ) {
            return Weft::quoted( value );
         } else if constexpr ( std::is_pointer_v<std::remove_cvref_t<decltype( value )>> ) {
            return printed( static_cast<void const*>( value ) );
         } else {
            return std::to_string( value );
         }
      },
      *builtIn_ );
}

void* objectIn( Weft::TypeInfo const& type, AnySlot const& slot ) {
   if ( type.kind() == Weft::TypeKind::value ) {
      return slot.get();
   }
   auto const node = WeftCorvo::nodeIn( type, slot.get() );
   return node ? WeftCorvo::objectAs( type, *node ) : nullptr;
}

std::vector<void*> pointersTo( std::vector<AnySlot> const& slots ) {
   std::vector<void*> pointers;
   for ( AnySlot const& slot : slots ) {
      pointers.push_back( slot.get() );
   }
   return pointers;
}

std::vector<Weft::Op> supportedBy( Weft::Attribute const& attribute ) {
   using Weft::AttributeKind;
   using Weft::Op;
   switch ( attribute.kind() ) {
   case AttributeKind::hidden:
   case AttributeKind::opHidden:
      return {};
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
      return { Op::read };
   }
}

AnySlot resultOf( Weft::Attribute const& attribute, Weft::Op op ) {
   if ( attribute.kind() == Weft::AttributeKind::collection && op > Weft::Op::del ) {
      return AnySlot::ofType( op == Weft::Op::contains ? "bool" : "U32" );
   }
   return AnySlot::ofType( attribute.typeName() );
}

// ------------------------------------------------------------------------- Sampler

namespace {

constexpr std::size_t longestKey = 100;

std::string sharedName() {
   return "/tessel-sample-" + std::to_string( ::getpid() );
}

} // namespace

Sampler::Sampler( U32 seed ) : random_( seed ) {
   fillPool();
}

Sampler::~Sampler() {
   ::shm_unlink( sharedName().c_str() );
}

U32 Sampler::number( std::string_view name ) {
   if ( name == "keyLengthBytes" || name == "resultLengthBytes" ) {
      constexpr std::array lengths{ 4U, 4U, 4U, 2U, 0U, 1U, 12U, 20U, 21U, 100U };
      return lengths[ below( lengths.size() ) ];
   }
   if ( name == "localOffset" ) { // nothing checks it
      return below( bufferBytes / 4 );
   }
   if ( name == "initialBitState" || name == "preference" ) {
      return oneIn( 20 ) ? 2 : below( 2 );
   }
   // How much memory is taken and how long it takes to read.
   bool const measures = name == "size" || name == "numEntries" || name == "allowedSize";
   if ( oneIn( measures ? 5000 : 20 ) ) {
      return 0xffffffff - below( 3 ) * 0x7fffffff;
   }
   return below( oneIn( 3 ) ? 5000 : 10 );
}

Corvo::String Sampler::text() {
   std::array const texts{ Corvo::String(),
                           Corvo::String( "mac" ),
                           Corvo::String( "vlan" ),
                           Corvo::String( 40, 'n' ),
                           Corvo::String( "\0\xff\"),", 5 ),
                           Corvo::String( "/no/such" ),
                           sharedName() };
   return texts[ below( texts.size() ) ];
}

Corvo::Bytes Sampler::bytes() {
   constexpr std::array<std::size_t, 10> lengths{ 4, 4, 4, 2, 0, 1, 12, 20, 21, 100 };
   return bytesOf(
      std::string( lengths[ below( lengths.size() ) ], static_cast<char>( below( 4 ) + 0xfe ) ) );
}

AnySlot Sampler::value( Weft::TypeInfo const& type ) {
   for ( U32 tries = 1;; ++tries ) {
      try {
         auto const arguments = slots( type.constructorArguments() );
         return AnySlot( type, [ & ]( void* memory ) {
            type.construct( memory, pointersTo( arguments ).data() );
         } );
      } catch ( Weft::ContractFailure const& ) { // an iterator over a table of another kind
         if ( tries % 20 == 0 ) {                // or over those whose bitmaps are gone
            fillPool();
         }
      }
   }
}

AnySlot Sampler::slot( std::string_view typeName, std::string_view name ) {
   if ( Weft::TypeInfo const* const type = Weft::typeByName( typeName ) ) {
      if ( type->kind() == Weft::TypeKind::entity ) {
         AnySlot entity = AnySlot::ofType( typeName );
         WeftCorvo::nodeInto( *type, entity.get(), oneIn( 20 ) ? nullptr : object( *type ) );
         return entity;
      }
      return value( *type );
   }
   if ( typeName == "U8" ) {
      return AnySlot( static_cast<U8>( oneIn( 4 ) ? below( 256 ) : below( 4 ) ) );
   }
   if ( typeName == "U16" ) {
      return AnySlot( static_cast<U16>( number( name ) ) );
   }
   if ( typeName == "U32" ) {
      return AnySlot( number( name ) );
   }
   if ( typeName == "U64" ) {
      return AnySlot( U64{ number( name ) } * ( oneIn( 5 ) ? 0x100000001U : 1U ) );
   }
   if ( typeName == "Weft::String" ) {
      return AnySlot( text() );
   }
   if ( typeName == "Weft::Bytes" ) {
      return AnySlot( bytes() );
   }
   bool const null = oneIn( 20 );
   if ( typeName == "Weft::CharPtr" ) {
      return AnySlot( null ? nullptr : reinterpret_cast<Weft::CharPtr>( toWrite_->data() ) );
   }
   if ( typeName == "Weft::CharPtrConst" ) {
      std::memset( toRead_->data(), static_cast<int>( below( 4 ) + 0xfe ), longestKey );
      return AnySlot( null ? nullptr : reinterpret_cast<Weft::CharPtrConst>( toRead_->data() ) );
   }
   if ( typeName == "Weft::BytePtr" ) {
      return AnySlot( null ? nullptr : toWrite_->data() );
   }
   return AnySlot( oneIn( 2 ) ); // bool, and what no operation writes to
}

std::vector<AnySlot> Sampler::slots( std::span<Weft::Argument const> arguments ) {
   std::vector<AnySlot> samples;
   samples.reserve( arguments.size() );
   for ( Weft::Argument const& argument : arguments ) {
      samples.push_back( slot( argument.typeName(), argument.name() ) );
   }
   return samples;
}

std::vector<AnySlot> Sampler::argumentsOf( Weft::Attribute const& attribute, Weft::Op op ) {
   auto arguments = slots( attribute.arguments() );
   if ( op == Weft::Op::write && arguments.empty() ) {
      arguments.push_back( slot( attribute.typeName(), attribute.name() ) );
   }
   return arguments;
}

AnySlot Sampler::keyOf( Weft::Attribute const& attribute ) {
   return slot( attribute.keyTypeName().empty() ? "bool" : attribute.keyTypeName() );
}

// ------------------------------------------------------------------------- the pool

Corvo::Ptr<Corvo::Node> Sampler::object( Weft::TypeInfo const& type ) {
   U32 const first = below( static_cast<U32>( pool_.size() ) );
   for ( U32 i = 0; i < pool_.size(); ++i ) {
      auto const& object = pool_[ ( first + i ) % pool_.size() ];
      if ( WeftCorvo::typeOfObject( *object ).isA( type ) ) {
         return object;
      }
   }
   return nullptr;
}

void Sampler::keep( Corvo::Ptr<Corvo::Node> const& object ) {
   constexpr std::size_t enough = 60;
   auto const chunk = Corvo::dynamicPtr<VellumChunk>( object );
   if ( !object || ( chunk && chunk->size() > chunkBytes ) ) {
      return;
   }
   if ( pool_.size() < enough ) {
      pool_.push_back( object );
      return;
   }
   // One of each kind stays: the first ones of the pool.
   constexpr U32 firstOnes = 12;
   pool_[ firstOnes + below( enough - firstOnes ) ] = object;
}

void Sampler::fillPool() {
   auto const chunk = VellumChunk::inProcess( chunkBytes );
   auto const helper = emTableHelperFactory( 20, 4, 4 );
   auto const direct = directTableHelperFactory( 20, 4, 4 );
   auto const table = emShadowTableFactory( "mac", helper, chunk, 100 );
   std::array const one{ '\1', '\2', '\3', '\4' };
   table->entryIs( chip3, one.data(), one.data() );
   pool_ = { chunk,
             helper,
             direct,
             tableHelperFactory( 5, 4, 2 ),
             table,
             directShadowTableFactory( "vlan", direct, chunk, 0 ),
             emShadowTableReaderFactory( table ),
             tableManagerFactory( "agent", chunk, 1000, chunkBytes - 1000 ),
             emTableFapIndicesFactory(),
             Corvo::makePtr<Brine::HBitmap>(
                U64{ 0 }, U32{ 20 }, Brine::HBitmap::BitState::allSet ),
             Corvo::makePtr<LocalMem>( local_->data(), bufferBytes / 2 ),
             emShadowTableFactory( "wide", emTableHelperFactory( 9, 20, 12 ), chunk, 2000 ) };
}

void Sampler::disturb() {
   auto const chunk =
      Corvo::dynamicPtr<VellumChunk>( object( *Weft::typeByName( "Vellum::VellumChunk" ) ) );
   U32 const offset = below( 4000 );
   std::array<U8, 4> const garbage{ static_cast<U8>( below( 3 ) ),
                                    static_cast<U8>( below( 3 ) ),
                                    static_cast<U8>( random_() ),
                                    static_cast<U8>( random_() ) };
   if ( chunk->access() == VellumChunk::Access::readWrite &&
        offset + garbage.size() <= chunk->size() ) {
      chunk->write( offset, garbage.data(), garbage.size() );
   }
}

} // namespace TestSupport
