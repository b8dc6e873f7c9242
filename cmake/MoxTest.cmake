# mox_add_test(<name> SOURCES <files...> [LIBS <libs...>] [LABELS <labels...>] [TIMEOUT <s>]
#              [SHARED_MEMORY])
# One GoogleTest binary per component, registered with CTest. The ctest
# TIMEOUT and the watchdog of mox_test_main make a hung test fail instead of
# blocking the run.
function(mox_add_test name)
  cmake_parse_arguments(T "SHARED_MEMORY" "TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 300)
  endif()
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} mox_test_main GTest::gtest GTest::gmock)
  add_test(NAME ${name} COMMAND ${name})
  math(EXPR watchdog "${T_TIMEOUT} - 10")
  set_tests_properties(${name} PROPERTIES TIMEOUT ${T_TIMEOUT}
    ENVIRONMENT "MOX_TEST_WATCHDOG=${watchdog};MOX_LOG_LEVEL=debug"
    LABELS "${T_LABELS}")
  # Object names such as "mox_datablock_0" come from per-process counters, so
  # two test processes creating them at once would share objects: tests that
  # create them never run in parallel with each other.
  if(T_SHARED_MEMORY)
    set_tests_properties(${name} PROPERTIES RESOURCE_LOCK mox_shm)
  endif()
endfunction()
