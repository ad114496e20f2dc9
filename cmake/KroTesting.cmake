# kro_add_gtest(<name> SOURCES <files>... LIBS <targets>... [ONE_PROCESS <suites>...])
#
# Natively every test case becomes its own CTest test (so ctest -j spreads them over the
# cores), except the ONE_PROCESS suites: their cases share what the fixture starts once, so each
# such suite runs as one CTest test. Cross-built, the executable runs once under Wine as a whole: discovering cases
# through the emulator at build time would start Wine for every build.
set(KRO_TEST_BIN_DIR ${CMAKE_BINARY_DIR}/tests)
include(GoogleTest)

function(kro_add_gtest name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS;ONE_PROCESS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gtest kro_test_main)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${KRO_TEST_BIN_DIR})
  if(CMAKE_CROSSCOMPILING)
    add_test(NAME ${name} COMMAND ${name})
    set_tests_properties(${name} PROPERTIES TIMEOUT 600)
  else()
    set(properties TIMEOUT 120 ENVIRONMENT "KRO_BIN_DIR=${KRO_BIN_DIR}")
    set(shared "")
    foreach(suite IN LISTS ARG_ONE_PROCESS)
      add_test(NAME ${name}.${suite} COMMAND ${name} --gtest_filter=${suite}.*)
      set_tests_properties(${name}.${suite} PROPERTIES ${properties})
      list(APPEND shared "${suite}.*")
    endforeach()
    set(filter "")
    if(shared)
      list(JOIN shared ":" shared)
      set(filter TEST_FILTER "-${shared}")
    endif()
    gtest_discover_tests(${name} ${filter} DISCOVERY_MODE PRE_TEST PROPERTIES ${properties})
  endif()
endfunction()
