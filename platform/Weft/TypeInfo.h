// SPDX-License-Identifier: Apache-2.0
#pragma once

/// What the type registry knows about a type, and what can be done with its objects by name.
///
/// Everything behind a void pointer has one representation, its *slot*: an object of the C++ type
/// that belongs to the type name.
///
///    "bool", "U8", "U16", "U32", "U64"     bool, U8, U16, U32, U64
///    "Weft::String", "Weft::Bytes"         Corvo::String, Corvo::Bytes
///    "Weft::CharPtr", "Weft::CharPtrConst", "Weft::BytePtr"
///                                          the pointer of that name, as an object
///    a value type                          the value
///    an entity type                        Corvo::Ptr of exactly that type, never of a const one
///
/// Two kinds of target: where a function *builds*, the target is raw memory of valueSize() bytes at
/// valueAlignment(), and destroy() ends what was built (a slot whose end nobody needs to notice, a
/// null Corvo::Ptr or a value without memory of its own, may be built over). Where a function
/// *assigns*, the target is a live slot; a null target drops the result.
///
/// An `object` is the object itself: a pointer to the value, or to the entity as its own type.
///
/// Pointers are taken at their word: memory of another type than said here, or too little of it, is
/// not noticed. Missing ones are: std::invalid_argument for a null object, key or argument, and, naming
/// it, for an operation's argument that is a null raw pointer. (An attribute may be set to one.)
///
/// Threads: descriptions are immutable and may be used on any thread at once. What is done with an
/// object follows the object's own rules.

#include "Weft/AllocTrackTypeInfo.h"
#include "Weft/Attribute.h"
#include "Weft/CharRange.h"
#include "Weft/Module.h"
#include "Weft/TypeErrors.h"

#include <cstddef>
#include <functional>

namespace Weft {

enum class TypeKind {
   value, ///< copied, compared, printed; no identity
   entity ///< an object with an identity, held through Corvo::Ptr
};

/// What a type's slots can do; made by those who describe types. Functions without a comment are
/// the ones of TypeInfo that are named alike.
class [[gnu::visibility( "default" )]] TypeMethods {
 public:
   TypeMethods() = default;
   TypeMethods( TypeMethods const& ) = delete;
   TypeMethods& operator=( TypeMethods const& ) = delete;
   virtual ~TypeMethods();

   virtual std::size_t size() const = 0;
   virtual std::size_t alignment() const = 0;
   virtual void copy( void* target, void const* source ) const = 0;
   virtual void destroy( void* slot ) const = 0;
   virtual bool hashable() const = 0;
   virtual U32 hash( void const* slot ) const = 0;
   virtual void print( TypeInfo const& type, std::string& text, void const* slot ) const = 0;
   virtual void parse( void* target, CharRange text ) const = 0;
   /// An operation on a whole value.
   virtual Status perform( bool* result, void const* object, Op op, void const* other ) const = 0;
   virtual bool plain() const = 0;
   virtual AllocTrackTypeInfo const* allocationTracker() const = 0;
   /// The same object as one of its base type.
   virtual void* asBase( void* object ) const = 0;
};

/// The description of one type.
struct TypeParts {
   std::string_view name; ///< not copied: a literal
   TypeKind kind;
   std::type_info const* cppType;
   TypeReference base;
   std::vector<Argument> constructorArguments{};
   /// Empty when the type cannot be constructed.
   std::function<void( void* target, void* const* arguments )> construct{};
   std::vector<Attribute> attributes{};
   std::string_view doc{}; ///< not copied: a literal
   bool lengthy = false;
   std::unique_ptr<TypeMethods const> methods{};
};

class [[gnu::visibility( "default" )]] TypeInfo {
 public:
   /// For Module, which alone makes types and keeps them in place.
   TypeInfo( TypeParts parts, Module const& module, U32 index );
   TypeInfo( TypeInfo&& ) = default;
   TypeInfo& operator=( TypeInfo&& ) = delete;
   ~TypeInfo() = default;

   /// Fully qualified: "Tessel::EmTableEntry".
   std::string_view name() const { return parts_.name; }
   TypeKind kind() const { return parts_.kind; }
   /// Null for a value type of its own, and for an entity type directly under Corvo::Node.
   TypeInfo const* base() const { return parts_.base.type(); }
   Module const& module() const { return *module_; }
   U32 index() const { return index_; }
   std::type_info const& cppType() const { return *parts_.cppType; }
   /// Whether it is `other` or derived from it.
   bool isA( TypeInfo const& other ) const;

