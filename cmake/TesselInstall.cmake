# SPDX-License-Identifier: Apache-2.0
# `cmake --install`: headers under include/tessel, the library, the tool with its man pages and
# completion, find_package( Tessel ), pkg-config. Each component is a package of its own
# (TesselPackage.cmake).

include( CMakePackageConfigHelpers )

set( TESSEL_INCLUDE_DIR ${CMAKE_INSTALL_INCLUDEDIR}/tessel )
set( TESSEL_CONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Tessel )

set( CMAKE_INSTALL_DEFAULT_COMPONENT_NAME development )
install( TARGETS Tessel EXPORT TesselTargets
   LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
   FILE_SET modules DESTINATION ${TESSEL_INCLUDE_DIR}
   FILE_SET platform DESTINATION ${TESSEL_INCLUDE_DIR}
   INCLUDES DESTINATION ${TESSEL_INCLUDE_DIR} )
install( EXPORT TesselTargets NAMESPACE Tessel:: DESTINATION ${TESSEL_CONFIG_DIR} )

configure_package_config_file( cmake/TesselConfig.cmake.in
   ${PROJECT_BINARY_DIR}/TesselConfig.cmake INSTALL_DESTINATION ${TESSEL_CONFIG_DIR} )
write_basic_package_version_file( ${PROJECT_BINARY_DIR}/TesselConfigVersion.cmake
   COMPATIBILITY SameMajorVersion )
install( FILES
   ${PROJECT_BINARY_DIR}/TesselConfig.cmake ${PROJECT_BINARY_DIR}/TesselConfigVersion.cmake
   DESTINATION ${TESSEL_CONFIG_DIR} )

# Found from where the file lies, so that an installed tree can be moved.
file( RELATIVE_PATH prefixFromPkgConfig
   ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX} )
string( REGEX REPLACE "/$" "" prefixFromPkgConfig ${prefixFromPkgConfig} )
file( RELATIVE_PATH libraryFromPrefix ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_LIBDIR} )
file( RELATIVE_PATH headersFromPrefix
   ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR}/tessel )
configure_file( cmake/tessel.pc.in ${PROJECT_BINARY_DIR}/tessel.pc @ONLY )
install( FILES ${PROJECT_BINARY_DIR}/tessel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig )

if( TARGET tessel )
   set( CMAKE_INSTALL_DEFAULT_COMPONENT_NAME tools )
   tessel_find_library_from( tessel ${CMAKE_INSTALL_FULL_BINDIR} )
   install( TARGETS tessel RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} )
   set( toolFolder ${PROJECT_SOURCE_DIR}/tools/tessel )
   install( FILES ${toolFolder}/man/tessel.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 )
   install( FILES ${toolFolder}/man/tessel-plan.5 ${toolFolder}/man/tessel-chunk.5
      DESTINATION ${CMAKE_INSTALL_MANDIR}/man5 )
   install( FILES ${toolFolder}/completion/tessel.bash RENAME tessel
      DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions )
endif()
unset( CMAKE_INSTALL_DEFAULT_COMPONENT_NAME )
