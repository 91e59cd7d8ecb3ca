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
void describeByteString( Weft::TypeList& types, std::string_view name ) {
   WeftCorvo::valueType<Value>( types, name )
      .template constructor<Corvo::Bytes>( "bytes" )
      .constant( "bytes", &Value::bytes )
      .opConst( "hash", &Value::hash );
}

void describe( Weft::TypeList& types ) {
   describeByteString<EntryKey>( types, "Tessel::EntryKey" );
   describeByteString<EntryResult>( types, "Tessel::EntryResult" );
}

} // namespace

} // namespace Tessel

constinit Weft::Module const _ShadowTypes_780f1d9c6707feae_weftModule( "ShadowTypes",
                                                                       Tessel::describe );

namespace {

[[gnu::init_priority( 2001 )]] Weft::ModuleRegistration const
   registration( _ShadowTypes_780f1d9c6707feae_weftModule );

} // namespace
