# SPDX-License-Identifier: Apache-2.0
# Installs BUILD into a folder of its own, moves it, and builds and runs the project in CONSUMER
# against it: the installed files must not depend on where they were built or first put.

set( scratch ${BUILD}/install-check )
file( REMOVE_RECURSE ${scratch} )
execute_process( COMMAND ${CMAKE_COMMAND} --install ${BUILD} --prefix ${scratch}/first
   OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY )
file( RENAME ${scratch}/first ${scratch}/moved )
execute_process( COMMAND ${CMAKE_CTEST_COMMAND}
   --build-and-test ${CONSUMER} ${scratch}/build --build-generator Ninja
   --build-options -DCMAKE_CXX_COMPILER=${COMPILER} -DCMAKE_PREFIX_PATH=${scratch}/moved
      -DTESSEL_VERSION=${VERSION}
   --test-command consumer
   COMMAND_ERROR_IS_FATAL ANY )
if( EXISTS ${scratch}/moved/lib/python3/dist-packages/tessel )
   execute_process( COMMAND ${CMAKE_COMMAND} -E env
      PYTHONPATH=${scratch}/moved/lib/python3/dist-packages /usr/bin/python3 -c "import tessel"
      COMMAND_ERROR_IS_FATAL ANY )
endif()
if( EXISTS ${scratch}/moved/bin/tessel )
   execute_process( COMMAND ${scratch}/moved/bin/tessel --help
      OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY )
   foreach( file IN ITEMS man/man1/tessel.1 man/man5/tessel-plan.5 man/man5/tessel-chunk.5
         bash-completion/completions/tessel )
      if( NOT EXISTS ${scratch}/moved/share/${file} )
         message( FATAL_ERROR "share/${file} is not installed" )
      endif()
   endforeach()
endif()
