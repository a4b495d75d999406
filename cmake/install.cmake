# Where things are installed: any prefix, any CMAKE_INSTALL_*DIR below it (or absolute), any DESTDIR,
# in components (cmake --install BUILD --component NAME): program, configuration, headers,
# documentation, integrations (what other programs are told of this one by).

# lib/, not lib/<triplet>/. A package, which shares its prefix with others, keeps the libraries to
# itself: -DCMAKE_INSTALL_LIBDIR=lib/vexhostd.
# No paths to CMake, which would put the working directory before those of -D.
set(CMAKE_INSTALL_LIBDIR lib CACHE STRING "Object code libraries")
# What the prefix makes of it: /etc for /usr, /etc/opt/... for /opt/..., etc/ below any other.
set(CMAKE_INSTALL_SYSCONFDIR etc CACHE STRING "Configuration")
include(GNUInstallDirs)
set(VEX_INSTALL_UNITDIR lib/systemd/system CACHE STRING "The service's unit")
set(VEX_INSTALL_SYSUSERSDIR lib/sysusers.d CACHE STRING "Who makes the SNMP process's user")
set(VEX_INSTALL_EXAMPLESDIR "" CACHE STRING "Examples; where empty, examples/ beside the documents")
if(VEX_INSTALL_EXAMPLESDIR STREQUAL "")
  set(VEX_INSTALL_EXAMPLESDIR ${CMAKE_INSTALL_DOCDIR}/examples)
endif()
# Where zsh looks by itself; Debian keeps it for administrators, and gives packages vendor-completions.
set(VEX_INSTALL_ZSHDIR "" CACHE STRING "zsh's completion; where empty, zsh/site-functions in DATADIR")
if(VEX_INSTALL_ZSHDIR STREQUAL "")
  set(VEX_INSTALL_ZSHDIR ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
endif()
set(VEX_INSTALL_PKGCONFIGDIR "" CACHE STRING "The pkg-config file; where empty, pkgconfig in DATADIR")
if(VEX_INSTALL_PKGCONFIGDIR STREQUAL "")
  set(VEX_INSTALL_PKGCONFIGDIR ${CMAKE_INSTALL_DATADIR}/pkgconfig)
endif()
# Its views have other names on other distributions (packaging/rpm).
set(VEX_SNMPD_CONF ${CMAKE_SOURCE_DIR}/packaging/snmpd.conf CACHE FILEPATH
  "What is installed for snmpd to read")

# Notes which directories this installation is going to make, before any other rule, so that
# `uninstall` takes away those and no others.
foreach(place CMAKE_INSTALL_BINDIR CMAKE_INSTALL_SBINDIR CMAKE_INSTALL_LIBDIR CMAKE_INSTALL_LIBEXECDIR
    CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_SYSCONFDIR VEX_INSTALL_UNITDIR VEX_INSTALL_SYSUSERSDIR)
  if("${${place}}" STREQUAL "")
    message(FATAL_ERROR "${place} is empty; the prefix itself is a dot (-D${place}=.).")
  endif()
endforeach()

get_filename_component(built_for "${CMAKE_INSTALL_PREFIX}" ABSOLUTE)
install(CODE "set(VEX_BUILD \"${CMAKE_BINARY_DIR}\")
  set(VEX_SYSCONFDIR \"${CMAKE_INSTALL_SYSCONFDIR}\")
  set(VEX_BINDIR \"${CMAKE_INSTALL_BINDIR}\")
  set(VEX_SBINDIR \"${CMAKE_INSTALL_SBINDIR}\")
  set(VEX_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
  set(VEX_BUILT_FOR \"${built_for}\")
  include(\"${CMAKE_CURRENT_LIST_DIR}/before-install.cmake\")" ALL_COMPONENTS)
file(WRITE ${CMAKE_BINARY_DIR}/destinations.txt "")

# vex_install(COMPONENT DIRECTORY what install() takes, up to its DESTINATION...)
function(vex_install component directory)
  install(${ARGN} DESTINATION ${directory} COMPONENT ${component})
  file(APPEND ${CMAKE_BINARY_DIR}/destinations.txt "${directory}\n")
endfunction()

# vex_install_configuration(PATH FILE PERMISSION...): FILE as PATH below the configuration's
# directory, which depends on the prefix and so is known when it is installed. What an administrator
# has changed stays.
function(vex_install_configuration path file)
  install(CODE "vex_configuration(\"${path}\" \"${file}\" ${ARGN})" COMPONENT configuration)
  cmake_path(GET path PARENT_PATH directory)
  file(APPEND ${CMAKE_BINARY_DIR}/destinations.txt "@VEX_SYSCONFDIR@/${directory}\n")
endfunction()

# vex_relative(VARIABLE FROM TO): TO as it is found from FROM, both below the prefix; the whole path
# where only one of them is. That of a TO below the prefix is right for this prefix alone, and
# before-install.cmake refuses another one.
function(vex_relative variable from to)
  cmake_path(IS_ABSOLUTE from from_absolute)
  cmake_path(IS_ABSOLUTE to to_absolute)
  if(from_absolute AND to_absolute)
    file(RELATIVE_PATH path "${from}" "${to}")
    set(path "$ORIGIN/${path}")
  elseif(from_absolute)
    set(path "${CMAKE_INSTALL_PREFIX}/${to}")
  elseif(to_absolute)
    set(path "${to}")
  else()
    file(RELATIVE_PATH path "/p/${from}" "/p/${to}")
    set(path "$ORIGIN/${path}")
  endif()
  set(${variable} "${path}" PARENT_SCOPE)
endfunction()

add_custom_target(uninstall
  COMMAND ${CMAKE_COMMAND} -P ${CMAKE_CURRENT_LIST_DIR}/uninstall.cmake
  WORKING_DIRECTORY ${CMAKE_BINARY_DIR}
  COMMENT "Removing what was installed from here" VERBATIM)
