// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Describing types to the registry: once, in the source file of the class, one line per attribute.
///
///    // Header, for typeData() and for fwkType():
///    [[gnu::visibility( "default" )]] extern Weft::Module const
///       _Lamps_0123456789abcdef_weftModule;
///
///    // Source:
///    void describe( Weft::TypeList& types ) {
///       WeftCorvo::valueType<Colour>( types, "House::Colour" )
///          .constructor<U8, U8>( "red", "green" )
///          .constant( "red", &Colour::red )
///          .constant( "green", &Colour::green )
///          .fixedValue( "brightest", U8{ 255 } )
///          .opConst( "mixed", &Colour::mixed, "other" )
///          .unhashable();
///       WeftCorvo::entityType<Lamp, Device>( types, "House::Lamp" )
///          .creator( &Lamp::LampIs, "name", "wiring" )
///          .readOnly( "name", &Lamp::name )
///          .state( "colour", &Lamp::colour, &Lamp::colourIs )
///          .hidden<U32>( "serial" )
///          .op( "flash", &Lamp::flash, WeftCorvo::byDefault( "times", U32{ 1 } ) )
///          .doc( "Goes on and off." )
///          .hiddenOp( "reset", &Lamp::reset )
///          .collection( "scene", &Lamp::scene, &Lamp::sceneIs, &Lamp::sceneDel, &Lamp::scenes );
///    }
///    constinit Weft::Module const _Lamps_0123456789abcdef_weftModule( "Lamps", describe );
///    [[gnu::init_priority( 3001 )]] Weft::ModuleRegistration const registration(
///       _Lamps_0123456789abcdef_weftModule );
///
///    Weft::TypeData Lamp::typeData() const {
///       return { &_Lamps_0123456789abcdef_weftModule, 1 };
///    }
///
/// A type's index in its module is its place in the list. Everything that a function takes or
/// returns has to be a slot (Weft/TypeInfo.h), a const or a reference to one, a Corvo::Ptr to a
/// const object, or an enumeration with EnumValues (WeftCorvo/Slots.h); types are referred to by
/// their C++ type, and may be described later or elsewhere. Functions are member functions of the
/// type or of a base, virtual ones included, or functions and captureless lambdas that take the
/// object first; overload<> picks one of several.
///
/// A value type is copied and assigned, has a default constructor or a defaultValue, and is
/// constructible from Weft::CharRange (WeftCorvo/StringForm.h) or has a plainForm. Its truth value,
/// equality, order and hash are the ones of the C++ type: explicit conversion to bool, ==, <, and
/// hash() or std::hash.
///
/// Threads: descriptions are made on the thread that first asks for a module's types.

#include "WeftCorvo/Access.h"

namespace WeftCorvo {

template<class T, class Base>
struct MethodsOf {
   using Type = ValueMethods<T, Base>;
};
template<Entity T, class Base>
struct MethodsOf<T, Base> {
   using Type = PtrMethods<T, Base>;
};

/// The description under way of the type `T`, the last one of its list; made by valueType and
/// entityType. Names are not copied: pass literals.
template<class T, class Base>
class TypeDescription {
 public:
   using Methods = typename MethodsOf<T, Base>::Type;

   TypeDescription( Weft::TypeParts& parts, Methods& methods )
         : parts_( parts ), methods_( methods ) {}

   // --- of the latest attribute, or of the type itself as long as it has none ---

   /// What it is or does, in one line for people who read help texts.
   TypeDescription& doc( std::string_view line ) {
      if ( parts_.attributes.empty() ) {
         parts_.doc = line;
      } else {
         parts_.attributes.back().docIs( line );
      }
      return *this;
   }
   /// Its call, or the making and the end of an object, may take long (Weft/Attribute.h).
   TypeDescription& lengthy() {
      if ( parts_.attributes.empty() ) {
         parts_.lengthy = true;
      } else {
         parts_.attributes.back().lengthyIs();
      }
      return *this;
   }

