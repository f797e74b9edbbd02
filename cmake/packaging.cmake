# The packages: `cpack -G DEB` and `cpack -G RPM` in the folder of a build. What cpack reads while
# it makes them is in packaging/, where source_tarball makes the tarball.
set(CPACK_GENERATOR DEB)
set(CPACK_SOURCE_GENERATOR External) # packaging/cpack_options.cmake says why.
set(CPACK_PACKAGE_NAME replay-sender)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "The authors of replay sender")
set(CPACK_PACKAGE_CONTACT "${CPACK_PACKAGE_VENDOR} <replay-sender@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "replay recorded market data over TCP or UDP")
set(CPACK_PACKAGE_DESCRIPTION
"replay_sender sends what was recorded once more, to one receiver: the same
bytes, in the same order, at the rate that is asked for. A recording is a
data file, or a capture of which the payloads are sent.

replay_receiver takes the same options, receives, compares every byte with
the recording, and measures the rate and the gaps.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_SOURCE_DIR}/packaging/cpack_options.cmake)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/cpack_staged.cmake)
set(CPACK_REPLAY_EPOCH ${replay_epoch})
set(CPACK_REPLAY_BUILD ${PROJECT_BINARY_DIR})

# Debian. No revision: nobody packages it but the project itself.
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)

if(REPLAY_GZIP)
  # TIMESTAMP looks at it. So would the next configuring by the same cmake.
  set(environments_epoch "$ENV{SOURCE_DATE_EPOCH}")
  set(ENV{SOURCE_DATE_EPOCH} ${replay_epoch})
  string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
  set(ENV{SOURCE_DATE_EPOCH} "${environments_epoch}")
  set(changelog ${PROJECT_BINARY_DIR}/debian/changelog)
  configure_file(packaging/debian/changelog.in ${changelog} @ONLY)
  add_custom_command(OUTPUT ${changelog}.gz
    COMMAND ${REPLAY_GZIP} -9nc ${changelog} > ${changelog}.gz
    DEPENDS ${changelog}
    VERBATIM)
  add_custom_target(debian_changelog ALL DEPENDS ${changelog}.gz)
  install(FILES ${changelog}.gz packaging/debian/copyright
    DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT debian EXCLUDE_FROM_ALL)
endif()

# Distributions with RPM. Their own folders are not this package's.
set(CPACK_RPM_FILE_NAME RPM-DEFAULT)
set(CPACK_RPM_PACKAGE_RELEASE 1)
set(CPACK_RPM_PACKAGE_LICENSE "All rights reserved")
set(CPACK_RPM_PACKAGE_GROUP Applications/Internet)
set(share /usr/share)
set(CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION
  ${share}/man ${share}/man/man1 ${share}/man/zh_CN ${share}/man/zh_CN/man1
  ${share}/bash-completion ${share}/bash-completion/completions
  ${share}/zsh ${share}/zsh/site-functions ${share}/fish ${share}/fish/vendor_completions.d)
# The time and the machine of the build stay out of the package, and so do links by which a debugger
# would find what is no package of its own here.
set(CPACK_RPM_SPEC_MORE_DEFINE
"%define use_source_date_epoch_as_buildtime 1
%define clamp_mtime_to_source_date_epoch 1
%define _buildhost localhost
%define _build_id_links none")

include(CPack)
