// SPDX-License-Identifier: Apache-2.0
#include "Weft/TypeInfo.h"

#include <algorithm>
#include <cstring>

namespace Weft {

namespace {

constexpr U32 firstValueId = 2;
constexpr U32 firstEntityId = 130;
constexpr U32 idsPerLevel = 128;

bool needsObject( AttributeKind kind ) {
   return kind != AttributeKind::fixedValue && kind != AttributeKind::opStatic;
}

void checkObject( void const* object ) {
   if ( object == nullptr ) {
      throw std::invalid_argument( "the object is missing" );
   }
}

bool isOperation( AttributeKind kind ) {
   return kind == AttributeKind::op || kind == AttributeKind::opConst ||
          kind == AttributeKind::opStatic;
}

/// Whether a slot holds a raw pointer, and that one is null.
bool isNullPointer( std::string_view typeName, void const* slot ) {
   if ( typeName != "Weft::CharPtr" && typeName != "Weft::CharPtrConst" &&
        typeName != "Weft::BytePtr" ) {
      return false;
   }
   void* pointer = nullptr;
   std::memcpy( &pointer, slot, sizeof pointer ); // whatever it points to
   return pointer == nullptr;
}

/// Every slot is there, and where an operation asks for memory there is some.
void checkArguments( std::span<Argument const> declared, void* const* arguments ) {
   for ( std::size_t i = 0; i < declared.size(); ++i ) {
      if ( arguments == nullptr || arguments[ i ] == nullptr ) {
         throw std::invalid_argument( "argument " + std::string( declared[ i ].name() ) +
                                      " is missing" );
      }
      if ( isNullPointer( declared[ i ].typeName(), arguments[ i ] ) ) {
         throw std::invalid_argument( "argument " + std::string( declared[ i ].name() ) +
                                      " is a null pointer" );
      }
   }
}

} // namespace

CollectionIterator::~CollectionIterator() = default;
AttributeAccess::~AttributeAccess() = default;
TypeMethods::~TypeMethods() = default;

std::unique_ptr<CollectionIterator> AttributeAccess::iterator( void*, void const* ) const {
   return nullptr;
}

void AttributeAccess::print( std::string&, void const* ) const {}

std::string_view TypeReference::name() const {
   TypeInfo const* const described = type();
   return described ? described->name() : builtIn_;
}

TypeInfo const* TypeReference::type() const {
   if ( cppType_ == nullptr ) {
      return nullptr;
   }
   TypeInfo const* found = found_.load( std::memory_order_acquire );
   if ( found == nullptr ) {
      found = typeByCppType( *cppType_ );
      found_.store( found, std::memory_order_release );
   }
   return found;
}

Attribute::Attribute( std::string_view name,
                      AttributeKind kind,
                      TypeReference const& type,
                      TypeReference const& keyType,
                      std::vector<Argument> arguments,
                      std::unique_ptr<AttributeAccess const> access )
      : name_( name ), kind_( kind ), type_( type ), keyType_( keyType ),
        arguments_( std::move( arguments ) ), access_( std::move( access ) ) {}

U32 Attribute::id() const {
   return owner_->firstId() + static_cast<U32>( this - owner_->attributes().data() );
}

TypeInfo::TypeInfo( TypeParts parts, Module const& module, U32 index )
      : parts_( std::move( parts ) ), module_( &module ), index_( index ) {}

bool TypeInfo::isA( TypeInfo const& other ) const {
   TypeInfo const* type = this;
   while ( type != nullptr && type != &other ) {
      type = type->base();
   }
   return type != nullptr;
}

Attribute const* TypeInfo::attribute( std::string_view name ) const {
   for ( TypeInfo const* type = this; type != nullptr; type = type->base() ) {
      auto const own = type->attributes();
      auto const found = std::ranges::find( own, name, &Attribute::name );
      if ( found != own.end() ) {
         return &*found;
      }
   }
   return nullptr;
}

U32 TypeInfo::firstId() const {
   U32 id = kind() == TypeKind::value ? firstValueId : firstEntityId;
   for ( TypeInfo const* type = base(); type != nullptr; type = type->base() ) {
      id += idsPerLevel;
   }
   return id;
}

void TypeInfo::construct( void* target, void* const* arguments ) const {
   if ( !constructible() ) {
      throw TypeException( std::string( name() ) + " cannot be constructed" );
   }
   checkObject( target );
   parts_.construct( target, arguments );
}

void TypeInfo::adoptAttributes() {
   for ( Attribute& attribute : parts_.attributes ) {
      attribute.owner_ = this;
   }
}

bool TypeInfo::owns( Attribute const* attribute ) const {
   return attribute != nullptr && attribute->owner_ == this;
}

Status TypeInfo::attributeOp( void* result,
                              void* object,
                              Attribute const* attribute,
                              Op op,
                              void const* key,
                              void* const* arguments ) const {
   if ( attribute == nullptr && kind() == TypeKind::value ) {
      checkObject( object );
      bool const compares = op == Op::equal || op == Op::less;
      void const* const other = compares && arguments != nullptr ? arguments[ 0 ] : nullptr;
      return methods().perform( static_cast<bool*>( result ), object, op, other );
   }
   if ( !owns( attribute ) ) {
      return attribute == nullptr && !attributes().empty() ? Status::unsupported : Status::notMine;
   }
   if ( attribute->hidden() ) {
      return Status::unsupported;
   }
   if ( needsObject( attribute->kind() ) ) {
      checkObject( object );
   }
   if ( op == Op::call && isOperation( attribute->kind() ) ) {
      checkArguments( attribute->arguments(), arguments );
   }
   return attribute->access_->perform( result, object, op, key, arguments );
}

std::unique_ptr<CollectionIterator> TypeInfo::collectionIterator( void* object,
                                                                  Attribute const* attribute,
                                                                  void const* startKey ) const {
   if ( !owns( attribute ) || attribute->kind() != AttributeKind::collection ) {
      return nullptr;
   }
   checkObject( object );
   return attribute->access_->iterator( object, startKey );
}

void TypeInfo::copy( void* target, void const* source ) const {
   checkObject( target );
   methods().copy( target, source );
}

U32 TypeInfo::hash( void const* slot ) const {
   checkObject( slot );
   return methods().hash( slot );
}

std::string TypeInfo::stringForm( void const* slot ) const {
   std::string text;
   appendStringForm( text, slot );
   return text;
}

void TypeInfo::appendStringForm( std::string& text, void const* slot ) const {
   checkObject( slot );
   methods().print( *this, text, slot );
}

void TypeInfo::fromStringForm( void* target, std::string_view text ) const {
   fromStringForm( target, CharRange( text ) );
}

void TypeInfo::fromStringForm( void* target, CharRange text ) const {
   checkObject( target );
   methods().parse( target, text );
}

void* TypeInfo::viewAs( TypeInfo const& wanted, void* object ) const {
   TypeInfo const* type = this;
   for ( ; type != nullptr && type != &wanted; type = type->base() ) {
      object = type->methods().asBase( object );
   }
   if ( type == nullptr ) {
      throw TypeException( std::string( name() ) + " is not a " + std::string( wanted.name() ) );
   }
   return object;
}

bool TypeInfo::printAttributes( std::string& text, void const* object ) const {
   bool any = false;
   if ( TypeInfo const* const parent = base() ) {
      void* const inherited = methods().asBase( const_cast<void*>( object ) ); // only read
      any = parent->printAttributes( text, inherited );
   }
   for ( Attribute const& attribute : attributes() ) {
      if ( !attribute.printed() ) {
         continue;
      }
      text.append( any ? ", " : " " ).append( attribute.name() ).append( ": " );
      attribute.access_->print( text, object );
      any = true;
   }
   return any;
}

} // namespace Weft
