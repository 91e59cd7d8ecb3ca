# SPDX-License-Identifier: Apache-2.0
# Which sources make the library, lowest floor first.
#
# The order is more than tidiness: static initialisers run in the order in which the objects are
# linked, and the modules register with the type registry in exactly this order.

set( TESSEL_ROOMS Quarry Weft Corvo WeftCorvo Brine Vellum )
set( TESSEL_MODULES ShadowTypes TableHelper ManagedTableBase DirectTable EmTable TableManager )

# Sets `result` to every source of the library. A source whose name begins with no module's, such as
# an internal part of one, comes last: it registers nothing.
function( tessel_library_sources result )
   file( GLOB unplaced CONFIGURE_DEPENDS
      ${PROJECT_SOURCE_DIR}/platform/*/*.cpp ${PROJECT_SOURCE_DIR}/Tessel/*.cpp )
   set( placed )
   list( TRANSFORM TESSEL_ROOMS REPLACE "(.+)" "/platform/\\1/[^/]+$" OUTPUT_VARIABLE rooms )
   list( TRANSFORM TESSEL_MODULES REPLACE "(.+)" "/Tessel/\\1[^/]*$" OUTPUT_VARIABLE modules )
   foreach( pattern IN LISTS rooms modules )
      set( own ${unplaced} )
      list( FILTER own INCLUDE REGEX ${pattern} )
      list( FILTER unplaced EXCLUDE REGEX ${pattern} )
      list( APPEND placed ${own} )
   endforeach()
   set( ${result} ${placed} ${unplaced} PARENT_SCOPE )
endfunction()
