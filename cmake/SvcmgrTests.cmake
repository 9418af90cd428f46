# SPDX-License-Identifier: Apache-2.0

include(GoogleTest)
find_package(GTest REQUIRED)

# svcmgr_gtest(NAME
#   SOURCES file... [LINK target...] [LABELS label...] [TIMEOUT seconds] [NO_MAIN])
#
# Builds a GoogleTest program and registers each of its test cases as a CTest test of its own: one
# process per test case, because the library has process-wide state.
function(svcmgr_gtest name)
  cmake_parse_arguments(arg "NO_MAIN" "TIMEOUT" "SOURCES;LINK;LABELS" ${ARGN})
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 120)
  endif()
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE ${arg_LINK} GTest::gmock)
  if(NOT arg_NO_MAIN)
    target_link_libraries(${name} PRIVATE GTest::gmock_main)
  endif()
  gtest_discover_tests(${name}
    TEST_PREFIX "${name}."
    NO_PRETTY_VALUES
    DISCOVERY_TIMEOUT 120
    PROPERTIES TIMEOUT ${arg_TIMEOUT} LABELS "${arg_LABELS}")
endfunction()
