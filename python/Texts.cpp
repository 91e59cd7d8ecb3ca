// SPDX-License-Identifier: Apache-2.0
#include "python/Texts.h"

#include "python/Signature.h"
#include "python/Walk.h"

#include <algorithm>

namespace TesselPython {

namespace {

/// The text as a paragraph of its own.
std::string paragraph( std::string_view text ) {
   return text.empty() ? std::string() : "\n\n" + std::string( text );
}

std::string slotName( std::string_view registryName, std::string const& annotation ) {
   return annotation == registryName ? annotation
                                     : annotation + " (" + std::string( registryName ) + ")";
}

std::string storedNote( Weft::Attribute const& attribute ) {
   switch ( attribute.kind() ) {
   case Weft::AttributeKind::constant:
      return "never changes";
   case Weft::AttributeKind::readOnly:
      return "read-only";
   case Weft::AttributeKind::state:
      return "can be assigned";
   default:
      return "a mapping";
   }
}

/// How a state attribute is set that takes more than its value.
std::string assignmentNote( Weft::Attribute const& attribute ) {
   if ( attribute.arguments().empty() ) {
      return {};
   }
   return "Assign a tuple " +
          Signature( attribute.name(), attribute.arguments(), nullptr ).plainText( "" ) +
          "; del takes it out.";
}

std::string constantsNote( Weft::TypeInfo const& type ) {
   std::string text;
   for ( Weft::Attribute const& attribute : type.attributes() ) {
      if ( attribute.kind() == Weft::AttributeKind::fixedValue ) {
         text +=
            paragraph( std::string( attribute.name() ) + ": " + std::string( attribute.doc() ) );
      }
   }
   return text;
}

std::string walkNote( Weft::TypeInfo const& type ) {
   Walk const walk = walkOf( type );
   if ( !walk ) {
      return {};
   }
   std::string text = "Iterates as tuples (";
   char const* separator = "";
   for ( Weft::Attribute const* const part : walk.item ) {
      std::string_view const name = part->name();
      text += separator + std::string( name.substr( 0, name.find( "_py" ) ) ) + ": " +
              converterOf( *part ).annotation();
      separator = ", ";
   }
   return text + ").";
}

std::string_view kindOf( Weft::TypeInfo const& type ) {
   return type.kind() == Weft::TypeKind::value ? "a value" : "an entity";
}

std::string constructorNote( Weft::TypeInfo const& type ) {
   if ( !type.constructible() ) {
      return "Not constructed by scripts.";
   }
   std::string const name( shortName( type ) );
   std::string const call =
      name + Signature( name, type.constructorArguments(), nullptr ).annotatedText();
   return type.kind() == Weft::TypeKind::value ? call + "; without arguments: the default value."
                                               : call;
}

} // namespace

std::string_view shortName( Weft::TypeInfo const& type ) {
   auto const name = type.name();
   auto const last = name.rfind( ':' );
   return last == std::string_view::npos ? name : name.substr( last + 1 );
}

std::vector<Weft::Attribute const*> reachableAttributes( Weft::TypeInfo const& type ) {
   std::vector<Weft::Attribute const*> all;
   if ( type.base() != nullptr ) {
      all = reachableAttributes( *type.base() );
   }
   for ( Weft::Attribute const& attribute : type.attributes() ) {
      if ( !attribute.hidden() ) {
         all.push_back( &attribute );
      }
   }
   return all;
}

bool constructorSaysAll( Weft::TypeInfo const& type ) {
   auto const arguments = type.constructorArguments();
   auto const attributes = reachableAttributes( type );
   auto const printed = std::ranges::count_if( attributes, &Weft::Attribute::printed );
   return type.constructible() && static_cast<std::size_t>( printed ) == arguments.size() &&
          std::ranges::all_of( arguments, [ & ]( Weft::Argument const& argument ) {
             auto const* const attribute = type.attribute( argument.name() );
             return attribute != nullptr && attribute->printed();
          } );
}

std::vector<Weft::Attribute const*> tellingAttributes( Weft::TypeInfo const& type ) {
   auto telling = reachableAttributes( type );
   std::erase_if( telling, []( Weft::Attribute const* attribute ) {
      return attribute->kind() != Weft::AttributeKind::constant || attribute->type() != nullptr ||
             converterOf( *attribute ).rawPointer();
   } );
   return telling;
}

std::string classDoc( Weft::TypeInfo const& type ) {
   std::string const name( shortName( type ) );
   Signature const signature( name, type.constructorArguments(), nullptr );
   std::string const first( type.doc().empty() ? type.name() : type.doc() );
   return name + signature.plainText( "" ) + "\n--\n\n" + first +
          paragraph( constructorNote( type ) ) +
          paragraph( std::string( type.name() ) + " is " + std::string( kindOf( type ) ) +
                     " of the module " + std::string( type.module().name() ) + "." ) +
          paragraph( walkNote( type ) ) + constantsNote( type );
}

std::string propertyDoc( Weft::Attribute const& attribute ) {
   Converter const& converter = converterOf( attribute );
   std::string type = slotName( attribute.typeName(), converter.annotation() );
   if ( attribute.kind() == Weft::AttributeKind::collection ) {
      Converter const& key = converterOf( attribute.keyTypeName(), attribute.keyType() );
      type = slotName( attribute.keyTypeName(), key.annotation() ) + " to " + type;
   }
   std::string const note =
      converter.rawPointer() ? "a raw pointer, which scripts see as None" : storedNote( attribute );
   return std::string( attribute.doc() ) + paragraph( type + "; " + note + "." ) +
          paragraph( assignmentNote( attribute ) );
}

std::string operationDoc( Weft::Attribute const& operation ) {
   std::string const name( operation.name() );
   Signature const signature( name, operation.arguments(), &converterOf( operation ) );
   bool const isStatic = operation.kind() == Weft::AttributeKind::opStatic;
   std::string text = name + signature.plainText( isStatic ? "" : "$self" ) + "\n--\n\n" +
                      std::string( operation.doc() );
   if ( !signature.takesRawPointers() ) {
      return text + paragraph( name + signature.annotatedText() );
   }
   std::string const instead = formsForScripts( operation );
   return text + paragraph( "Takes raw pointers, which scripts cannot give" +
                            ( instead.empty() ? "" : ": call " + instead ) + "." );
}

std::string formsForScripts( Weft::Attribute const& operation ) {
   std::string const name( operation.name() );
   auto const* const form = operation.owner().attribute( name + "_py" );
   if ( form != nullptr && !form->hidden() ) {
      return name + "_py with byte strings";
   }
   std::string forms;
   for ( Weft::Attribute const& other : operation.owner().attributes() ) {
      std::string_view const ending =
         other.name().starts_with( name ) ? other.name().substr( name.size() ) : "";
      bool const ofOneWidth = !ending.empty() && std::ranges::all_of( ending, []( char c ) {
         return c >= '0' && c <= '9';
      } );
      if ( ofOneWidth && !other.hidden() ) {
         forms += ( forms.empty() ? "" : " or " ) + std::string( other.name() );
      }
   }
   return forms;
}

std::string_view kindName( Weft::AttributeKind kind ) {
   using Kind = Weft::AttributeKind;
   switch ( kind ) {
   case Kind::constant:
      return "constant";
   case Kind::readOnly:
      return "readOnly";
   case Kind::state:
      return "state";
   case Kind::hidden:
      return "hidden";
   case Kind::fixedValue:
      return "fixedValue";
   case Kind::op:
      return "op";
   case Kind::opConst:
      return "opConst";
   case Kind::opStatic:
      return "opStatic";
   case Kind::opHidden:
      return "opHidden";
   case Kind::collection:
      return "collection";
   }
   return "unknown";
}

} // namespace TesselPython
