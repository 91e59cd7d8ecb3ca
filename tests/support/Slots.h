// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Slots of every type that the registry names (Weft/TypeInfo.h says what a slot is), and samples of
/// what they may hold.
///
/// Threads: one test at a time.

#include "Corvo/Bytes.h"
#include "Corvo/Ptr.h"
#include "Corvo/String.h"
#include "Weft/TypeInfo.h"

#include <array>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace TestSupport {

/// A live slot.
class AnySlot {
 public:
   using BuiltIn = std::variant<bool,
                                U8,
                                U16,
                                U32,
                                U64,
                                Corvo::String,
                                Corvo::Bytes,
                                Weft::CharPtr,
                                Weft::CharPtrConst,
                                Weft::BytePtr>;

   explicit AnySlot( BuiltIn value );
   /// What `build` builds in raw memory of the type's size.
   AnySlot( Weft::TypeInfo const& type, std::function<void( void* )> const& build );
   /// The default value of a type by name; of "void", a slot that nobody writes.
   static AnySlot ofType( std::string_view typeName );

   void* get() const;
   /// What the slot holds, for comparisons.
   std::string text() const;

 private:
   struct Destroy {
      Weft::TypeInfo const* type;
      bool built; ///< else memory alone
      void operator()( std::byte* memory ) const;
   };

   std::unique_ptr<BuiltIn> builtIn_;
   std::unique_ptr<std::byte, Destroy> described_;
};

/// The object in a slot as attributeOp wants it; null for a null pointer. It lives with the slot.
void* objectIn( Weft::TypeInfo const& type, AnySlot const& slot );
/// Pointers to slots, as the registry takes arguments.
std::vector<void*> pointersTo( std::vector<AnySlot> const& slots );

/// The operations that an attribute supports, by its kind.
std::vector<Weft::Op> supportedBy( Weft::Attribute const& attribute );
/// Room for what an operation on the attribute yields.
AnySlot resultOf( Weft::Attribute const& attribute, Weft::Op op );

/// Draws samples under a fixed seed: values and lengths small enough for keys to meet again and for
/// tables to fill up, and objects out of a pool, which takes in what is kept. Contract failures have to
/// raise (support/Contract.h).
class Sampler {
 public:
   /// What raw pointers point to: more than any chunk of the pool has.
   static constexpr U32 bufferBytes = 16384;
   static constexpr U32 chunkBytes = 4096;

   explicit Sampler( U32 seed );
   /// Removes the shared memory whose name is among the samples.
   ~Sampler();
   Sampler( Sampler const& ) = delete;
   Sampler& operator=( Sampler const& ) = delete;

   /// A number below `end`.
   U32 below( U32 end ) { return static_cast<U32>( random_() % end ); }
   bool oneIn( U32 times ) { return below( times ) == 0; }

   /// A sample of the type for an argument or attribute of this name.
   AnySlot slot( std::string_view typeName, std::string_view name = {} );
   /// One sample for each argument.
   std::vector<AnySlot> slots( std::span<Weft::Argument const> arguments );
   /// What an operation on the attribute takes; a value to write where it has no arguments.
   std::vector<AnySlot> argumentsOf( Weft::Attribute const& attribute, Weft::Op op );
   /// A key of a collection; of other attributes, something that nobody looks at.
   AnySlot keyOf( Weft::Attribute const& attribute );
   /// An object of the type out of the pool; null when there is none.
   Corvo::Ptr<Corvo::Node> object( Weft::TypeInfo const& type );
   /// Takes an object into the pool, in the place of another when the pool is large; chunks that are
   /// larger than a buffer stay outside.
   void keep( Corvo::Ptr<Corvo::Node> const& object );
   /// Changes some bytes of a chunk, as if another process had written to it.
   void disturb();

 private:
   using Buffer = std::array<U8, bufferBytes>;

   AnySlot value( Weft::TypeInfo const& type );
   U32 number( std::string_view name );
   Corvo::String text();
   Corvo::Bytes bytes();
   void fillPool();

   std::mt19937 random_;
   std::unique_ptr<Buffer> toRead_ = std::make_unique<Buffer>();
   std::unique_ptr<Buffer> toWrite_ = std::make_unique<Buffer>();
   std::unique_ptr<Buffer> local_ = std::make_unique<Buffer>();
   std::vector<Corvo::Ptr<Corvo::Node>> pool_;
};

} // namespace TestSupport
