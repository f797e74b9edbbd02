# Warnings, hardening, sanitizers and counters as interface targets. Every hardening
# flag is probed, so that a compiler that lacks one still builds.
include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)
include(CheckLinkerFlag)
include(CheckPIESupported)

set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
check_pie_supported(LANGUAGES CXX)

add_library(replay_warnings INTERFACE)
target_compile_options(replay_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast
  $<$<BOOL:${REPLAY_WERROR}>:-Werror>)

add_library(replay_sanitizers INTERFACE)
if(REPLAY_SANITIZE)
  set(sanitizer_flags -fsanitize=${REPLAY_SANITIZE} -fno-sanitize-recover=all)
  if(REPLAY_SANITIZE MATCHES "undefined")
    list(APPEND sanitizer_flags -fsanitize=float-cast-overflow)
  endif()
  target_compile_options(replay_sanitizers INTERFACE
    ${sanitizer_flags} -fno-omit-frame-pointer)
  target_link_options(replay_sanitizers INTERFACE ${sanitizer_flags})
endif()

# Counters of what runs. Two threads count at once, hence the atomic update. Whatever may be
# linked with an object that counts has to count as well: of a function that both have the
# linker takes one.
add_library(replay_counters INTERFACE)
add_library(replay_coverage INTERFACE)
target_link_libraries(replay_coverage INTERFACE replay_counters)
if(REPLAY_COVERAGE)
  target_compile_options(replay_counters INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(replay_counters INTERFACE --coverage)
  target_sources(replay_coverage INTERFACE
    ${PROJECT_SOURCE_DIR}/tests/support/coverage_dump.cpp)
endif()

add_library(replay_hardening INTERFACE)
target_compile_definitions(replay_hardening INTERFACE _GLIBCXX_ASSERTIONS)

function(replay_harden_compile flag)
  string(MAKE_C_IDENTIFIER "REPLAY_HAS${flag}" probe)
  check_cxx_compiler_flag(${flag} ${probe})
  if(${probe})
    target_compile_options(replay_hardening INTERFACE ${flag})
  endif()
endfunction()

function(replay_harden_link flag)
  string(MAKE_C_IDENTIFIER "REPLAY_LINKS${flag}" probe)
  check_linker_flag(CXX ${flag} ${probe})
  if(${probe})
    target_link_options(replay_hardening INTERFACE ${flag})
  endif()
endfunction()

replay_harden_compile(-fstack-protector-strong)
replay_harden_compile(-fstack-clash-protection)
replay_harden_compile(-fcf-protection=full)
replay_harden_link(-Wl,-z,relro)
replay_harden_link(-Wl,-z,now)

# The fortified C library needs an optimised build and would hide calls from the
# sanitizers. A toolchain may define its own level, hence the -U.
if(NOT REPLAY_SANITIZE)
  foreach(level 3 2)
    # A level that the pair of compiler and C library lacks shows as a warning in
    # the library's headers.
    set(CMAKE_REQUIRED_FLAGS "-O2 -Werror -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=${level}")
    check_cxx_source_compiles("#include <cstring>\nint main() {}" REPLAY_HAS_FORTIFY_${level})
    unset(CMAKE_REQUIRED_FLAGS)
    if(REPLAY_HAS_FORTIFY_${level})
      target_compile_options(replay_hardening INTERFACE
        $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE$<SEMICOLON>-D_FORTIFY_SOURCE=${level}>)
      break()
    endif()
  endforeach()
endif()
