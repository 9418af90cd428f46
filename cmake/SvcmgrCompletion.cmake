# SPDX-License-Identifier: Apache-2.0
set(SVCMGR_ZSH_COMPLETION_DIR ${CMAKE_INSTALL_DATADIR}/zsh/site-functions CACHE STRING
    "Folder of zsh's completion, below the prefix: some systems have one of their own for packages")

# svcmgr_install_completion(PROGRAM [FILES])
#
# Installs completion of a program's words for bash, zsh and fish, where those look for it. With FILES,
# names of files are completed where the program proposes nothing.
function(svcmgr_install_completion PROGRAM)
  string(MAKE_C_IDENTIFIER ${PROGRAM} FUNCTION)
  set(BASH_OPTIONS "")
  set(ZSH_OTHERWISE "return 1")
  set(FISH_OPTIONS "-f")
  if("FILES" IN_LIST ARGN)
    set(BASH_OPTIONS "-o default")
    set(ZSH_OTHERWISE "_files")
    set(FISH_OPTIONS "")
  endif()
  foreach(shell IN ITEMS bash zsh fish)
    configure_file(${PROJECT_SOURCE_DIR}/tools/completion/${shell}.in
                   ${PROJECT_BINARY_DIR}/completion/${shell}/${PROGRAM} @ONLY)
  endforeach()
  set(made ${PROJECT_BINARY_DIR}/completion)
  svcmgr_install(FILES ${made}/bash/${PROGRAM}
                 DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
  svcmgr_install(FILES ${made}/zsh/${PROGRAM} DESTINATION ${SVCMGR_ZSH_COMPLETION_DIR}
                 RENAME _${PROGRAM})
  svcmgr_install(FILES ${made}/fish/${PROGRAM} DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d
                 RENAME ${PROGRAM}.fish)
endfunction()
