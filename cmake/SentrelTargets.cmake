# Settings of all targets: warnings, sanitizers, and the place in the stage folder. The stage folder is a
# complete installation and runs from any path.
include(GNUInstallDirs)

set(SENTREL_STAGE ${CMAKE_BINARY_DIR}/stage)

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE_PROGRAM})
endif()

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Werror)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_BUILD_WITH_INSTALL_RPATH ON)

if(SENTREL_SANITIZE)
  # With sanitizers g++ 12 warns wrongly of uninitialised members in the standard library. Their reports
  # need line tables only, which compile a fifth faster than full debug information.
  add_compile_options(-fsanitize=${SENTREL_SANITIZE} -fno-sanitize-recover=all
                      -fno-omit-frame-pointer -O1 -g1 -Wno-maybe-uninitialized)
  add_link_options(-fsanitize=${SENTREL_SANITIZE})
endif()

# sentrel_library(NAME SOURCES...): a shared library of the agent, in stage/lib.
function(sentrel_library name)
  add_library(${name} SHARED ${ARGN})
  set_target_properties(${name} PROPERTIES
    LIBRARY_OUTPUT_DIRECTORY ${SENTREL_STAGE}/lib
    INSTALL_RPATH "$ORIGIN")
endfunction()

# sentrel_module(NAME SOURCES...): a module that the framework loads, in stage/module.
function(sentrel_module name)
  add_library(${name} SHARED ${ARGN})
  set_target_properties(${name} PROPERTIES
    LIBRARY_OUTPUT_DIRECTORY ${SENTREL_STAGE}/module
    INSTALL_RPATH "$ORIGIN:$ORIGIN/../lib")
endfunction()

# sentrel_program(NAME SOURCES...): an executable of the agent, in stage/bin.
function(sentrel_program name)
  add_executable(${name} ${ARGN})
  set_target_properties(${name} PROPERTIES
    RUNTIME_OUTPUT_DIRECTORY ${SENTREL_STAGE}/bin
    INSTALL_RPATH "$ORIGIN/../lib")
endfunction()

# sentrel_test(NAME SOURCES...): a GoogleTest program; each test case runs in its own process.
function(sentrel_test name)
  add_executable(${name} ${ARGN})
  set_target_properties(${name} PROPERTIES
    RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests
    INSTALL_RPATH "${SENTREL_STAGE}/lib;${SENTREL_STAGE}/module")
  target_link_libraries(${name} PRIVATE test_support GTest::gtest GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 120)
endfunction()
