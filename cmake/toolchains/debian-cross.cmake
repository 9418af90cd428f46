# SPDX-License-Identifier: Apache-2.0
# What the toolchain files for Debian's cross compilers share. They set SVCMGR_TRIPLET, the name of the
# libraries' folders; SVCMGR_COMPILER_PREFIX, if the compilers have another; and how programs run here: by
# qemu-SVCMGR_QEMU_NAME, or by this machine, which then loads them with SVCMGR_LOADER of the root below.
#
# SVCMGR_SYSROOT (CMake or environment) is the root of the machine for which is built: a device's, or one
# of Debian's packages as ./dev cross makes it. Without it, the compiler's own libraries are used.

set(CMAKE_SYSTEM_NAME Linux)
if(NOT SVCMGR_COMPILER_PREFIX)
  set(SVCMGR_COMPILER_PREFIX ${SVCMGR_TRIPLET})
endif()
foreach(language IN ITEMS C:gcc CXX:g++)
  string(REPLACE ":" ";" language ${language})
  list(POP_FRONT language variable)
  if(NOT DEFINED CMAKE_${variable}_COMPILER)
    set(CMAKE_${variable}_COMPILER ${SVCMGR_COMPILER_PREFIX}-${language})
  endif()
endforeach()

if(NOT SVCMGR_SYSROOT)
  set(SVCMGR_SYSROOT "$ENV{SVCMGR_SYSROOT}")
endif()
# CMake reads this file again for each of its trials of the compiler.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES SVCMGR_SYSROOT)
if(SVCMGR_SYSROOT)
  set(CMAKE_SYSROOT ${SVCMGR_SYSROOT})
  set(ENV{PKG_CONFIG_SYSROOT_DIR} ${SVCMGR_SYSROOT})
  set(ENV{PKG_CONFIG_LIBDIR}
    ${SVCMGR_SYSROOT}/usr/lib/${SVCMGR_TRIPLET}/pkgconfig:${SVCMGR_SYSROOT}/usr/lib/pkgconfig:${SVCMGR_SYSROOT}/usr/share/pkgconfig)
  set(ENV{PKG_CONFIG_PATH} "")
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# What was built runs here, too: with qemu-user, or as it is. Then the loader and the libraries are those
# of the root, also for libraries that others need, which an RPATH covers and a RUNPATH does not.
if(SVCMGR_QEMU_NAME)
  find_program(SVCMGR_QEMU qemu-${SVCMGR_QEMU_NAME})
  mark_as_advanced(SVCMGR_QEMU)
  if(SVCMGR_QEMU AND SVCMGR_SYSROOT)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${SVCMGR_QEMU} -L ${SVCMGR_SYSROOT})
  endif()
elseif(SVCMGR_SYSROOT)
  foreach(kind IN ITEMS EXE SHARED MODULE)
    set(CMAKE_${kind}_LINKER_FLAGS_INIT -Wl,--disable-new-dtags)
  endforeach()
  string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -Wl,--dynamic-linker=${SVCMGR_SYSROOT}/lib/${SVCMGR_LOADER}")
  foreach(folder IN ITEMS lib usr/lib)
    string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -Wl,-rpath,${SVCMGR_SYSROOT}/${folder}/${SVCMGR_TRIPLET}")
  endforeach()
endif()
