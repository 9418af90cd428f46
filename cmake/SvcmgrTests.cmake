# SPDX-License-Identifier: Apache-2.0

include(GoogleTest)
find_package(GTest REQUIRED)

# Most of what a test costs to compile is GoogleMock's header. ccache does not keep what was compiled
# with a precompiled one. It is made for a program, because programs are compiled otherwise than
# libraries are, and with -pthread, as all tests: what they link may ask for that, as GLib does.
if(NOT CMAKE_CXX_COMPILER_LAUNCHER AND NOT TARGET svcmgr_gtest_precompiled)
  file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/precompiled.cc "int main() {}\n")
  add_executable(svcmgr_gtest_precompiled ${CMAKE_CURRENT_BINARY_DIR}/precompiled.cc)
  target_link_libraries(svcmgr_gtest_precompiled PRIVATE GTest::gmock)
  target_compile_options(svcmgr_gtest_precompiled PRIVATE -pthread)
  svcmgr_without_pointer_checks(svcmgr_gtest_precompiled)
  target_precompile_headers(svcmgr_gtest_precompiled
    PRIVATE "$<$<COMPILE_LANGUAGE:CXX>:<gmock/gmock.h$<ANGLE-R>>")
endif()

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
  if(CMAKE_CROSSCOMPILING_EMULATOR)
    math(EXPR arg_TIMEOUT "${arg_TIMEOUT} * 10")
  endif()
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE ${arg_LINK} svcmgr_base GTest::gmock)
  if(NOT arg_NO_MAIN)
    target_link_libraries(${name} PRIVATE GTest::gmock_main)
  endif()
  target_compile_options(${name} PRIVATE -pthread)
  svcmgr_without_pointer_checks(${name})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  if(TARGET svcmgr_gtest_precompiled)
    target_precompile_headers(${name} REUSE_FROM svcmgr_gtest_precompiled)
  endif()
  gtest_discover_tests(${name}
    TEST_PREFIX "${name}."
    NO_PRETTY_VALUES
    DISCOVERY_TIMEOUT 120
    PROPERTIES TIMEOUT ${arg_TIMEOUT} LABELS "${arg_LABELS}")
endfunction()
