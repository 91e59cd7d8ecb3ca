// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The record of one module: its name and its types. Registered modules are what scripts, state
/// browsers and string forms know.
///
/// A module is a constant of static storage, initialised at compile time, so that the types of any
/// object can be asked for at any moment of the program's life. Its types are described when they
/// are first asked for; loading a module costs its registration alone.
///
/// Threads: everything may be called on any thread. A module's describing function runs once, on
/// the thread that asks first; one that throws is run again by the next who asks.

#include "Weft/TypeData.h"

#include <atomic>
#include <cstddef>
#include <ios>
#include <mutex>
#include <span>
#include <string_view>
#include <typeinfo>
#include <vector>

namespace Weft {

class TypeInfo;
struct TypeParts;
/// The descriptions of a module's types, in index order.
using TypeList = std::vector<TypeParts>;

class [[gnu::visibility( "default" )]] Module {
 public:
   /// Appends the module's types to the list. It describes and does nothing else: it must not ask
   /// for types, by name or otherwise.
   using Describe = void ( * )( TypeList& );

   /// `name` is not copied: pass a literal.
   constexpr Module( std::string_view name, Describe describe )
         : name_( name ), describe_( describe ) {}
   Module( Module const& ) = delete;
   Module& operator=( Module const& ) = delete;
   ~Module() = default;

   std::string_view name() const { return name_; }
   /// In index order; the types live until the process ends.
   std::span<TypeInfo const> types() const;
   /// The types of other modules that the bases and attributes of its types name, each once: by the
   /// order of their modules, then by name. What no registered module describes yet is left out.
   std::vector<TypeInfo const*> referredTypes() const;

 private:
   friend class ModuleList;

   std::vector<TypeInfo> const& described() const;

   std::string_view name_;
   Describe describe_;
   // Not a once_flag: where describing throws, std::call_once hangs under ThreadSanitizer.
   mutable std::mutex describing_;
   mutable std::atomic<std::vector<TypeInfo> const*> types_ = nullptr;
   mutable Module const* next_ = nullptr;
};

/// Registers a module, which has to live until the process ends. Allocates nothing. A module that
/// is registered already stays where it is.
[[gnu::visibility( "default" )]] void weftModuleIs( Module const& module );
/// The registered modules, in order of registration.
[[gnu::visibility( "default" )]] std::vector<Module const*> modules();

/// Registers a module when the library that holds it is loaded, the standard streams first. Beside
/// the record, as a constant of static storage whose priority fixes the module's place among those
/// of its library, whatever the order in which they are linked (lower ones first, from 101 on):
///
///    [[gnu::init_priority( 2001 )]] Weft::ModuleRegistration const registration( record );
class ModuleRegistration {
 public:
   explicit ModuleRegistration( Module const& module ) { weftModuleIs( module ); }

 private:
   std::ios_base::Init streams_;
};

/// The type that an object names as its own. TypeException when the module or the index names none.
[[gnu::visibility( "default" )]] TypeInfo const& fwkType( TypeData typeData );
/// "Tessel::EmTableEntry"; null when no registered module has a type of this name. Where two have
/// one, the module registered first counts.
[[gnu::visibility( "default" )]] TypeInfo const* typeByName( std::string_view name );
/// The type that describes a C++ type; null when no registered module does.
[[gnu::visibility( "default" )]] TypeInfo const* typeByCppType( std::type_info const& cppType );

} // namespace Weft
