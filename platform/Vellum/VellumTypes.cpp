// SPDX-License-Identifier: Apache-2.0
#include "Vellum/VellumTypes.h"

#include "Vellum/VellumChunk.h"
#include "WeftCorvo/Describe.h"

namespace Vellum {

namespace {

Corvo::Ptr<VellumChunk> open( Corvo::String const& name, bool readOnly ) {
   using Access = VellumChunk::Access;
   return VellumChunk::open( name, readOnly ? Access::readOnly : Access::readWrite );
}

bool readOnly( VellumChunk const& chunk ) {
   return chunk.access() == VellumChunk::Access::readOnly;
}

void describe( Weft::TypeList& types ) {
   WeftCorvo::entityType<VellumChunk>( types, "Vellum::VellumChunk" )
      .constant( "name", &VellumChunk::name )
      .constant( "size", &VellumChunk::size )
      .constant( "readOnly", &readOnly )
      .opStatic( "inProcess", &VellumChunk::inProcess, "size" )
      .opStatic( "create", &VellumChunk::create, "name", "size" )
      .opStatic( "open", &open, "name", "readOnly" )
      .opStatic( "remove", &VellumChunk::remove, "name" );
}

} // namespace

Weft::TypeData VellumChunk::typeData() const {
   return { &_Vellum_53db2e1eaa5780fc_weftModule, 0 };
}

} // namespace Vellum

constinit Weft::Module const _Vellum_53db2e1eaa5780fc_weftModule( "Vellum", Vellum::describe );

namespace {

[[gnu::init_priority( 1002 )]] Weft::ModuleRegistration const
   registration( _Vellum_53db2e1eaa5780fc_weftModule );

} // namespace
