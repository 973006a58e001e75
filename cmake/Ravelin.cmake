# Helpers that give every component the same shape: one library target and one test binary.

# ravelin_library(NAME SOURCES ... DEPS ...)
# Builds a static library `NAME` whose headers are included from the repository root
# (`#include "platform/Regex.h"`).
function(ravelin_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;PRIVATE_DEPS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${ARG_DEPS} PRIVATE ${ARG_PRIVATE_DEPS} ravelin_warnings)
endfunction()

# ravelin_test(NAME SOURCES ... DEPS ...)
# Builds one GoogleTest binary for a component and registers its cases with CTest.
function(ravelin_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  if(NOT BUILD_TESTING)
    return()
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} ravelin_testsupport GTest::gtest GTest::gmock
                                        GTest::gtest_main ravelin_warnings)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endfunction()
