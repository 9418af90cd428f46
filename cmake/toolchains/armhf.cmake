# SPDX-License-Identifier: Apache-2.0
# 32-bit ARM with hardware floating point, by Debian's g++-arm-linux-gnueabihf.
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(SVCMGR_TRIPLET arm-linux-gnueabihf)
set(SVCMGR_QEMU_NAME arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
