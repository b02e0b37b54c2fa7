# How the tests are declared.
find_package(GTest REQUIRED)
include(GoogleTest)

# A GoogleTest program over archives and fakes, run in the build folder.
#   vbx_add_unit_test(NAME SOURCES ... LIBRARIES ... [TIMEOUT seconds])
function(vbx_add_unit_test name)
  cmake_parse_arguments(arg "" "TIMEOUT" "SOURCES;LIBRARIES" ${ARGN})
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 60)
  endif()
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE vbx_flags ${arg_LIBRARIES} GTest::gtest_main)
  gtest_discover_tests(${name} TEST_PREFIX "${name}/" DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT ${arg_TIMEOUT})
endfunction()
