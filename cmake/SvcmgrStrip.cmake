# SPDX-License-Identifier: Apache-2.0
# What is installed stripped keeps its marker.
#
# LLVM's strip takes away all that is not loaded, unless it is told to keep it; CMake has no way to
# tell it, and calls it by its name alone.

if(CMAKE_STRIP)
  execute_process(COMMAND ${CMAKE_STRIP} --version OUTPUT_VARIABLE version ERROR_QUIET)
  if(version MATCHES LLVM)
    set(keeping_marker ${PROJECT_BINARY_DIR}/strip-keeping-marker)
    file(WRITE ${keeping_marker} "#!/bin/sh\nexec '${CMAKE_STRIP}' --keep-section=.kyr \"$@\"\n")
    file(CHMOD ${keeping_marker} PERMISSIONS
      OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
    set(CMAKE_STRIP ${keeping_marker})
  endif()
endif()
