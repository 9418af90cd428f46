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
  add_library(${name} SHARED ${arg_SOURCES})
  target_include_directories(${name}
    PUBLIC $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
    PRIVATE ${CMAKE_CURRENT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/platform/common)
  target_link_libraries(${name} PUBLIC ${arg_LINK} PRIVATE svcmgr_base ${arg_PRIVATE})
  set_target_properties(${name} PROPERTIES VERSION 1.0.0 SOVERSION 1
    LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib INSTALL_RPATH "$ORIGIN")

  set(PC_NAME ${name})
  set(PC_DESCRIPTION "${arg_DESCRIPTION}")
  list(JOIN arg_LINK " " PC_REQUIRES)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/platform.pc.in ${name}.pc @ONLY)
  install(TARGETS ${name} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT platform)
  install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${name} COMPONENT platform)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT platform)
endfunction()
