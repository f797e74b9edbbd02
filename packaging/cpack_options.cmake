# Read by cpack once for each kind of package that it makes.

# Of the files and the packages around them, whatever the time is now.
set(ENV{SOURCE_DATE_EPOCH} ${CPACK_REPLAY_EPOCH})

# What package_source asks for. A folder holds more than its sources: what was built of them, say.
if(CPACK_GENERATOR STREQUAL "External")
  message(FATAL_ERROR "packaging/source_tarball makes the tarball of the sources")
endif()

if(CPACK_GENERATOR STREQUAL "DEB")
  # Without it cpack would make a package that depends on nothing.
  find_program(CPACK_REPLAY_SHLIBDEPS dpkg-shlibdeps)
  if(NOT CPACK_REPLAY_SHLIBDEPS)
    message(FATAL_ERROR "A Debian package takes dpkg-shlibdeps, which dpkg-dev has")
  endif()
  # Debian has places and files of its own; all others take what `cmake --install` installs.
  set(CPACK_INSTALL_CMAKE_PROJECTS
    "${CPACK_REPLAY_BUILD};replay_sender;Unspecified;/;${CPACK_REPLAY_BUILD};replay_sender;debian;/")
endif()
