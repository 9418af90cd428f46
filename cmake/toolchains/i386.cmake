# SPDX-License-Identifier: Apache-2.0
# 32-bit x86, by Debian's g++-i686-linux-gnu.
set(CMAKE_SYSTEM_PROCESSOR i686)
set(SVCMGR_TRIPLET i686-linux-gnu)
set(SVCMGR_MULTIARCH i386-linux-gnu)
set(SVCMGR_QEMU_NAME i386)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
