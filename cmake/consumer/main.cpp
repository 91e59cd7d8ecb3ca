// SPDX-License-Identifier: Apache-2.0
#include "Tessel/EmTable.h"
#include "Tessel/TableManager.h"
#include "Vellum/VellumChunk.h"
#include "Weft/TypeInfo.h"

int main() {
   auto const chunk = Vellum::VellumChunk::inProcess( 64 );
   bool const registered = Weft::typeByName( "Tessel::EmShadowTable" ) != nullptr;
   return chunk->size() == 64 && registered ? 0 : 1;
}
