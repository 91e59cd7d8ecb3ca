// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The attributes of a registered type, operations included, and what can be done with them.
///
/// Threads: everything here is immutable once its module is built and may be read on any thread. A
/// CollectionIterator belongs to the thread of the object that it walks.

#include "Weft/Types.h"

#include <atomic>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <typeinfo>
#include <utility>
#include <vector>

namespace Weft {

class TypeInfo;

/// What is done through an attribute: 0 to 5 and 10; or with a whole value: 11 to 13.
enum class Op : U32 {
   read = 0,     ///< a stored attribute's value; a collection's value at the key
   write = 1,    ///< sets a state attribute, or a collection's value at the key
   del = 2,      ///< takes out a collection's member at the key and yields its value
   count = 3,    ///< members of a collection now, as a U32
   capacity = 4, ///< members that the collection holds before it grows, as a U32
   contains = 5, ///< whether the collection has a member at the key
   call = 10,    ///< calls an operation with the arguments in declared order
   truth = 11,   ///< no attribute: the value's truth value
   equal = 12,   ///< no attribute: whether the value equals a second one, arguments[ 0 ]
   less = 13     ///< no attribute: whether the value orders before a second one, arguments[ 0 ]
};

enum class Status : U32 {
   done = 0,
   unsupported = 1, ///< the attribute does not support the operation; a hidden one supports none
   notMine = 2      ///< the attribute is not one of the type's own
};

enum class AttributeKind {
   constant,   ///< stored, set by the constructor: read
   readOnly,   ///< stored, changed by the type's own operations alone: read
   state,      ///< stored: read, write, and delete where the type has an operation for it
   hidden,     ///< stored, listed only
   fixedValue, ///< one value for all objects of the type: read; the object may be null
   op,         ///< an operation: call
   opConst,    ///< an operation that does not change the object: call
   opStatic,   ///< an operation of the type itself: call; the object may be null
   opHidden,   ///< an operation, listed only
   collection  ///< keyed members: read, write, del, count, capacity, contains, iterate
};

/// A type by which an attribute, an argument or a base is declared: one that is built in ("U32") or
/// one that some module describes, which may be registered later than what refers to it.
class [[gnu::visibility( "default" )]] TypeReference {
 public:
   /// No type at all: the name is empty.
   TypeReference() = default;
   /// A built-in type. `name` is not copied: pass a literal.
   explicit TypeReference( std::string_view name ) : builtIn_( name ) {}
   /// The type that describes this C++ type.
   explicit TypeReference( std::type_info const& cppType ) : cppType_( &cppType ) {}
   TypeReference( TypeReference const& other )
         : builtIn_( other.builtIn_ ), cppType_( other.cppType_ ) {}
   TypeReference& operator=( TypeReference const& ) = delete;
   ~TypeReference() = default;

   /// Empty as long as no registered module describes the type.
   std::string_view name() const;
   /// Null for a built-in type, and as long as no registered module describes the type.
   TypeInfo const* type() const;

 private:
   std::string_view builtIn_;
   std::type_info const* cppType_ = nullptr;
   mutable std::atomic<TypeInfo const*> found_{ nullptr };
};

/// One argument of an operation or a constructor.
class [[gnu::visibility( "default" )]] Argument {
 public:
   /// `name` is not copied: pass a literal.
   Argument( std::string_view name, TypeReference const& type ) : name_( name ), type_( type ) {}
   /// One that callers by name may leave out; `slot` is a slot of the argument's type.
   Argument( std::string_view name, TypeReference const& type, std::shared_ptr<void const> slot )
         : name_( name ), type_( type ), defaultSlot_( std::move( slot ) ) {}

   std::string_view name() const { return name_; }
   /// "U32", "Weft::Bytes", "Brine::ChipId".
   std::string_view typeName() const { return type_.name(); }
   /// Null for a built-in type.
   TypeInfo const* type() const { return type_.type(); }
   /// The slot to pass for an argument that a caller leaves out; null when it has to be given.
   void const* defaultSlot() const { return defaultSlot_.get(); }

