# Runs first in every installation, in cmake_install.cmake: the places that depend on the prefix, and
# a note of the directories that are not there yet.

# One that is relative is so from where whoever installs stands.
if(NOT "$ENV{DESTDIR}" STREQUAL "")
  get_filename_component(destdir "$ENV{DESTDIR}" ABSOLUTE)
  set(ENV{DESTDIR} "${destdir}")
endif()
get_filename_component(VEX_PREFIX "${CMAKE_INSTALL_PREFIX}" ABSOLUTE)

# vex_place(VARIABLE DIRECTORY): the directory's path on the machine.
function(vex_place variable directory)
  if(NOT IS_ABSOLUTE "${directory}")
    set(directory "${VEX_PREFIX}/${directory}")
  endif()
  cmake_path(NORMAL_PATH directory)
  set(${variable} "${directory}" PARENT_SCOPE)
endfunction()

# The usual exceptions of the prefixes that have their configuration elsewhere.
if(NOT IS_ABSOLUTE "${VEX_SYSCONFDIR}")
  if(VEX_PREFIX STREQUAL "/usr" AND VEX_SYSCONFDIR STREQUAL "etc")
    set(VEX_SYSCONFDIR /etc)
  elseif(VEX_PREFIX MATCHES "^/opt/." AND VEX_SYSCONFDIR STREQUAL "etc")
    set(VEX_SYSCONFDIR "/etc${VEX_PREFIX}")
  else()
    set(VEX_SYSCONFDIR "${VEX_PREFIX}/${VEX_SYSCONFDIR}")
  endif()
endif()

# vex_configuration(PATH FILE PERMISSION...): see vex_install_configuration.
function(vex_configuration path file)
  set(place "$ENV{DESTDIR}${VEX_SYSCONFDIR}/${path}")
  if(EXISTS "${place}")
    file(SHA256 "${place}" there)
    file(SHA256 "${file}" ours)
    if(NOT there STREQUAL ours)
      message(STATUS "Kept, for it was changed: ${place}")
      return()
    endif()
  endif()
  cmake_path(GET path PARENT_PATH directory)
  cmake_path(GET path FILENAME name)
  file(INSTALL DESTINATION "${VEX_SYSCONFDIR}/${directory}" TYPE FILE RENAME "${name}"
    PERMISSIONS ${ARGN} FILES "${file}")
  set(CMAKE_INSTALL_MANIFEST_FILES "${CMAKE_INSTALL_MANIFEST_FILES}" PARENT_SCOPE)
  file(SHA256 "${file}" ours)
  file(APPEND "${VEX_BUILD}/installed-configuration.txt" "${ours} ${place}\n")
endfunction()

file(STRINGS "${VEX_BUILD}/destinations.txt" destinations)
foreach(directory ${destinations})
  string(CONFIGURE "${directory}" directory @ONLY)
  vex_place(directory "${directory}")
  set(missing)
  set(path "$ENV{DESTDIR}${directory}")
  while(NOT EXISTS "${path}")
    set(missing "${path}")
    cmake_path(GET path PARENT_PATH path)
  endwhile()
  if(missing)
    file(APPEND "${VEX_BUILD}/installed-directories.txt" "${missing}\n")
  endif()
endforeach()
