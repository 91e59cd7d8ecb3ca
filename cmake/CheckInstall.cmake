# SPDX-License-Identifier: Apache-2.0
# Installs BUILD into a folder of its own, moves it, and uses what lies there as others do: installed
# files must not depend on where they were built or first put. CONSUMER holds a program and a project
# for each way to take the library.

set( scratch ${BUILD}/install-check )
set( there ${scratch}/moved )
file( REMOVE_RECURSE ${scratch} )
execute_process( COMMAND ${CMAKE_COMMAND} --install ${BUILD} --prefix ${scratch}/first
   OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY )
file( RENAME ${scratch}/first ${there} )

function( run )
   execute_process( COMMAND ${CMAKE_COMMAND} -E env ${ARGN}
      WORKING_DIRECTORY ${scratch} OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY )
endfunction()

# Configures the project in `way`, with further options, and builds `target`.
function( build way target )
   run( ${CMAKE_COMMAND} -S ${CONSUMER}/${way} -B ${scratch}/${way} -G Ninja
      -DCMAKE_CXX_COMPILER=${COMPILER} -DCMAKE_PREFIX_PATH=${there} ${ARGN} )
   run( ${CMAKE_COMMAND} --build ${scratch}/${way} --target ${target} )
endfunction()

build( find-package consumer -DTESSEL_VERSION=${VERSION} )
run( ${scratch}/find-package/consumer )

# As sources: the program alone, without the minutes that the library takes.
build( add-subdirectory CMakeFiles/consumer.dir/${CONSUMER}/main.cpp.o )

run( PKG_CONFIG_PATH=${there}/lib/pkgconfig CXX=${COMPILER} ${CONSUMER}/pkg-config/build.sh )
run( LD_LIBRARY_PATH=${there}/lib ${scratch}/consumer )

if( EXISTS ${there}/lib/python3/dist-packages/tessel )
   run( PYTHONPATH=${there}/lib/python3/dist-packages /usr/bin/python3 -c "import tessel" )
endif()
if( EXISTS ${there}/bin/tessel )
   run( ${there}/bin/tessel --help )
   foreach( file IN ITEMS man/man1/tessel.1 man/man5/tessel-plan.5 man/man5/tessel-chunk.5
         bash-completion/completions/tessel )
      if( NOT EXISTS ${there}/share/${file} )
         message( FATAL_ERROR "share/${file} is not installed" )
      endif()
   endforeach()
endif()

# What lies in no component is in no package.
foreach( component IN ITEMS runtime development tools python )
   run( ${CMAKE_COMMAND} --install ${BUILD} --component ${component} --prefix ${scratch}/packaged )
endforeach()
file( GLOB_RECURSE all RELATIVE ${there} ${there}/* )
foreach( file IN LISTS all )
   if( NOT file MATCHES "__pycache__" AND NOT EXISTS ${scratch}/packaged/${file} )
      message( SEND_ERROR "${file} is installed, but by a rule without a component: in no package" )
   endif()
endforeach()
