# How everything is compiled and linked. Whoever builds packages gives flags of their own (CFLAGS,
# CXXFLAGS, LDFLAGS in the environment, or CMAKE_CXX_FLAGS): nothing here takes one of them back.
include(CheckCXXCompilerFlag)

if(VEX_CCACHE)
  find_program(CCACHE ccache)
  if(CCACHE)
    # What one build directory, or one clone, has compiled serves another one with the same options.
    set(launcher env CCACHE_BASEDIR=${CMAKE_SOURCE_DIR} CCACHE_NOHASHDIR=1 ${CCACHE})
    set(CMAKE_C_COMPILER_LAUNCHER ${launcher})
    set(CMAKE_CXX_COMPILER_LAUNCHER ${launcher})
  endif()
endif()

add_compile_options(-Wall -Wextra -Wshadow -Wformat=2 -Wcast-align -Wundef
  -fno-strict-aliasing -ffunction-sections -fdata-sections)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # A false alarm of gcc 12 at additions of strings (its PR105651).
  add_compile_options(-Wno-restrict)
endif()
if(VEX_WERROR)
  add_compile_options(-Werror)
endif()
add_link_options(-Wl,--as-needed -Wl,--gc-sections)

# The same source gives the same binary, whatever folder it stands in.
string(REGEX MATCH "-f(file|debug|macro)-prefix-map=" theirs "${CMAKE_CXX_FLAGS}")
if(NOT theirs)
  add_compile_options(-ffile-prefix-map=${CMAKE_SOURCE_DIR}/=
    -ffile-prefix-map=${CMAKE_SOURCE_DIR}=. -ffile-prefix-map=${CMAKE_BINARY_DIR}=build)
endif()

# vex_harden(PATTERN FLAG): the flag, where nothing given from outside is about the same.
function(vex_harden pattern flag)
  if("${CMAKE_CXX_FLAGS} ${CMAKE_EXE_LINKER_FLAGS} ${CMAKE_SHARED_LINKER_FLAGS}" MATCHES "${pattern}")
    return()
  endif()
  string(MAKE_C_IDENTIFIER "VEX_TAKES${flag}" takes)
  check_cxx_compiler_flag(${flag} ${takes})
  if(${takes})
    add_compile_options(${flag})
  endif()
endfunction()

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
  if(CMAKE_BUILD_TYPE MATCHES "^(Release|RelWithDebInfo|MinSizeRel)$"
      AND NOT CMAKE_CXX_FLAGS MATCHES "_FORTIFY_SOURCE|-O0|-Og")
    include(CheckCXXSourceCompiles)
    set(CMAKE_REQUIRED_FLAGS -O2)
    check_cxx_source_compiles("
      #ifndef _FORTIFY_SOURCE
      #error not by itself
      #endif
      int main() {}" VEX_FORTIFIES_BY_ITSELF)
    unset(CMAKE_REQUIRED_FLAGS)
    if(NOT VEX_FORTIFIES_BY_ITSELF)
      add_compile_options(-D_FORTIFY_SOURCE=3)
    endif()
  endif()
endif()
if(NOT CMAKE_EXE_LINKER_FLAGS MATCHES "relro")
  add_link_options(-Wl,-z,relro)
endif()
if(NOT CMAKE_EXE_LINKER_FLAGS MATCHES "-z,(now|lazy)")
  add_link_options(-Wl,-z,now)
endif()
if(VEX_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all
    -O1 -g1)
  add_link_options(-fsanitize=address,undefined)
endif()
