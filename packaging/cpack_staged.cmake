# Read by cpack between what it installs and what it packs. All may enter the folders, whatever
# the umask is here, and no file tells when it was last written: rpmbuild makes only those times
# older that are newer than the commit's.
file(CHMOD_RECURSE ${CPACK_TEMPORARY_INSTALL_DIRECTORY} DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
execute_process(COMMAND find ${CPACK_TEMPORARY_INSTALL_DIRECTORY}
    -exec touch --date=@${CPACK_REPLAY_EPOCH} {} +
  COMMAND_ERROR_IS_FATAL ANY)
