# SPDX-License-Identifier: Apache-2.0
# Tests of applications beside the simulated agent, for CTest.

if(NOT TARGET velmora-svcmgr::svcmgr-sim)
  include(${CMAKE_CURRENT_LIST_DIR}/velmora-svcmgr-sim-targets.cmake)
endif()

# svcmgr_sim_test(NAME name SCENARIO scenario COMMAND command [argument...]
#   [EXPECT condition...]       what the world's trace must show when the command has succeeded
#   [TIMEOUT seconds]           after which CTest ends the test; 60
#   [TIME_SCALE number]         what the scenario's delays are multiplied by
#   [APP_ID id] [APP_VERSION version] [APP_ROOT folder]
#   [WORKING_DIRECTORY folder] [ENVIRONMENT variable=value...] [LABELS label...])
#
# Adds a test that runs a command in a world of its own: `svcmgr-sim run SCENARIO -- COMMAND`. It passes if the command
# ends with 0 and the conditions, which are those of `svcmgr-sim expect`, come true one after the other. The trace is
# shown with the test's output, which CTest prints if it fails. A scenario is the name of one that ships, or a file (with a
# slash, or ending in .json), relative to the current source folder; the command may be the name of an executable target.
# A script that the command runs finds svcmgr-sim at the end of its PATH (CMake 3.22 and later), for `svcmgr-sim send` and
# `expect`. Such tests may run side by side (ctest -j).
function(svcmgr_sim_test)
  set(single NAME SCENARIO TIMEOUT TIME_SCALE APP_ID APP_VERSION APP_ROOT WORKING_DIRECTORY)
  set(multiple COMMAND EXPECT ENVIRONMENT LABELS)
  cmake_parse_arguments(PARSE_ARGV 0 arg "" "${single}" "${multiple}")
  foreach(needed IN ITEMS NAME SCENARIO COMMAND)
    if(NOT DEFINED arg_${needed})
      message(FATAL_ERROR "svcmgr_sim_test: ${needed} is missing")
    endif()
  endforeach()
  if(DEFINED arg_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "svcmgr_sim_test(${arg_NAME}): unknown: ${arg_UNPARSED_ARGUMENTS}")
  endif()
  if(NOT DEFINED arg_TIMEOUT)
    set(arg_TIMEOUT 60)
  endif()

  if(arg_SCENARIO MATCHES "/|[.]json$")
    cmake_path(ABSOLUTE_PATH arg_SCENARIO BASE_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR})
  endif()
  list(POP_FRONT arg_COMMAND program)
  if(TARGET ${program})
    set(program $<TARGET_FILE:${program}>)
  endif()
  set(options --trace -)
  foreach(option IN ITEMS TIME_SCALE APP_ID APP_VERSION APP_ROOT)
    if(DEFINED arg_${option})
      string(TOLOWER ${option} word)
      string(REPLACE _ - word ${word})
      list(APPEND options --${word}=${arg_${option}})
    endif()
  endforeach()
  set(folder)
  if(DEFINED arg_WORKING_DIRECTORY)
    set(folder WORKING_DIRECTORY ${arg_WORKING_DIRECTORY})
  endif()

  set(sim $<TARGET_FILE:velmora-svcmgr::svcmgr-sim>)
  set(command "${program}" ${arg_COMMAND})
  if(DEFINED arg_EXPECT)
    list(TRANSFORM arg_EXPECT REPLACE "'" "'\\\\''")
    list(JOIN arg_EXPECT "' '" conditions)
    set(command sh -c "\"$@\" && exec \"$0\" expect '${conditions}'" ${sim} ${command})
  endif()
  add_test(NAME ${arg_NAME}
    COMMAND ${sim} run ${arg_SCENARIO} ${options} -- ${command}
    ${folder} COMMAND_EXPAND_LISTS)
  set_tests_properties(${arg_NAME} PROPERTIES
    TIMEOUT ${arg_TIMEOUT} ENVIRONMENT "${arg_ENVIRONMENT}" LABELS "${arg_LABELS}"
    ENVIRONMENT_MODIFICATION "PATH=path_list_append:$<TARGET_FILE_DIR:velmora-svcmgr::svcmgr-sim>")
endfunction()
