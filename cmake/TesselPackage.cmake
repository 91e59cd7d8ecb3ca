# SPDX-License-Identifier: Apache-2.0
# `cpack`: Debian packages, one per component of TesselInstall.cmake. For a build that was
# configured with the prefix /usr (`./dev package`).

set( CPACK_GENERATOR DEB )
set( CPACK_PACKAGE_NAME tessel )
set( CPACK_PACKAGE_CONTACT "Tessel maintainers <maintainers@tessel.invalid>" )
set( CPACK_PACKAGE_DESCRIPTION_SUMMARY "tables of a network agent in shared memory" )
set( CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE )
set( CPACK_STRIP_FILES ON )
set( CPACK_COMPONENTS_ALL runtime development )
set( CPACK_COMPONENTS_GROUPING IGNORE )
set( CPACK_DEB_COMPONENT_INSTALL ON )
set( CPACK_DEBIAN_FILE_NAME DEB-DEFAULT )
set( CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON )
set( CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON )
set( CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR} )
# Packages of others that use the library depend on the one that holds it.
set( CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON )
set( CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=" )

# tessel_package( component NAME package SECTION section DESCRIPTION text [DEPENDS packages] )
function( tessel_package component )
   cmake_parse_arguments( PARSE_ARGV 1 given "" "NAME;SECTION;DESCRIPTION;DEPENDS" "" )
   string( TOUPPER ${component} name )
   set( CPACK_DEBIAN_${name}_PACKAGE_NAME ${given_NAME} PARENT_SCOPE )
   set( CPACK_DEBIAN_${name}_PACKAGE_SECTION ${given_SECTION} PARENT_SCOPE )
   set( CPACK_DEBIAN_${name}_PACKAGE_DEPENDS "${given_DEPENDS}" PARENT_SCOPE )
   set( CPACK_DEBIAN_${name}_DESCRIPTION "${given_DESCRIPTION}" PARENT_SCOPE )
   install( FILES ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION share/doc/${given_NAME}
      RENAME copyright COMPONENT ${component} EXCLUDE_FROM_ALL )
endfunction()

set( sameLibrary "libtessel1 (= ${PROJECT_VERSION})" )

tessel_package( runtime NAME libtessel1 SECTION libs
   DESCRIPTION "The library: keeps exact-match entries (chip, key) -> result in shared memory,\n\
where they survive the agent that wrote them and can be looked up by other processes." )
tessel_package( development NAME libtessel-dev SECTION libdevel DEPENDS "${sameLibrary}"
   DESCRIPTION "The headers, and the files with which CMake and pkg-config find libtessel1." )
if( TARGET tessel )
   list( APPEND CPACK_COMPONENTS_ALL tools )
   tessel_package( tools NAME tessel-tools SECTION net DEPENDS "${sameLibrary}"
      DESCRIPTION "The command `tessel`, which shows, dumps, looks up, loads and changes tables." )
endif()

if( TARGET tessel_python )
   list( APPEND CPACK_COMPONENTS_ALL python )
   find_package( Python3 REQUIRED COMPONENTS Interpreter )
   set( minor ${Python3_VERSION_MINOR} )
   math( EXPR nextMinor "${minor} + 1" )
   tessel_package( python NAME python3-tessel SECTION python
      DEPENDS "${sameLibrary}, python3 (>= 3.${minor}~), python3 (<< 3.${nextMinor})"
      DESCRIPTION "Every type that the library registers, as a Python class." )
   # What the interpreter compiles is removed with the package.
   set( CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
      ${PROJECT_SOURCE_DIR}/cmake/debian/postinst ${PROJECT_SOURCE_DIR}/cmake/debian/prerm )
endif()

include( CPack )
