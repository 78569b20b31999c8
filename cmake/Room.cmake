# One room = one folder = one library target price_server::<room>.
#
#   ps_add_room(<room>
#     HEADERS <public headers>      every one must compile alone (target all_verify_interface_header_sets)
#     HEADER_BASE <dir>             folder that the headers are included from; include by default
#     SOURCES <sources>             empty for a room of headers only
#     ROOMS <rooms it may include>  each must stand above it in the table of rooms
#     LINKS <foreign targets of its headers> PRIVATE_LINKS <foreign targets of its sources>)
#
# The direction of includes holds twice: a room has only the include folders of the rooms that it names, and it may
# name only rooms that were added before it.
set_property(GLOBAL PROPERTY PS_ROOMS "")

function(ps_add_room room)
  cmake_parse_arguments(ARG "" "HEADER_BASE" "HEADERS;SOURCES;ROOMS;LINKS;PRIVATE_LINKS" ${ARGN})
  if(ARG_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "room ${room}: unknown arguments ${ARG_UNPARSED_ARGUMENTS}")
  endif()
  if(NOT ARG_HEADER_BASE)
    set(ARG_HEADER_BASE include)
  endif()

  ps_check_rooms(${room} ${ARG_ROOMS})
  list(TRANSFORM ARG_ROOMS PREPEND price_server::)

  set(target ps_${room})
  if(ARG_SOURCES)
    add_library(${target} STATIC ${ARG_SOURCES})
    set(scope PUBLIC)
    target_link_libraries(${target} PRIVATE price_server::options ${ARG_PRIVATE_LINKS})
  else()
    add_library(${target} INTERFACE)
    set(scope INTERFACE)
  endif()
  add_library(price_server::${room} ALIAS ${target})
  set_target_properties(${target} PROPERTIES VERIFY_INTERFACE_HEADER_SETS ON)
  target_sources(${target} ${scope}
    FILE_SET HEADERS BASE_DIRS ${ARG_HEADER_BASE} FILES ${ARG_HEADERS})
  target_link_libraries(${target} ${scope} ${ARG_ROOMS} ${ARG_LINKS} Threads::Threads)
  set_property(GLOBAL APPEND PROPERTY PS_ROOMS ${room})
endfunction()

# Refuses rooms below, and a provider that sees the unifier.
function(ps_check_rooms room)
  get_property(above GLOBAL PROPERTY PS_ROOMS)
  foreach(used IN LISTS ARGN)
    if(NOT used IN_LIST above)
      message(FATAL_ERROR "room ${room} may not include room ${used}: it does not stand above it")
    endif()
    if(room MATCHES "^(mds|zel)$" AND used STREQUAL "price_unifier")
      message(FATAL_ERROR "providers see simple_subscription, never price_unifier")
    endif()
  endforeach()
endfunction()

# ps_add_tests(<name> SOURCES <sources> LINKS <targets> TIMEOUT <seconds> LABEL <label> KNOWS_SANITIZERS): one test program,
# one ctest entry for each test case. KNOWS_SANITIZERS: PS_IS_SANITIZED is 1 under sanitizers, and 0 otherwise; for tests
# that do less there, or would measure the sanitizer.
set(PS_ONLY_TESTS "" CACHE STRING "Build only these test programs; empty: all")

function(ps_add_tests name)
  if(NOT PRICE_SERVER_TESTS OR (PS_ONLY_TESTS AND NOT name IN_LIST PS_ONLY_TESTS))
    return()
  endif()
  cmake_parse_arguments(ARG "KNOWS_SANITIZERS" "TIMEOUT;LABEL" "SOURCES;LINKS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 300)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LINKS} price_server::options GTest::gmock GTest::gtest_main)
  target_compile_definitions(${name} PRIVATE PRICE_SERVER_DATA="${PRICE_SERVER_DATA}")
  if(ARG_KNOWS_SANITIZERS AND PRICE_SERVER_SANITIZERS)
    target_compile_definitions(${name} PRIVATE PS_IS_SANITIZED=1)
  elseif(ARG_KNOWS_SANITIZERS)
    target_compile_definitions(${name} PRIVATE PS_IS_SANITIZED=0)
  endif()
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS "${ARG_LABEL}")
endfunction()

# ps_add_benchmarks(<name> SOURCES <sources> LINKS <targets>)
function(ps_add_benchmarks name)
  if(NOT PRICE_SERVER_BENCHMARKS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "" "SOURCES;LINKS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LINKS} price_server::options benchmark::benchmark)
  target_compile_definitions(${name} PRIVATE PRICE_SERVER_DATA="${PRICE_SERVER_DATA}")
endfunction()