   // --- construction ---

   /// A value's constructor from these arguments.
   template<class... A, class... Names>
      requires( !Entity<T> )
   TypeDescription& constructor( Names... names ) {
      return constructionIs(
         Types<A...>(),
         []( void* target, void* const* arguments ) {
            buildValue( target, arguments, Types<A...>(), std::index_sequence_for<A...>() );
         },
         names... );
   }

   /// The function that makes an entity, a static creator or a lambda; it returns a Corvo::Ptr<T>.
   template<class F, class... Names>
      requires Entity<T>
   TypeDescription& creator( F create, Names... names ) {
      using Arguments = typename Callable<F>::Arguments;
      return constructionIs(
         Arguments(),
         [ create ]( void* target, void* const* arguments ) {
            std::construct_at( static_cast<Corvo::Ptr<T>*>( target ),
                               callWith( Arguments(), create, arguments ) );
         },
         names... );
   }

   /// Constructor arguments that are listed for a type which cannot be constructed by name.
   template<class... A, class... Names>
   TypeDescription& constructorArguments( Names... names ) {
      parts_.constructorArguments = namedArguments( Types<A...>(), names... );
      return *this;
   }

   // --- stored attributes ---

   /// Set by the constructor, never changed: read.
   template<class Getter>
   TypeDescription& constant( std::string_view name, Getter getter ) {
      return stored( name, Weft::AttributeKind::constant, getter );
   }
   /// Changed only by the type's own operations: read.
   template<class Getter>
   TypeDescription& readOnly( std::string_view name, Getter getter ) {
      return stored( name, Weft::AttributeKind::readOnly, getter );
   }
   /// Read and write.
   template<class Getter, class Setter>
   TypeDescription& state( std::string_view name, Getter getter, Setter setter ) {
      static_assert( OperationArguments<Setter>::count == 1, "a setter takes the value" );
      return stored( name, Weft::AttributeKind::state, getter, setter );
   }
   /// Read; write with these arguments instead of the value; delete, which yields the former value.
   template<class Getter, class Setter, class Remover, class... Names>
   TypeDescription& stateWithArguments(
      std::string_view name, Getter getter, Setter setter, Remover remover, Names... names ) {
      stored( name, Weft::AttributeKind::state, getter, setter, remover, names... );
      return *this;
   }
   /// Listed with its type, not reachable.
   template<class Value>
   TypeDescription& hidden( std::string_view name ) {
      return add( name, Weft::AttributeKind::hidden, typeReference<Value>(), {}, nullptr );
   }
   /// A fixed value of the type: read.
   template<class Value>
   TypeDescription& fixedValue( std::string_view name, Value value ) {
      return add( name,
                  Weft::AttributeKind::fixedValue,
                  typeReference<Value>(),
                  {},
                  std::make_unique<FixedAccess<Value>>( std::move( value ) ) );
   }

   // --- operations ---

   template<class F, class... Names>
   TypeDescription& op( std::string_view name, F function, Names... names ) {
      return operation<F>( name,
                           Weft::AttributeKind::op,
                           std::make_unique<OpAccess<T, F>>( function ),
                           OperationArguments<F>(),
                           names... );
   }
   /// One that does not change the object.
   template<class F, class... Names>
   TypeDescription& opConst( std::string_view name, F function, Names... names ) {
      return operation<F>( name,
                           Weft::AttributeKind::opConst,
                           std::make_unique<OpAccess<T const, F>>( function ),
                           OperationArguments<F>(),
                           names... );
   }
   /// One of the type itself: a static member function, a function or a lambda without an object.
   template<class F, class... Names>
   TypeDescription& opStatic( std::string_view name, F function, Names... names ) {
      return operation<F>( name,
                           Weft::AttributeKind::opStatic,
                           std::make_unique<StaticOpAccess<F>>( function ),
                           typename Callable<F>::Arguments(),
                           names... );
   }
   /// Listed with its result and arguments, not reachable.
   template<class F, class... Names>
   TypeDescription& hiddenOp( std::string_view name, F, Names... names ) {
      return operation<F>(
         name, Weft::AttributeKind::opHidden, nullptr, OperationArguments<F>(), names... );
   }

