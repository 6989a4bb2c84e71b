# Run by cpack before it writes the package: cpack makes folders with the mode that the caller's umask leaves.
file(GLOB_RECURSE paths LIST_DIRECTORIES true "${CPACK_TEMPORARY_DIRECTORY}/*")
foreach(path IN LISTS paths)
  if(IS_DIRECTORY "${path}" AND NOT IS_SYMLINK "${path}")
    file(CHMOD "${path}" PERMISSIONS
         OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  endif()
endforeach()
