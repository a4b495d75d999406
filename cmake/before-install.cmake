# Runs first in every installation, in cmake_install.cmake: the places that depend on the prefix, and
# a note of the directories that are not there yet.

# One that is relative is so from where whoever installs stands.
if(NOT "$ENV{DESTDIR}" STREQUAL "")
  get_filename_component(destdir "$ENV{DESTDIR}" ABSOLUTE)
  set(ENV{DESTDIR} "${destdir}")
endif()
# CMake takes the / off a prefix's end, and so leaves nothing of the prefix /.
set(VEX_PREFIX /)
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "")
  get_filename_component(VEX_PREFIX "${CMAKE_INSTALL_PREFIX}" ABSOLUTE)
endif()

# The agent's run path (vex_relative) and what vexreg finds from its place have the configured prefix in
# them where one is absolute and another is not.
set(kinds)
foreach(directory "${VEX_BINDIR}" "${VEX_SBINDIR}" "${VEX_LIBDIR}")
  cmake_path(IS_ABSOLUTE directory kind)
  list(APPEND kinds ${kind})
endforeach()
list(REMOVE_DUPLICATES kinds)
list(LENGTH kinds kinds)
if(kinds GREATER 1 AND NOT VEX_PREFIX STREQUAL VEX_BUILT_FOR)
  message(FATAL_ERROR "Of CMAKE_INSTALL_BINDIR, SBINDIR and LIBDIR some are absolute and some are not: the "
    "programs would look for each other below ${VEX_BUILT_FOR}. Configure with "
    "-DCMAKE_INSTALL_PREFIX=${VEX_PREFIX}, or with all of a kind.")
endif()

# vex_place(VARIABLE DIRECTORY): the directory's path on the machine.
function(vex_place variable directory)
  if(NOT IS_ABSOLUTE "${directory}")
    set(directory "${VEX_PREFIX}/${directory}")
  endif()
  string(REGEX REPLACE "^/+" "/" directory "${directory}")
  cmake_path(NORMAL_PATH directory)
  set(${variable} "${directory}" PARENT_SCOPE)
endfunction()

# vex_unit_word(VARIABLE TEXT): the text as a unit has it as one word. A program whose path has a quote or a
# backslash in it systemd starts in no way.
function(vex_unit_word variable text)
  string(REPLACE "%" "%%" text "${text}")
  if(text MATCHES "[ \t]")
    set(text "\"${text}\"")
  endif()
  set(${variable} "${text}" PARENT_SCOPE)
endfunction()

# The usual exceptions of the prefixes that have their configuration elsewhere.
if(NOT IS_ABSOLUTE "${VEX_SYSCONFDIR}")
  if(VEX_PREFIX STREQUAL "/usr" AND VEX_SYSCONFDIR STREQUAL "etc")
    set(VEX_SYSCONFDIR /etc)
  elseif(VEX_PREFIX MATCHES "^/opt/." AND VEX_SYSCONFDIR STREQUAL "etc")
    set(VEX_SYSCONFDIR "/etc${VEX_PREFIX}")
  else()
    vex_place(VEX_SYSCONFDIR "${VEX_SYSCONFDIR}")
  endif()
endif()

# What `uninstall` is told: each DESTDIR and prefix has a record of its own, so that none makes another
# one forgotten.
string(SHA256 VEX_RECORD "$ENV{DESTDIR}:${VEX_PREFIX}")
set(VEX_RECORD "${VEX_BUILD}/installed/${VEX_RECORD}")
file(WRITE "${VEX_RECORD}/destdir.txt" "$ENV{DESTDIR}")
file(WRITE "${VEX_RECORD}/prefix.txt" "${VEX_PREFIX}")
string(TIMESTAMP now "%s%f" UTC)
file(WRITE "${VEX_RECORD}/time.txt" "${now}")

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
  file(APPEND "${VEX_RECORD}/configuration.txt" "${ours} ${place}\n")
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
    file(APPEND "${VEX_RECORD}/directories.txt" "${missing}\n")
  endif()
endforeach()
