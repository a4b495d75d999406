# A library of the suite: C interface, only the symbols listed in its .map file. All of its code is
# in the static library `inside`, which tests of hidden functions link as well.
function(vex_shared_library name map inside)
  # CMake wants a source of the library's own.
  set(nothing ${CMAKE_CURRENT_BINARY_DIR}/${name}_nothing.cpp)
  file(CONFIGURE OUTPUT ${nothing} CONTENT "")
  add_library(${name} SHARED ${nothing})
  target_link_libraries(${name} PRIVATE $<LINK_LIBRARY:WHOLE_ARCHIVE,${inside}>)
  target_link_options(${name} PRIVATE -Wl,--version-script=${map})
  set_property(TARGET ${name} APPEND PROPERTY LINK_DEPENDS ${map})
  set_target_properties(${name} PROPERTIES INSTALL_RPATH "$ORIGIN")
  install(TARGETS ${name} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
endfunction()
