# Runs last in every installation: its files, for `uninstall`.
set(files)
if(EXISTS "${VEX_RECORD}/files.txt")
  file(STRINGS "${VEX_RECORD}/files.txt" files)
endif()
list(APPEND files ${CMAKE_INSTALL_MANIFEST_FILES})
list(REMOVE_DUPLICATES files)
list(JOIN files "\n" files)
file(WRITE "${VEX_RECORD}/files.txt" "${files}\n")
