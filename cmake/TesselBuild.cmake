# SPDX-License-Identifier: Apache-2.0
# How every target of the project is compiled.

function( tessel_compile_options target )
   target_compile_options( ${target} PRIVATE
      # Another compiler, which fuzzers may want, warns of other things.
      -Wall -Wextra -Wpedantic -Wconversion $<$<CXX_COMPILER_ID:GNU>:-Werror>
      # __FILE__ (in traces and contracts) and debug information name files from the root, so the
      # same sources give the same binary wherever they lie. A debugger started in the root finds
      # them. The later mapping is tried first.
      -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=
      -ffile-prefix-map=${PROJECT_BINARY_DIR}=. )
   set_target_properties( ${target} PROPERTIES CXX_EXTENSIONS OFF )
   if( TESSEL_SANITIZE )
      set( sanitizers -fsanitize=${TESSEL_SANITIZE} -fno-sanitize-recover=all )
      target_compile_options( ${target} PRIVATE ${sanitizers} )
      target_link_options( ${target} PRIVATE ${sanitizers} )
   endif()
   if( TESSEL_COVERAGE )
      # Atomic counts: several threads and processes run through the same lines.
      target_compile_options( ${target} PRIVATE --coverage -fprofile-update=atomic )
      target_link_options( ${target} PRIVATE --coverage )
   endif()
endfunction()

# For the tool: as the library, but with line numbers as its only debug information, and unoptimised
# where it is instrumented. Its big headers take twice as long otherwise.
function( tessel_tool_compile_options target )
   tessel_compile_options( ${target} )
   target_compile_options( ${target} PRIVATE $<$<CONFIG:Release>:-g1> )
   if( TESSEL_SANITIZE )
      target_compile_options( ${target} PRIVATE -O0 )
   endif()
endfunction()

# For the tests, which are more code than the library and compiled more often than run: not
# optimised (which also spares them what GCC 12 believes of inlined strings), and without the checks of
# UndefinedBehaviorSanitizer, which the library under test has.
function( tessel_test_compile_options target )
   tessel_tool_compile_options( ${target} )
   target_compile_options( ${target} PRIVATE $<$<CONFIG:Release>:-O0> )
   if( TESSEL_SANITIZE MATCHES "undefined" )
      target_compile_options( ${target} PRIVATE -fno-sanitize=undefined )
   endif()
endfunction()

# An installed `target`, which lies in `folder`, finds the library beside it, wherever both have been
# moved to. What a distribution installs, the system finds.
function( tessel_find_library_from target folder )
   if( NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr" )
      file( RELATIVE_PATH library ${folder} ${CMAKE_INSTALL_FULL_LIBDIR} )
      set_target_properties( ${target} PROPERTIES INSTALL_RPATH $ORIGIN/${library} )
   endif()
endfunction()

# Takes in `folder` where it is wanted and has sources.
function( tessel_subdirectory folder wanted )
   file( GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.cpp )
   if( NOT wanted )
      message( STATUS "${folder}: off" )
   elseif( NOT sources )
      message( STATUS "${folder}: no sources" )
   else()
      add_subdirectory( ${folder} )
   endif()
endfunction()
