# What a machine lacks, with the packages that have it: never a compiler's or a linker's error.
function(vex_missing what debian fedora)
  message(FATAL_ERROR "Missing: ${what}. Debian, Ubuntu: apt install ${debian}; "
    "Fedora: dnf install ${fedora}.")
endfunction()

# A library whose package has a CMake configuration. A macro, for what it sets is the caller's.
macro(vex_need_package name debian fedora)
  find_package(${name} QUIET)
  if(NOT ${name}_FOUND)
    vex_missing("the library ${name}" ${debian} ${fedora})
  endif()
endmacro()

# A library by one of its headers and its files.
function(vex_need_library name header libraries debian fedora)
  string(MAKE_C_IDENTIFIER "VEX_FOUND_${name}" found)
  find_path(${found}_HEADER ${header})
  mark_as_advanced(${found}_HEADER)
  foreach(library ${libraries})
    find_library(${found}_${library} ${library})
    mark_as_advanced(${found}_${library})
    if(NOT ${found}_HEADER OR NOT ${found}_${library})
      vex_missing("the library ${name} (${header}, lib${library})" ${debian} ${fedora})
    endif()
  endforeach()
endfunction()

function(vex_need_program variable program debian fedora)
  find_program(${variable} ${program})
  if(NOT ${variable})
    vex_missing("the program ${program}" ${debian} ${fedora})
  endif()
endfunction()

# A library of the suite: C interface, only the symbols listed in its .map file. All of its code is
# in the static libraries `inside` and ARGN, which tests of hidden functions link as well.
function(vex_shared_library name map inside)
  # CMake wants a source of the library's own.
  set(nothing ${CMAKE_CURRENT_BINARY_DIR}/${name}_nothing.cpp)
  file(CONFIGURE OUTPUT ${nothing} CONTENT "")
  add_library(${name} SHARED ${nothing})
  set(whole ${inside} ${ARGN})
  list(JOIN whole "," whole)
  target_link_libraries(${name} PRIVATE ${inside})
  set_target_properties(${name} PROPERTIES LINK_LIBRARY_OVERRIDE "WHOLE_ARCHIVE,${whole}")
  target_link_options(${name} PRIVATE -Wl,--version-script=${map})
  set_property(TARGET ${name} APPEND PROPERTY LINK_DEPENDS ${map})
  set_target_properties(${name} PROPERTIES INSTALL_RPATH "$ORIGIN")
  vex_install(program ${CMAKE_INSTALL_LIBDIR} TARGETS ${name} LIBRARY)
endfunction()

# vex_together(TARGET...): their sources are compiled several at once, where VEX_TOGETHER wants it.
function(vex_together)
  if(VEX_TOGETHER)
    set_target_properties(${ARGN} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 7)
    foreach(target IN LISTS ARGN)
      # A type of an anonymous namespace in a header's class is in one place all the same.
      target_compile_options(${target} PRIVATE
        $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wno-subobject-linkage>)
    endforeach()
  endif()
endfunction()
