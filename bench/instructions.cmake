# SPDX-License-Identifier: Apache-2.0
# Instructions of each exported function: counted in a library that is optimised whatever the rest of
# this build is, and held against the figures of instructions.txt. Nothing of it is built by default.

include(CheckIncludeFileCXX)
check_include_file_cxx(valgrind/callgrind.h SVCMGR_HAS_CALLGRIND)
if(NOT SVCMGR_HAS_CALLGRIND OR CMAKE_CROSSCOMPILING)
  return()
endif()

get_target_property(sources svcmgr_objects SOURCES)
list(TRANSFORM sources PREPEND ${PROJECT_SOURCE_DIR}/src/)
add_library(counted_library SHARED EXCLUDE_FROM_ALL ${sources})
target_include_directories(counted_library PRIVATE
  $<TARGET_PROPERTY:svcmgr_objects,INTERFACE_INCLUDE_DIRECTORIES>)
target_compile_definitions(counted_library PRIVATE
  $<TARGET_PROPERTY:svcmgr_objects,INTERFACE_COMPILE_DEFINITIONS>)
target_compile_options(counted_library PRIVATE -O3 -DNDEBUG)
target_link_libraries(counted_library PRIVATE svcmgr_platform)
target_link_options(counted_library PRIVATE $<TARGET_PROPERTY:velmora-svcmgr,LINK_OPTIONS>)
set_target_properties(counted_library PROPERTIES CXX_STANDARD 17)

add_executable(instruction_runs EXCLUDE_FROM_ALL
  instruction_runs.cc exported_calls.cc bench_world.cc messages.cc models.cc servers.cc)
target_include_directories(instruction_runs PRIVATE
  ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/tests)
target_compile_definitions(instruction_runs PRIVATE
  $<TARGET_PROPERTY:svcmgr_objects,INTERFACE_COMPILE_DEFINITIONS>)
target_link_libraries(instruction_runs PRIVATE
  counted_library svcmgr_platform svcmgr_base PkgConfig::GLIB)
set_target_properties(instruction_runs PROPERTIES
  RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})

string(REGEX MATCH "^[0-9]+" major "${CMAKE_CXX_COMPILER_VERSION}")
set(count_instructions ${Python3_EXECUTABLE} -B ${CMAKE_CURRENT_SOURCE_DIR}/instructions.py
  $<TARGET_FILE:instruction_runs> $<TARGET_FILE_NAME:counted_library>
  "${CMAKE_CXX_COMPILER_ID} ${major} for ${CMAKE_SYSTEM_PROCESSOR}"
  ${CMAKE_CURRENT_SOURCE_DIR}/instructions.txt)
add_custom_target(write_instructions COMMAND ${count_instructions} --write
  DEPENDS instruction_runs VERBATIM)
add_test(NAME instructions.AreBuilt CONFIGURATIONS extra
  COMMAND ${CMAKE_COMMAND} --build ${PROJECT_BINARY_DIR} --target instruction_runs)
add_test(NAME instructions.OfEachExportedFunctionAreThoseOfItsFigure CONFIGURATIONS extra
  COMMAND ${count_instructions})
set_tests_properties(instructions.AreBuilt PROPERTIES
  FIXTURES_SETUP counted_library TIMEOUT 1200 LABELS extra RUN_SERIAL TRUE)
set_tests_properties(instructions.OfEachExportedFunctionAreThoseOfItsFigure PROPERTIES
  FIXTURES_REQUIRED counted_library TIMEOUT 600 LABELS extra SKIP_RETURN_CODE 77)