   // --- collections ---

   /// A keyed collection, by functions of the owner:
   ///    get( key ) const       the value, or the value type's default when the key is absent
   ///    set( key, value )      adds the member or replaces its value
   ///    del( key )             removes the member and returns its value, or the default
   ///    count() const          members now
   ///    capacity() const       members held before the collection takes more memory
   ///    contains( key ) const
   ///    walk( keyOrNull ) const    a cursor with onMember(), key(), value() and advance(), on the
   ///                           first member or on the one of that key
   template<class Get,
            class Set,
            class Del,
            class Count,
            class Capacity,
            class Contains,
            class Walk>
   TypeDescription& collection( std::string_view name,
                                Get get,
                                Set set,
                                Del del,
                                Count count,
                                Capacity capacity,
                                Contains contains,
                                Walk walk ) {
      using Functions = CollectionFunctions<Get, Set, Del, Count, Capacity, Contains, Walk>;
      using Key = KeyOf<OperationArguments<Get>>;
      parts_.attributes.emplace_back(
         name,
         Weft::AttributeKind::collection,
         typeReference<ResultOf<Get>>(),
         typeReference<Key>(),
         std::vector<Weft::Argument>(),
         std::make_unique<CollectionAccess<T, Key, Functions>>(
            Functions{ get, set, del, count, capacity, contains, walk } ) );
      return *this;
   }

   /// A keyed collection in one Weft::HashMap, to which `map() const` returns a reference.
   template<class Get, class Set, class Del, class Map>
   TypeDescription& collection( std::string_view name, Get get, Set set, Del del, Map map ) {
      using Members = std::remove_cvref_t<ReadBy<Map, T>>;
      using Key = KeyOf<OperationArguments<Get>>;
      return collection(
         name,
         get,
         set,
         del,
         [ map ]( T const& owner ) { return std::invoke( map, owner ).count(); },
         [ map ]( T const& owner ) { return std::invoke( map, owner ).capacity(); },
         [ map ]( T const& owner, Key const& key ) {
            return std::invoke( map, owner ).find( key ) != nullptr;
         },
         [ map ]( T const& owner, Key const* key ) {
            Members const& members = std::invoke( map, owner );
            return key ? typename Members::Cursor( members, *key )
                       : typename Members::Cursor( members );
         } );
   }

   // --- values ---

   /// The value has no hash, even though std::hash or hash() would give one.
   TypeDescription& unhashable()
      requires( !Entity<T> )
   {
      methods_.unhashableIs();
      return *this;
   }
   /// The default value of a type that has no default constructor.
   TypeDescription& defaultValue( T const& value )
      requires( !Entity<T> )
   {
      methods_.defaultValueIs( value );
      return *this;
   }
   /// The string form is the bare form of another slot, without type name and attribute names.
   template<class To, class From>
      requires( !Entity<T> )
   TypeDescription& plainForm( To toPlain, From fromPlain ) {
      using Plain = SlotOf<ReadBy<To, T>>;
      methods_.formIs(
         [ toPlain ]( std::string& text, T const& value ) {
            appendForm<Plain>( text, std::invoke( toPlain, value ) );
         },
         [ fromPlain ]( Weft::CharRange text ) {
            return T( std::invoke( fromPlain, readForm<Plain>( text ) ) );
         } );
      return *this;
   }

 private:
   template<class Arguments>
   struct FirstOf;
   template<class First, class... Rest>
   struct FirstOf<Types<First, Rest...>> {
      using Type = SlotOf<First>;
   };
   template<class Arguments>
   using KeyOf = typename FirstOf<Arguments>::Type;

