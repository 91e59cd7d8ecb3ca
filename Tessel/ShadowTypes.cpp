// SPDX-License-Identifier: Apache-2.0
#include "Tessel/ShadowTypes.h"

#include "WeftCorvo/Describe.h"

namespace Tessel {

EntryKey::EntryKey( Weft::CharRange stringForm )
      : ByteStringValue(
           WeftCorvo::readAttribute<Corvo::Bytes>( stringForm, "Tessel::EntryKey", "bytes" ) ) {}

EntryResult::EntryResult( Weft::CharRange stringForm )
      : ByteStringValue(
           WeftCorvo::readAttribute<Corvo::Bytes>( stringForm, "Tessel::EntryResult", "bytes" ) ) {}

std::ostream& operator<<( std::ostream& stream, EntryKey const& key ) {
   return stream << WeftCorvo::stringForm( key );
}

std::ostream& operator<<( std::ostream& stream, EntryResult const& result ) {
   return stream << WeftCorvo::stringForm( result );
}

namespace {

template<class Value>
void describeByteString( Weft::TypeList& types, std::string_view name, std::string_view doc ) {
   WeftCorvo::valueType<Value>( types, name )
      .doc( doc )
      .template constructor<Corvo::Bytes>( "bytes" )
      .constant( "bytes", &Value::bytes )
      .doc( "Its bytes." )
      .opConst( "hash", &Value::hash )
      .doc( "32 bits over the bytes." );
}

void describe( Weft::TypeList& types ) {
   describeByteString<EntryKey>( types, "Tessel::EntryKey", "The key of an entry." );
   describeByteString<EntryResult>( types, "Tessel::EntryResult", "What a key is mapped to." );
}

} // namespace

} // namespace Tessel

constinit Weft::Module const _ShadowTypes_780f1d9c6707feae_weftModule( "ShadowTypes",
                                                                       Tessel::describe );

namespace {

[[gnu::init_priority( 2001 )]] Weft::ModuleRegistration const
   registration( _ShadowTypes_780f1d9c6707feae_weftModule );

} // namespace
