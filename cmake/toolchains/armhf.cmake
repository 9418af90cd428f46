# SPDX-License-Identifier: Apache-2.0
# 32-bit ARM with hardware floating point, by Debian's g++-arm-linux-gnueabihf.
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(SVCMGR_TRIPLET arm-linux-gnueabihf)
set(SVCMGR_QEMU_NAME arm)
# GCC tells of a change in its seventh version, in each file that has a vector.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