   /// Its own, in declaration order.
   std::span<Attribute const> attributes() const { return parts_.attributes; }
   /// Its own or inherited; null when unknown.
   Attribute const* attribute( std::string_view name ) const;
   /// The identifier of the first attribute of its own: 2 for a value type, 130 for an entity type,
   /// 128 more for each level of derivation.
   U32 firstId() const;

   std::span<Argument const> constructorArguments() const { return parts_.constructorArguments; }
   /// False for abstract types and others that only list their constructor.
   bool constructible() const { return static_cast<bool>( parts_.construct ); }
   /// As Attribute::lengthy, of the making and the end of an object.
   bool lengthy() const { return parts_.lengthy; }
   /// What its objects are, in one line for people; empty when its description says nothing.
   std::string_view doc() const { return parts_.doc; }
   /// Builds a value, or a Corvo::Ptr to a new object, from one pointer to a slot per constructor
   /// argument. TypeException when the type is not constructible. What the constructor throws is
   /// passed on; then nothing is built.
   void construct( void* target, void* const* arguments ) const;

   /// Performs one operation on one of the type's own attributes or, with no attribute, on a value.
   /// `key` is the slot of a collection's key, `arguments` one slot pointer per argument; a value
   /// to write, or to compare with, is arguments[ 0 ]. The result is assigned. An operation that
   /// does not use `result`, `key` or `arguments` does not look at them.
   Status attributeOp( void* result,
                       void* object,
                       Attribute const* attribute,
                       Op op,
                       void const* key,
                       void* const* arguments ) const;

   /// A walk over one of the type's own collections from its start, or from the member at
   /// `startKey` (on no member when there is none). Null when the attribute is no such collection.
   std::unique_ptr<CollectionIterator> collectionIterator( void* object,
                                                           Attribute const* attribute,
                                                           void const* startKey = nullptr ) const;

   /// The size and alignment of a slot, in bytes.
   std::size_t valueSize() const { return parts_.methods->size(); }
   std::size_t valueAlignment() const { return parts_.methods->alignment(); }

   /// Builds a copy of the slot `source`; the default value, or a null Corvo::Ptr, when it is null.
   /// TypeException when there is no default value.
   void copy( void* target, void const* source ) const;
   void destroy( void* slot ) const { parts_.methods->destroy( slot ); }

   bool hashable() const { return parts_.methods->hashable(); }
   /// Equal values hash alike; entities by identity. UnhashableError when not hashable().
   U32 hash( void const* slot ) const;

   /// The type's name and every stored attribute with its name, inherited ones first:
   ///
   ///    Tessel::EmTableEntry( valid: true, chipId: 3, key: Tessel::EntryKey( bytes: 0x0a ), … )
   ///
   /// An entity is `null` or `TYPE@NUMBER`, which names the object as long as it lives.
   std::string stringForm( void const* slot ) const;
   void appendStringForm( std::string& text, void const* slot ) const;
   /// Builds the slot that a string form stands for; attributes may come in any order. ParseError
   /// (nothing is built) when the text is of another form, lacks an attribute or has one too many,
   /// names an object that is not there or of another type, or has characters left over.
   void fromStringForm( void* target, std::string_view text ) const;
   void fromStringForm( void* target, CharRange text ) const;

   /// Whether the type is a name for a single slot: its string form is the bare form of its one
   /// constructor argument, which an attribute of the same name reads. Scripts say 3, not chip 3.
   bool plain() const { return parts_.methods->plain(); }

   /// Counts the type's objects; null for value types, and for types without a counter.
   AllocTrackTypeInfo const* allocationTracker() const { return methods().allocationTracker(); }

   /// The object as one of `wanted`, the type itself or one of its bases. TypeException when it is
   /// neither.
   void* viewAs( TypeInfo const& wanted, void* object ) const;

   /// The stored attributes of a value, for a string form. Returns whether there was any.
   bool printAttributes( std::string& text, void const* object ) const;
   TypeMethods const& methods() const { return *parts_.methods; }

 private:
   friend class Module;

   bool owns( Attribute const* attribute ) const;
   void adoptAttributes();

   TypeParts parts_;
   Module const* module_;
   U32 index_;
};

} // namespace Weft