 private:
   std::string_view name_;
   TypeReference type_;
   std::shared_ptr<void const> defaultSlot_;
};

/// A walk over one collection of one object. It keeps an entity object alive, and tolerates changes
/// of the collection as the collection's own cursor does.
class [[gnu::visibility( "default" )]] CollectionIterator {
 public:
   CollectionIterator() = default;
   CollectionIterator( CollectionIterator const& ) = delete;
   CollectionIterator& operator=( CollectionIterator const& ) = delete;
   virtual ~CollectionIterator();

   virtual bool onMember() const = 0;
   /// Assigns the current key, or value, to a live object of the collection's key, or value, type
   /// (a Corvo::Ptr for entities). std::out_of_range when the iterator stands on no member.
   virtual void key( void* target ) const = 0;
   virtual void value( void* target ) const = 0;
   /// Goes to the next member; past the last one, nothing happens.
   virtual void advance() = 0;
};

/// How an attribute is reached in an object; made by those who describe types. The functions get
/// what TypeInfo::attributeOp and its like were given, with `object` an object of the owner.
class [[gnu::visibility( "default" )]] AttributeAccess {
 public:
   AttributeAccess() = default;
   AttributeAccess( AttributeAccess const& ) = delete;
   AttributeAccess& operator=( AttributeAccess const& ) = delete;
   virtual ~AttributeAccess();

   virtual Status
   perform( void* result, void* object, Op op, void const* key, void* const* arguments ) const = 0;
   /// Null for all but collections.
   virtual std::unique_ptr<CollectionIterator> iterator( void* object, void const* startKey ) const;
   /// Appends the string form of a stored attribute's value.
   virtual void print( std::string& text, void const* object ) const;
};

/// One attribute of a type.
class [[gnu::visibility( "default" )]] Attribute {
 public:
   /// For those who describe types. `access` is null for hidden attributes. `name` is not copied:
   /// pass a literal.
   Attribute( std::string_view name,
              AttributeKind kind,
              TypeReference const& type,
              TypeReference const& keyType,
              std::vector<Argument> arguments,
              std::unique_ptr<AttributeAccess const> access );

   std::string_view name() const { return name_; }
   /// Without gaps in declaration order, from the owner's firstId() on.
   U32 id() const;
   AttributeKind kind() const { return kind_; }
   /// The type of the value; of an operation's result ("void" for none); of a collection's values.
   std::string_view typeName() const { return type_.name(); }
   TypeInfo const* type() const { return type_.type(); }
   /// The type of a collection's keys; empty for all else.
   std::string_view keyTypeName() const { return keyType_.name(); }
   TypeInfo const* keyType() const { return keyType_.type(); }
   /// Of an operation, or of the write of a state attribute that takes more than the value.
   std::span<Argument const> arguments() const { return arguments_; }
   TypeInfo const& owner() const { return *owner_; }

   /// What it is or does, in one line for people; empty when its description says nothing.
   std::string_view doc() const { return doc_; }
   void docIs( std::string_view line ) { doc_ = line; } ///< not copied: a literal
   /// An operation whose time grows with a table, or that waits for the system: a host that runs
   /// other things meanwhile had better do so.
   bool lengthy() const { return lengthy_; }
   void lengthyIs() { lengthy_ = true; }

   bool hidden() const { return access_ == nullptr; }
   /// Whether Op::write is supported.
   bool writable() const {
      return kind_ == AttributeKind::state || kind_ == AttributeKind::collection;
   }
   /// Whether the attribute is part of a value's string form.
   bool printed() const {
      return kind_ == AttributeKind::constant || kind_ == AttributeKind::readOnly ||
             kind_ == AttributeKind::state;
   }

 private:
   friend class TypeInfo;

   std::string_view name_;
   AttributeKind kind_;
   TypeReference type_;
   TypeReference keyType_;
   std::vector<Argument> arguments_;
   std::unique_ptr<AttributeAccess const> access_;
   TypeInfo const* owner_ = nullptr;
   std::string_view doc_;
   bool lengthy_ = false;
};

} // namespace Weft
