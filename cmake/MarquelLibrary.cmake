# Helpers that keep the layering rule in one place.
#
# marquel_library(<layer> SOURCES ... DEPS ...)
#   Makes the target marquel_<layer> (alias marquel::<layer>). Only <layer>/include is
#   public, and DEPS (the layers below) are the only other headers it can see, so an
#   include of a higher layer fails to compile. A layer without sources yet is an
#   INTERFACE library that already carries its include folder and its link rule.
function(marquel_library layer)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;PRIVATE_DEPS" ${ARGN})
  set(target marquel_${layer})
  if(ARG_SOURCES)
    add_library(${target} STATIC ${ARG_SOURCES})
    target_include_directories(${target}
      PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/include
      PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
    target_link_libraries(${target} PUBLIC ${ARG_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
  else()
    add_library(${target} INTERFACE)
    target_include_directories(${target} INTERFACE ${CMAKE_CURRENT_SOURCE_DIR}/include)
    target_link_libraries(${target} INTERFACE ${ARG_DEPS})
  endif()
  add_library(marquel::${layer} ALIAS ${target})
endfunction()

# marquel_tests(<name> SOURCES ... DEPS ... [PRIVATE_INCLUDE])
#   A GoogleTest executable <name> whose tests each run in a fresh home (see
#   tests/support). Tests sit beside the code they test.
function(marquel_tests name)
  if(NOT MARQUEL_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;DEPS;LABELS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} marquel_testsupport GTest::gtest GTest::gmock)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  gtest_discover_tests(${name}
    DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS "${ARG_LABELS}")
endfunction()

# marquel_layer(<layer> DEPS ... [PRIVATE_DEPS ...] [TEST_DEPS ...])
#   The usual layer: every *.cc of the folder but the tests is the library, and every
#   *_test.cc beside them goes into the test executable <layer>_tests.
function(marquel_layer layer)
  cmake_parse_arguments(ARG "" "TIMEOUT" "DEPS;PRIVATE_DEPS;TEST_DEPS" ${ARGN})
  file(GLOB all_sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cc)
  set(sources)
  set(tests)
  foreach(f IN LISTS all_sources)
    if(f MATCHES "_test\\.cc$")
      list(APPEND tests ${f})
    else()
      list(APPEND sources ${f})
    endif()
  endforeach()
  marquel_library(${layer} SOURCES ${sources} DEPS ${ARG_DEPS} PRIVATE_DEPS ${ARG_PRIVATE_DEPS})
  if(tests)
    marquel_tests(${layer}_tests SOURCES ${tests} DEPS marquel_${layer} ${ARG_TEST_DEPS}
      TIMEOUT ${ARG_TIMEOUT})
  endif()
endfunction()
