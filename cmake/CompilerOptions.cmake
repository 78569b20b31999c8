# Warnings, sanitizers and the hardening that every target of the project gets.
add_library(ps_options INTERFACE)
add_library(price_server::options ALIAS ps_options)

# A compiler cache may hand the compiler paths that are relative to the build folder.
file(RELATIVE_PATH source_from_build ${CMAKE_BINARY_DIR} ${PROJECT_SOURCE_DIR})

target_compile_options(ps_options INTERFACE
  -Wall -Wextra -Wpedantic -Werror
  -Wshadow -Wold-style-cast -Wcast-qual -Wnon-virtual-dtor -Woverloaded-virtual
  -Wconversion -Wsign-conversion -Wimplicit-fallthrough
  # Log records and reports name files as the repository does, not as the build machine does.
  -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/= -fmacro-prefix-map=${source_from_build}=)

if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # False reports of g++ 12 at -O2 and above, in the standard library's own inlined string concatenation.
  target_compile_options(ps_options INTERFACE -Wno-restrict)
endif()
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  target_compile_options(ps_options INTERFACE -Wthread-safety)
endif()

if(PRICE_SERVER_SANITIZERS)
  target_compile_options(ps_options INTERFACE
    -fsanitize=${PRICE_SERVER_SANITIZERS} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(ps_options INTERFACE -fsanitize=${PRICE_SERVER_SANITIZERS})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # False reports of g++ 12 under instrumentation, in the standard library's own inlined code; TSan does not see
    # fences, which Boost.Asio uses correctly but g++ warns of.
    target_compile_options(ps_options INTERFACE -Wno-maybe-uninitialized -Wno-tsan)
  endif()
endif()

find_program(PRICE_SERVER_LINKER mold)
if(PRICE_SERVER_LINKER)
  target_link_options(ps_options INTERFACE -fuse-ld=mold)
endif()

find_program(PRICE_SERVER_CCACHE ccache)
if(PRICE_SERVER_CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${PRICE_SERVER_CCACHE})
endif()
