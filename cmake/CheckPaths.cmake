# SPDX-License-Identifier: Apache-2.0
# Fails when FILE holds the path of the source folder ROOT or of the build folder BUILD.

foreach( folder IN ITEMS ${ROOT}/ ${BUILD} )
   string( REGEX REPLACE "([][+.*()^$?|\\\\])" "\\\\\\1" pattern "${folder}" )
   file( STRINGS ${FILE} found REGEX "${pattern}" )
   if( found )
      message( SEND_ERROR "${FILE} holds a path of this machine: ${found}" )
   endif()
endforeach()
