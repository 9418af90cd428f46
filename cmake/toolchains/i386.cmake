# SPDX-License-Identifier: Apache-2.0
# 32-bit x86, by Debian's g++-i686-linux-gnu. Machines of 64-bit x86 run it as it is.
set(CMAKE_SYSTEM_PROCESSOR i686)
set(SVCMGR_TRIPLET i386-linux-gnu)
set(SVCMGR_COMPILER_PREFIX i686-linux-gnu)
set(SVCMGR_LOADER ld-linux.so.2)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
