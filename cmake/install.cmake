# What `cmake --install` puts where: programs, manual pages, completions and documents. The pages
# are made by the build; where a tool for that is missing they are left out.
set(named_docdir "${CMAKE_INSTALL_DOCDIR}")
include(GNUInstallDirs)
if(NOT named_docdir)
  set(CMAKE_INSTALL_DOCDIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/replay-sender)
endif()

# The time that is written into what is built, so that two builds of one commit are the same: the
# environment's, else the commit's, else that of the files, which a source tarball keeps.
set(replay_epoch "$ENV{SOURCE_DATE_EPOCH}")
if(replay_epoch STREQUAL "" AND EXISTS ${PROJECT_SOURCE_DIR}/.git)
  # There may be no git, or nothing that it trusts.
  execute_process(COMMAND git log -1 --format=%ct
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    OUTPUT_VARIABLE replay_epoch OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  execute_process(COMMAND git rev-parse --git-path logs/HEAD
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    OUTPUT_VARIABLE git_log OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  # git writes there whenever another commit is checked out or made; a build then looks here anew,
  # and makes anew what the time is handed to.
  if(git_log)
    cmake_path(ABSOLUTE_PATH git_log BASE_DIRECTORY ${PROJECT_SOURCE_DIR})
    if(EXISTS ${git_log})
      set_property(DIRECTORY ${PROJECT_SOURCE_DIR}
        APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${git_log})
    endif()
  endif()
endif()
if(NOT replay_epoch MATCHES "^[0-9]+$")
  file(TIMESTAMP ${PROJECT_SOURCE_DIR}/CMakeLists.txt replay_epoch "%s" UTC)
endif()

set(programs replay_sender)
if(REPLAY_RECEIVER)
  list(APPEND programs replay_receiver)
endif()
install(TARGETS ${programs} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# Manual pages.
set(missing_tools "")
foreach(tool bash gzip scdoc)
  string(TOUPPER "REPLAY_${tool}" variable)
  find_program(${variable} ${tool})
  if(NOT ${variable})
    list(APPEND missing_tools ${tool})
  endif()
endforeach()

# A page of one language: its folder with a slash behind it and its name in groff, or "" twice.
function(replay_install_manual program folder language)
  set(source ${PROJECT_SOURCE_DIR}/docs/man/${folder}${program}.1.scd)
  set(render ${PROJECT_SOURCE_DIR}/docs/man/render)
  set(page ${PROJECT_BINARY_DIR}/man/${folder}man1/${program}.1)
  cmake_path(GET page PARENT_PATH page_folder)
  file(MAKE_DIRECTORY ${page_folder})
  add_custom_command(OUTPUT ${page}.gz
    COMMAND ${CMAKE_COMMAND} -E env SOURCE_DATE_EPOCH=${replay_epoch}
      ${REPLAY_BASH} ${render} ${language} < ${source} > ${page}
    COMMAND ${REPLAY_GZIP} -9nf ${page}
    DEPENDS ${source} ${render}
    VERBATIM)
  set_property(GLOBAL APPEND PROPERTY replay_manuals ${page}.gz)
  install(FILES ${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/${folder}man1)
endfunction()

if(missing_tools)
  list(JOIN missing_tools ", " missing_tools)
  message(STATUS "The manual pages are left out; to make them takes ${missing_tools}")
else()
  foreach(program ${programs})
    replay_install_manual(${program} "" "")
    replay_install_manual(${program} zh_CN/ zh)
  endforeach()
  get_property(pages GLOBAL PROPERTY replay_manuals)
  add_custom_target(manuals ALL DEPENDS ${pages})
endif()

# Completions. zsh looks in a folder of its own below each prefix; the packages of Debian have
# another one.
set(completions ${PROJECT_SOURCE_DIR}/packaging/completions)
set(zsh_site ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
set(zsh_debian ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
foreach(program ${programs})
  install(FILES ${completions}/${program}.bash RENAME ${program}
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
  install(FILES ${completions}/${program}.fish
    DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
  install(FILES ${completions}/_${program} DESTINATION ${zsh_site} COMPONENT outside_debian)
  install(FILES ${completions}/_${program} DESTINATION ${zsh_debian}
    COMPONENT debian EXCLUDE_FROM_ALL)
endforeach()

# Documents, in the folders that their links expect.
file(GLOB documents CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/docs/*.md ${PROJECT_SOURCE_DIR}/docs/*.png)
install(FILES README.md README.zh-CN.md CHANGELOG.md CONTRIBUTING.md SECURITY.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES ${documents} DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs)
foreach(results two-processors soak)
  file(GLOB charts CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/bench/results/${results}/*.svg)
  install(FILES ${charts} DESTINATION ${CMAKE_INSTALL_DOCDIR}/bench/results/${results})
endforeach()
