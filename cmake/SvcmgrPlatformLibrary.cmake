# SPDX-License-Identifier: Apache-2.0

# svcmgr_platform_library(NAME
#   DESCRIPTION text
#   SOURCES file...
#   [LINK platform-library...]        other libraries of platform/, public: their headers are needed too
#   [PRIVATE target...])              what only the implementation needs
#
# Builds libNAME.so from SOURCES, with include/ beside them as its public headers, and installs the
# library, the headers under include/NAME/ and NAME.pc.
function(svcmgr_platform_library name)
  cmake_parse_arguments(arg "" "DESCRIPTION" "SOURCES;LINK;PRIVATE" ${ARGN})
  # Only the file has the plain name: that of a target may be another project's.
  set(target svcmgr_${name})
  add_library(${target} SHARED ${arg_SOURCES})
  add_library(velmora-svcmgr::${name} ALIAS ${target})
  target_include_directories(${target}
    PUBLIC $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
    PRIVATE ${CMAKE_CURRENT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/platform/common)
  list(TRANSFORM arg_LINK PREPEND velmora-svcmgr:: OUTPUT_VARIABLE others)
  target_link_libraries(${target} PUBLIC ${others} PRIVATE svcmgr_base ${arg_PRIVATE})
  set_target_properties(${target} PROPERTIES OUTPUT_NAME ${name} VERSION 1.0.0 SOVERSION 1
    LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib INSTALL_RPATH "$ORIGIN")

  if(SVCMGR_COVERAGE)
    target_compile_options(${target} PRIVATE --coverage)
    target_link_options(${target} PRIVATE --coverage)
  endif()

  set(PC_NAME ${name})
  set(PC_DESCRIPTION "${arg_DESCRIPTION}")
  list(JOIN arg_LINK " " PC_REQUIRES)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/platform.pc.in ${name}.pc @ONLY)
  svcmgr_install(TARGETS ${target}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT platform NAMELINK_COMPONENT platform-development)
  svcmgr_install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${name}
    COMPONENT platform-development)
  svcmgr_install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT platform-development)
endfunction()
