# SPDX-License-Identifier: Apache-2.0
# The platform as pkg-config finds it: a device's own libraries, or the installed desktop platform.

find_package(PkgConfig REQUIRED)
pkg_check_modules(SVCMGR_PLATFORM_LIBS REQUIRED IMPORTED_TARGET
  rpc-port bundle dlog capi-appfw-event capi-appfw-app-common capi-appfw-app-manager
  capi-appfw-package-manager)

add_library(svcmgr_platform_headers INTERFACE)
add_library(velmora-svcmgr::platform_headers ALIAS svcmgr_platform_headers)
target_include_directories(svcmgr_platform_headers INTERFACE ${SVCMGR_PLATFORM_LIBS_INCLUDE_DIRS})
add_library(svcmgr_platform INTERFACE)
add_library(velmora-svcmgr::platform ALIAS svcmgr_platform)
target_link_libraries(svcmgr_platform INTERFACE PkgConfig::SVCMGR_PLATFORM_LIBS)
