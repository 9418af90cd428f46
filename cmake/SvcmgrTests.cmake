# SPDX-License-Identifier: Apache-2.0

include(GoogleTest)
find_package(GTest REQUIRED)

# What sanitized processes report with; a suppression file is never part of it.
set(SVCMGR_TEST_ENVIRONMENT
  "ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1"
  "UBSAN_OPTIONS=print_stacktrace=1"
  "TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1")

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
    PROPERTIES TIMEOUT ${arg_TIMEOUT} LABELS "${arg_LABELS}"
               ENVIRONMENT "${SVCMGR_TEST_ENVIRONMENT}")
endfunction()
