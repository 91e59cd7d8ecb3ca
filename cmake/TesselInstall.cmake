# SPDX-License-Identifier: Apache-2.0
# `cmake --install`: headers under include/tessel, the library, find_package( Tessel ), the tool
# with its man pages and completion.

include( CMakePackageConfigHelpers )

set( TESSEL_INCLUDE_DIR ${CMAKE_INSTALL_INCLUDEDIR}/tessel )
set( TESSEL_CONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Tessel )

install( TARGETS Tessel EXPORT TesselTargets
   LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
   FILE_SET modules DESTINATION ${TESSEL_INCLUDE_DIR}
   FILE_SET platform DESTINATION ${TESSEL_INCLUDE_DIR}
   INCLUDES DESTINATION ${TESSEL_INCLUDE_DIR} )
install( EXPORT TesselTargets NAMESPACE Tessel:: DESTINATION ${TESSEL_CONFIG_DIR} )

if( TARGET tessel )
   file( RELATIVE_PATH libraryFromTool
      ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR} )
   set_target_properties( tessel PROPERTIES INSTALL_RPATH $ORIGIN/${libraryFromTool} )
   install( TARGETS tessel RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} )
   set( toolFolder ${PROJECT_SOURCE_DIR}/tools/tessel )
   install( FILES ${toolFolder}/man/tessel.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 )
   install( FILES ${toolFolder}/man/tessel-plan.5 ${toolFolder}/man/tessel-chunk.5
      DESTINATION ${CMAKE_INSTALL_MANDIR}/man5 )
   install( FILES ${toolFolder}/completion/tessel.bash RENAME tessel
      DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions )
endif()

configure_package_config_file( cmake/TesselConfig.cmake.in
   ${PROJECT_BINARY_DIR}/TesselConfig.cmake INSTALL_DESTINATION ${TESSEL_CONFIG_DIR} )
write_basic_package_version_file( ${PROJECT_BINARY_DIR}/TesselConfigVersion.cmake
   COMPATIBILITY SameMinorVersion )
install( FILES
   ${PROJECT_BINARY_DIR}/TesselConfig.cmake ${PROJECT_BINARY_DIR}/TesselConfigVersion.cmake
   DESTINATION ${TESSEL_CONFIG_DIR} )
