# SPDX-License-Identifier: Apache-2.0
# 64-bit z/Architecture, big-endian, by Debian's g++-s390x-linux-gnu.
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(SVCMGR_TRIPLET s390x-linux-gnu)
set(SVCMGR_QEMU_NAME s390x)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