   template<class... A, std::size_t... I>
   static void buildValue( void* target,
                           [[maybe_unused]] void* const* arguments,
                           Types<A...>,
                           std::index_sequence<I...> ) {
      std::construct_at( static_cast<T*>( target ), argument<A>( arguments, I )... );
   }

   template<class... A, class F, class... Names>
   TypeDescription& constructionIs( Types<A...> types, F construct, Names... names ) {
      parts_.constructorArguments = namedArguments( types, names... );
      parts_.construct = construct;
      return *this;
   }

   template<class Getter, class Setter = None, class Remover = None, class... Names>
   TypeDescription& stored( std::string_view name,
                            Weft::AttributeKind kind,
                            Getter getter,
                            Setter setter = {},
                            Remover remover = {},
                            Names... names ) {
      std::vector<Weft::Argument> arguments;
      if constexpr ( !std::same_as<Remover, None> ) {
         arguments = namedArguments( OperationArguments<Setter>(), names... );
      }
      return add(
         name,
         kind,
         typeReference<ReadBy<Getter, T>>(),
         std::move( arguments ),
         std::make_unique<StoredAccess<T, Getter, Setter, Remover>>( getter, setter, remover ) );
   }

   template<class F, class... A, class... Names>
   TypeDescription& operation( std::string_view name,
                               Weft::AttributeKind kind,
                               std::unique_ptr<Weft::AttributeAccess const> access,
                               Types<A...> types,
                               Names... names ) {
      return add( name,
                  kind,
                  typeReference<ResultOf<F>>(),
                  namedArguments( types, names... ),
                  std::move( access ) );
   }

   TypeDescription& add( std::string_view name,
                         Weft::AttributeKind kind,
                         Weft::TypeReference const& type,
                         std::vector<Weft::Argument> arguments,
                         std::unique_ptr<Weft::AttributeAccess const> access ) {
      parts_.attributes.emplace_back(
         name, kind, type, Weft::TypeReference(), std::move( arguments ), std::move( access ) );
      return *this;
   }

   Weft::TypeParts& parts_;
   Methods& methods_;
};

template<class T, class Base>
TypeDescription<T, Base> describedType( Weft::TypeList& types,
                                        std::string_view name,
                                        Weft::TypeKind kind,
                                        Weft::TypeReference const& base ) {
   using Description = TypeDescription<T, Base>;
   auto methods = std::make_unique<typename Description::Methods>();
   auto& known = *methods;
   types.push_back( Weft::TypeParts{ .name = name,
                                     .kind = kind,
                                     .cppType = &typeid( T ),
                                     .base = base,
                                     .methods = std::move( methods ) } );
   return Description( types.back(), known );
}

/// Appends a value type to the list; `Base` is the described value type that it derives from.
/// Finish one description before the next one is begun.
template<class T, class Base = void>
   requires( !Entity<T> && (std::is_void_v<Base> || std::derived_from<T, Base>))
TypeDescription<T, Base> valueType( Weft::TypeList& types, std::string_view name ) {
   Weft::TypeReference const base =
      std::is_void_v<Base> ? Weft::TypeReference() : Weft::TypeReference( typeid( Base ) );
   return describedType<T, Base>( types, name, Weft::TypeKind::value, base );
}

/// Appends an entity type to the list; `Base` is the described entity type that it derives from.
template<Entity T, class Base = Corvo::Node>
   requires std::derived_from<T, Base>
TypeDescription<T, Base> entityType( Weft::TypeList& types, std::string_view name ) {
   Weft::TypeReference const base = std::same_as<Base, Corvo::Node>
                                       ? Weft::TypeReference()
                                       : Weft::TypeReference( typeid( Base ) );
   return describedType<T, Base>( types, name, Weft::TypeKind::entity, base );
}

} // namespace WeftCorvo
