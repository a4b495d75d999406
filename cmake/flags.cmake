# How everything is compiled and linked. Whoever builds packages gives flags of their own (CFLAGS,
# CXXFLAGS, LDFLAGS in the environment, or CMAKE_CXX_FLAGS, CMAKE_CXX_FLAGS_<TYPE> and the like): what
# is added here comes after them, so nothing of it may take one of them back.
include(CheckCXXCompilerFlag)

if(VEX_CCACHE)
  find_program(CCACHE ccache)
  if(CCACHE)
    # What one build directory, or one clone, has compiled serves another one with the same options.
    # The two kinds of sloppiness are what it asks for where headers are precompiled.
    set(launcher env CCACHE_BASEDIR=${CMAKE_SOURCE_DIR} CCACHE_NOHASHDIR=1
      CCACHE_SLOPPINESS=pch_defines,time_macros ${CCACHE})
    set(CMAKE_C_COMPILER_LAUNCHER ${launcher})
    set(CMAKE_CXX_COMPILER_LAUNCHER ${launcher})
  endif()
endif()

string(TOUPPER "${CMAKE_BUILD_TYPE}" vex_type)
# A type that CMake does not know is one when it is given flags.
if(NOT vex_type MATCHES "^(NONE|DEBUG|RELEASE|RELWITHDEBINFO|MINSIZEREL)$" AND
    "${CMAKE_CXX_FLAGS_${vex_type}}" STREQUAL "")
  message(FATAL_ERROR "There is no build type ${CMAKE_BUILD_TYPE}: Debug, Release, RelWithDebInfo, "
    "MinSizeRel, None, or one that CMAKE_CXX_FLAGS_${vex_type} gives flags to.")
endif()
foreach(option VEX_FUZZ VEX_COVERAGE)
  if(${option} AND NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "${option} wants clang (-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++), and "
      "${CMAKE_CXX_COMPILER} is none.")
  endif()
endforeach()
if(VEX_SANITIZE AND NOT VEX_SANITIZE MATCHES "^(address|undefined|leak|thread)(,(address|undefined|leak))*$")
  message(FATAL_ERROR "VEX_SANITIZE is ${VEX_SANITIZE}; there are \"address,undefined\" and \"thread\".")
endif()
set(vex_linkers "")
foreach(kind EXE SHARED MODULE)
  string(APPEND vex_linkers " ${CMAKE_${kind}_LINKER_FLAGS} ${CMAKE_${kind}_LINKER_FLAGS_${vex_type}}")
endforeach()

# vex_compile(PATTERN FLAG...): the flags, for each language in whose flags nothing given from outside is
# about the same.
function(vex_compile pattern)
  foreach(language C CXX)
    if(NOT "${CMAKE_${language}_FLAGS} ${CMAKE_${language}_FLAGS_${vex_type}} ${vex_linkers}"
        MATCHES "${pattern}")
      add_compile_options("$<$<COMPILE_LANGUAGE:${language}>:${ARGN}>")
    endif()
  endforeach()
endfunction()

# vex_harden(PATTERN FLAG): the same, where the compiler knows the flag.
function(vex_harden pattern flag)
  string(MAKE_C_IDENTIFIER "VEX_TAKES${flag}" takes)
  check_cxx_compiler_flag(${flag} ${takes})
  if(${takes})
    vex_compile("${pattern}" ${flag})
  endif()
endfunction()

# vex_link(PATTERN FLAG): the flag, where nothing given from outside is about the same.
function(vex_link pattern flag)
  if(NOT vex_linkers MATCHES "${pattern}")
    add_link_options(${flag})
  endif()
endfunction()

add_compile_options(-Wall -Wextra -Wshadow -Wformat=2 -Wcast-align -Wundef)
vex_compile("-f(no-)?strict-aliasing" -fno-strict-aliasing)
vex_compile("-f(no-)?function-sections" -ffunction-sections)
vex_compile("-f(no-)?data-sections" -fdata-sections)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # A false alarm of gcc 12 at additions of strings (its PR105651).
  add_compile_options(-Wno-restrict)
endif()
if(VEX_WERROR)
  add_compile_options(-Werror)
endif()
vex_link("as-needed" -Wl,--as-needed)
vex_link("gc-sections" -Wl,--gc-sections)

# The same source gives the same binary, whatever folder it stands in.
if(VEX_PREFIX_MAP)
  vex_compile("-f(file|debug|macro)-prefix-map=" -ffile-prefix-map=${CMAKE_SOURCE_DIR}/=
    -ffile-prefix-map=${CMAKE_SOURCE_DIR}=. -ffile-prefix-map=${CMAKE_BINARY_DIR}=build)
endif()

if(VEX_SANITIZE)
  add_compile_options(-fsanitize=${VEX_SANITIZE} -fno-omit-frame-pointer -O1 -g1)
  add_link_options(-fsanitize=${VEX_SANITIZE})
  if(VEX_SANITIZE MATCHES undefined)
    add_compile_options(-fno-sanitize-recover=all)
  endif()
elseif(NOT VEX_FUZZ)
  vex_harden("-fstack-protector|-fno-stack-protector" -fstack-protector-strong)
  vex_harden("stack-clash-protection" -fstack-clash-protection)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
    vex_harden("-fcf-protection" -fcf-protection)
  else()
    vex_harden("-mbranch-protection" -mbranch-protection=standard)
  endif()
  # Only where it is compiled with optimisation, as it must be; some compilers define it by themselves.
  if(vex_type MATCHES "^(RELEASE|RELWITHDEBINFO|MINSIZEREL)$")
    include(CheckCXXSourceCompiles)
    set(CMAKE_REQUIRED_FLAGS -O2)
    check_cxx_source_compiles("
      #ifndef _FORTIFY_SOURCE
      #error not by itself
      #endif
      int main() {}" VEX_FORTIFIES_BY_ITSELF)
    unset(CMAKE_REQUIRED_FLAGS)
    if(NOT VEX_FORTIFIES_BY_ITSELF)
      vex_compile("_FORTIFY_SOURCE|-O0|-Og" -D_FORTIFY_SOURCE=3)
    endif()
  endif()
endif()
vex_link("relro" -Wl,-z,relro)
vex_link("-z[, ](now|lazy)" -Wl,-z,now)
if(VEX_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all
    -O1 -g1)
  add_link_options(-fsanitize=address,undefined)
endif()
if(VEX_COVERAGE)
  # Counted in files that are mapped (%c), where counts outlive _exit and signals, one a program or
  # library (%m); their place is compiled in, for not every environment reaches the agent. Atomically:
  # threads and processes share them, and a branch's count may be a difference of two.
  set(profile -fprofile-instr-generate=${CMAKE_BINARY_DIR}/profile/%m%c.profraw)
  add_compile_options(${profile} -fcoverage-mapping -fprofile-update=atomic
    "SHELL:-mllvm -runtime-counter-relocation")
  add_link_options(${profile})
endif()
