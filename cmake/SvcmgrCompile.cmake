# SPDX-License-Identifier: Apache-2.0
# What every target of this tree is compiled with.

set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_CXX_STANDARD 17)
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
  -ffile-prefix-map=${CMAKE_SOURCE_DIR}/=
  -D_FILE_OFFSET_BITS=64)
if(SVCMGR_WERROR)
  add_compile_options(-Werror)
endif()
if(SVCMGR_SANITIZE)
  add_compile_options(-fsanitize=${SVCMGR_SANITIZE} -fno-sanitize-recover=all
                      -fno-omit-frame-pointer -g1)
  add_link_options(-fsanitize=${SVCMGR_SANITIZE} -fno-sanitize-recover=all)
endif()
if(SVCMGR_FUZZERS)
  # The fuzzers are guided by what runs in every library.
  add_compile_options(-fsanitize=fuzzer-no-link)
  add_link_options(-fsanitize=fuzzer-no-link)
endif()
