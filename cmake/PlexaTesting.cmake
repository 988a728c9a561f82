# plexa_folder_tests(<name> LIBS <libs...> [LABELS <labels...>] [TIMEOUT <seconds>])
#
# Every *Test.cpp in the calling folder becomes part of one test program, <name>, and each of its
# GoogleTest cases is registered with CTest. Tests are found by file name, so no hand-kept list can
# leave a test out. Each case gets a timeout so a hang fails the run instead of stalling it.
function(plexa_folder_tests name)
  if(NOT PLEXA_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "TIMEOUT" "LIBS;LABELS;EXTRA_SOURCES" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*Test.cpp)
  if(NOT sources)
    return()
  endif()
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  add_executable(${name} ${sources} ${ARG_EXTRA_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gtest GTest::gtest_main GTest::gmock Threads::Threads)
  gtest_discover_tests(${name}
    DISCOVERY_MODE PRE_TEST
    DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS "${ARG_LABELS}")
endfunction()

# plexa_library_sources(<var> <dir>): the non-test C++ sources of one folder.
function(plexa_library_sources var dir)
  file(GLOB all CONFIGURE_DEPENDS ${dir}/*.cpp)
  set(result)
  foreach(f ${all})
    if(NOT f MATCHES "Test\\.cpp$")
      list(APPEND result ${f})
    endif()
  endforeach()
  set(${var} ${result} PARENT_SCOPE)
endfunction()
