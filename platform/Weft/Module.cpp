// SPDX-License-Identifier: Apache-2.0
#include "Weft/Module.h"

#include "Weft/TypeInfo.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <string>
#include <typeindex>
#include <unordered_map>

namespace Weft {

/// The registered modules, linked through their records so that registering allocates nothing.
class ModuleList {
 public:
   void add( Module const& module ) {
      std::scoped_lock const lock( mutex_ );
      Module const** end = &first_;
      for ( ; *end != nullptr; end = &( *end )->next_ ) {
         if ( *end == &module ) {
            return;
         }
      }
      *end = &module;
   }

   std::vector<Module const*> all() const {
      std::scoped_lock const lock( mutex_ );
      std::vector<Module const*> modules;
      for ( Module const* module = first_; module != nullptr; module = module->next_ ) {
         modules.push_back( module );
      }
      return modules;
   }

 private:
   mutable std::mutex mutex_;
   Module const* first_ = nullptr;
};

namespace {

constinit ModuleList moduleList;

/// Every type of the modules that were registered when a type was last looked for in vain.
class TypeIndex {
 public:
   TypeInfo const* find( std::string_view name ) { return find( byName_, name ); }
   TypeInfo const* find( std::type_index cppType ) { return find( byCppType_, cppType ); }

 private:
   template<class Map, class Key>
   TypeInfo const* find( Map const& map, Key const& key ) {
      TypeInfo const* found = lookUp( map, key );
      if ( found == nullptr && refresh() ) {
         found = lookUp( map, key );
      }
      return found;
   }

   template<class Map, class Key>
   TypeInfo const* lookUp( Map const& map, Key const& key ) {
      std::scoped_lock const lock( mutex_ );
      auto const found = map.find( key );
      return found == map.end() ? nullptr : found->second;
   }

   /// Takes in the modules registered since; false when there are none.
   bool refresh() {
      auto const modules = moduleList.all();
      {
         std::scoped_lock const lock( mutex_ );
         if ( modules.size() <= indexed_ ) {
            return false;
         }
      }
      // Outside of the lock: describing is foreign code.
      for ( Module const* const module : modules ) {
         module->types();
      }
      std::scoped_lock const lock( mutex_ );
      for ( Module const* const module : modules ) {
         for ( TypeInfo const& type : module->types() ) {
            byName_.emplace( type.name(), &type );
            byCppType_.emplace( type.cppType(), &type );
         }
      }
      indexed_ = std::max( indexed_, modules.size() );
      return true;
   }

   std::mutex mutex_;
   std::unordered_map<std::string_view, TypeInfo const*> byName_;
   std::unordered_map<std::type_index, TypeInfo const*> byCppType_;
   std::size_t indexed_ = 0;
};

TypeIndex& typeIndex() {
   // Never destroyed: objects that live until the process ends may still ask for their types.
   static TypeIndex& index = *std::make_unique<TypeIndex>().release();
   return index;
}

} // namespace

std::span<TypeInfo const> Module::types() const {
   auto const* const types = types_.load( std::memory_order_acquire );
   return types != nullptr ? *types : described();
}

std::vector<TypeInfo> const& Module::described() const {
   std::scoped_lock const lock( describing_ );
   if ( auto const* const before = types_.load( std::memory_order_relaxed ) ) {
      return *before;
   }
   TypeList list;
   describe_( list );
   auto types = std::make_unique<std::vector<TypeInfo>>();
   types->reserve( list.size() );
   for ( TypeParts& parts : list ) {
      types->emplace_back( std::move( parts ), *this, static_cast<U32>( types->size() ) );
   }
   for ( TypeInfo& type : *types ) {
      type.adoptAttributes();
   }
   types_.store( types.get(), std::memory_order_release );
   return *types.release(); // kept until the process ends, as the index of types is
}

std::vector<TypeInfo const*> Module::referredTypes() const {
   std::vector<TypeInfo const*> named;
   for ( TypeInfo const& type : types() ) {
      named.push_back( type.base() );
      for ( Attribute const& attribute : type.attributes() ) {
         named.push_back( attribute.type() );
         named.push_back( attribute.keyType() );
      }
   }
   std::vector<TypeInfo const*> referred;
   for ( Module const* const module : modules() ) {
      auto const begin = static_cast<std::ptrdiff_t>( referred.size() );
      std::ranges::copy_if( named, std::back_inserter( referred ), [ & ]( TypeInfo const* type ) {
         return type != nullptr && module != this && &type->module() == module;
      } );
      std::ranges::sort( referred.begin() + begin, referred.end(), {}, &TypeInfo::name );
   }
   referred.erase( std::unique( referred.begin(), referred.end() ), referred.end() );
   return referred;
}

void weftModuleIs( Module const& module ) {
   moduleList.add( module );
}

std::vector<Module const*> modules() {
   return moduleList.all();
}

TypeInfo const& fwkType( TypeData typeData ) {
   if ( typeData.module == nullptr ) {
      throw TypeException( "an object of a type that no module describes" );
   }
   auto const types = typeData.module->types();
   if ( typeData.index >= types.size() ) {
      throw TypeException( "module " + std::string( typeData.module->name() ) + " has no type " +
                           std::to_string( typeData.index ) );
   }
   return types[ typeData.index ];
}

TypeInfo const* typeByName( std::string_view name ) {
   return typeIndex().find( name );
}

TypeInfo const* typeByCppType( std::type_info const& cppType ) {
   return typeIndex().find( std::type_index( cppType ) );
}

} // namespace Weft
