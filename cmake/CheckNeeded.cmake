# SPDX-License-Identifier: Apache-2.0
# Fails when LIBRARY needs a shared object besides the C++ standard library and libc.

execute_process( COMMAND ${READELF} --dynamic --wide ${LIBRARY}
   OUTPUT_VARIABLE dynamic COMMAND_ERROR_IS_FATAL ANY )
string( REGEX MATCHALL "Shared library: \\[[^]]+\\]" needed "${dynamic}" )
if( NOT needed )
   message( FATAL_ERROR "${LIBRARY}: no needed library at all, so nothing was checked" )
endif()
list( TRANSFORM needed REPLACE "Shared library: \\[([^]]+)\\]" "\\1" )
list( FILTER needed EXCLUDE REGEX "^(lib(stdc\\+\\+|gcc_s|c|m)|ld-linux.*)\\.so" )
if( needed )
   message( FATAL_ERROR "${LIBRARY} needs more than it may: ${needed}" )
endif()
