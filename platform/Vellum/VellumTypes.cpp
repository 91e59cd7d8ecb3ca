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
      .doc( "A bounded block of bytes that other processes may map too." )
      .lengthy()
      .constant( "name", &VellumChunk::name )
      .doc( "Its name with the slash; empty for memory private to the process." )
      .constant( "size", &VellumChunk::size )
      .doc( "In bytes." )
      .constant( "readOnly", &readOnly )
      .doc( "Whether it was opened for reading alone." )
      .opStatic( "inProcess", &VellumChunk::inProcess, "size" )
      .doc( "Zero bytes, private to the process." )
      .lengthy()
      .opStatic( "create", &VellumChunk::create, "name", "size" )
      .doc( "New shared memory of zero bytes under a name that does not exist yet, for its owner "
            "alone." )
      .lengthy()
      .opStatic( "open", &open, "name", WeftCorvo::byDefault( "readOnly", false ) )
      .doc( "Maps existing shared memory." )
      .lengthy()
      .opStatic( "remove", &VellumChunk::remove, "name" )
      .doc( "Removes a name; processes that have the memory mapped keep it." )
      .lengthy();
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
