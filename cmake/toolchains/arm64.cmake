# SPDX-License-Identifier: Apache-2.0
# 64-bit ARM, by Debian's g++-aarch64-linux-gnu.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(SVCMGR_TRIPLET aarch64-linux-gnu)
set(SVCMGR_QEMU_NAME aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
