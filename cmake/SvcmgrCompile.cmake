# SPDX-License-Identifier: Apache-2.0
# What every target of this tree is compiled with.

set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_C_EXTENSIONS OFF)
# The library, and what stands for its users, set an older one.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)

if(NOT CMAKE_CXX_COMPILER_LAUNCHER)
  find_program(SVCMGR_CCACHE ccache)
  mark_as_advanced(SVCMGR_CCACHE)
  if(SVCMGR_CCACHE)
    set(CMAKE_C_COMPILER_LAUNCHER ${SVCMGR_CCACHE})
    set(CMAKE_CXX_COMPILER_LAUNCHER ${SVCMGR_CCACHE})
  endif()
endif()

add_compile_options(
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wformat=2
  # Log records and binaries must not depend on where the tree lies.
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=
  -D_FILE_OFFSET_BITS=64)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # In optimised C++20 it sees overlaps in std::string where there are none.
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wno-restrict>)
endif()
# Another compiler warns of other things; that must not stop the build of one who only wants to use
# what is built.
set(SVCMGR_KNOWN_COMPILERS "GNU 12" "GNU 14" "Clang 14" "Clang 19")
set(SVCMGR_COMPILER_IS_KNOWN ON)
foreach(language IN ITEMS C CXX)
  string(REGEX MATCH "^[0-9]+" major "${CMAKE_${language}_COMPILER_VERSION}")
  if(NOT "${CMAKE_${language}_COMPILER_ID} ${major}" IN_LIST SVCMGR_KNOWN_COMPILERS)
    set(SVCMGR_COMPILER_IS_KNOWN OFF)
  endif()
endforeach()
if(SVCMGR_WERROR STREQUAL "KNOWN")
  set(warnings_are_errors ${SVCMGR_COMPILER_IS_KNOWN})
else()
  set(warnings_are_errors ${SVCMGR_WERROR})
endif()
if(warnings_are_errors)
  add_compile_options(-Werror)
endif()
if(SVCMGR_SANITIZE)
  add_compile_options(-fsanitize=${SVCMGR_SANITIZE} -fno-sanitize-recover=all
                      -fno-omit-frame-pointer -g1)
  add_link_options(-fsanitize=${SVCMGR_SANITIZE} -fno-sanitize-recover=all)
  if(SVCMGR_SANITIZE MATCHES address AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang"
     AND NOT SVCMGR_FUZZERS)
    # From a library of its own the runtime's operator new can be called by one that replaces it.
    # The folder that clang names need not be there; the other one is then where the runtime lies.
    foreach(folder IN ITEMS runtime resource)
      execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-${folder}-dir
        OUTPUT_VARIABLE ${folder} OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    endforeach()
    add_link_options(-shared-libasan -Wl,-rpath,${runtime} -Wl,-rpath,${resource}/lib/linux)
  endif()
endif()
if(SVCMGR_FUZZERS)
  # The fuzzers are guided by what runs in every library.
  add_compile_options(-fsanitize=fuzzer-no-link)
  add_link_options(-fsanitize=fuzzer-no-link)
endif()

# clang-tidy reads each file that is compiled; what ninja knows to be unchanged, it does not read again.
option(SVCMGR_TIDY "Let clang-tidy read what is compiled" OFF)
mark_as_advanced(SVCMGR_TIDY)
if(SVCMGR_TIDY)
  find_program(SVCMGR_CLANG_TIDY clang-tidy-19 REQUIRED)  # each version sees other things
  # Other checks are another command, so that every file is read again.
  file(SHA256 ${PROJECT_SOURCE_DIR}/.clang-tidy checks)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/.clang-tidy)
  set(CMAKE_CXX_CLANG_TIDY ${SVCMGR_CLANG_TIDY} --quiet --extra-arg=-DSVCMGR_CHECKS_${checks})
  set(CMAKE_C_CLANG_TIDY ${CMAKE_CXX_CLANG_TIDY})
endif()

# svcmgr_tidy_tests([CHECK...])
#
# Reads the targets of the calling folder, and of those below it, as tests, without each CHECK and
# without these:
#   - The analyzer does not follow calls: through GoogleTest's macros it would for minutes in each file.
#   - suspicious-missing-comma takes a script of several lines, among a command's arguments, for two.
#   - performance-inefficient-*: a test saves no allocations.
#   - Stream, StdCLibraryFunctions: a helper that exits at once closes nothing, and what a test cannot
#     open lets it fail.
#   - EnumCastOutOfRange does not know an enumeration of flags.
#   - NonNullParamChecker, StringChecker: a test has set the variables of the environment that it reads.
macro(svcmgr_tidy_tests)
  if(SVCMGR_TIDY)
    set(checks_off
        bugprone-suspicious-missing-comma performance-inefficient-* clang-analyzer-unix.Stream
        clang-analyzer-unix.StdCLibraryFunctions clang-analyzer-optin.core.EnumCastOutOfRange
        clang-analyzer-core.NonNullParamChecker clang-analyzer-cplusplus.StringChecker ${ARGN})
    list(JOIN checks_off ",-" checks_off)
    list(APPEND CMAKE_CXX_CLANG_TIDY --checks=-${checks_off}
         --extra-arg=-Xclang --extra-arg=-analyzer-config --extra-arg=-Xclang --extra-arg=mode=shallow)
  endif()
endmacro()

# svcmgr_compile_together(TARGET FILES)
#
# Most of what a small source costs to compile are the headers it includes and what their templates
# become. FILES of a target's sources at a time are compiled as one, unless a launcher such as ccache
# remembers them one by one, or clang-tidy reads them so.
function(svcmgr_compile_together target files)
  if(NOT CMAKE_CXX_COMPILER_LAUNCHER AND NOT SVCMGR_TIDY)
    set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE ${files})
  endif()
endfunction()

# svcmgr_wrap(TARGET PRIVATE|PUBLIC|INTERFACE FUNCTION...)
#
# Whoever calls one of the functions in what is linked calls __wrap_FUNCTION, which finds the function
# itself as __real_FUNCTION.
function(svcmgr_wrap target scope)
  list(TRANSFORM ARGN PREPEND LINKER:--wrap= OUTPUT_VARIABLE options)
  if("pread64" IN_LIST ARGN)
    # What it is called where _FORTIFY_SOURCE checks the size of its buffer.
    list(APPEND options LINKER:--wrap=__pread64_chk,--defsym=__wrap___pread64_chk=__wrap_pread64)
  endif()
  target_link_options(${target} ${scope} ${options})
endfunction()

# svcmgr_without_pointer_checks(TARGET...)
#
# UndefinedBehaviorSanitizer's checks of each pointer take longer to compile into the templates of
# GoogleTest, CLI11 and nlohmann-json than all else; AddressSanitizer looks at the same accesses.
# The library and the platform have them all, and so has whatever is fuzzed.
function(svcmgr_without_pointer_checks)
  if(SVCMGR_SANITIZE MATCHES undefined AND NOT SVCMGR_FUZZERS)
    foreach(target IN LISTS ARGN)
      target_compile_options(${target} PRIVATE -fno-sanitize=null,alignment,object-size,vptr)
    endforeach()
  endif()
endfunction()
