# A library of the suite: C interface, only the symbols listed in its .map file.
function(vex_shared_library name map)
  add_library(${name} SHARED ${ARGN})
  target_link_options(${name} PRIVATE -Wl,--version-script=${map})
  set_property(TARGET ${name} APPEND PROPERTY LINK_DEPENDS ${map})
  set_target_properties(${name} PROPERTIES INSTALL_RPATH "$ORIGIN")
  install(TARGETS ${name} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
endfunction()
