# velmar_test(NAME name LABEL label SOURCES ... LIBS ...)
# One GoogleTest binary; each test case becomes a CTest test with the label.
function(velmar_test)
  cmake_parse_arguments(T "" "NAME;LABEL" "SOURCES;LIBS" ${ARGN})
  add_executable(${T_NAME} ${T_SOURCES})
  target_link_libraries(${T_NAME} PRIVATE ${T_LIBS} GTest::gtest GTest::gtest_main GTest::gmock)
  target_compile_definitions(${T_NAME} PRIVATE
    VELMAR_TEST_DATA_DIR="${CMAKE_SOURCE_DIR}/tests/data"
    VELMAR_TEST_BINARY_DIR="${CMAKE_BINARY_DIR}"
    VELMAR_SOURCE_DATA_DIR="${VELMAR_SOURCE_DATA_DIR}")
  gtest_discover_tests(${T_NAME} DISCOVERY_MODE PRE_TEST
    PROPERTIES LABELS ${T_LABEL} TIMEOUT 120)
endfunction()

# velmar_fuzz_target(NAME name SOURCES ... LIBS ... CORPUS dir)
# With VELMAR_FUZZ the target is a libFuzzer program, and the fuzz-smoke test
# fuzzes for a few seconds starting from the corpus. Without it the target is
# built with a replay driver, and the test runs every corpus file through it.
function(velmar_fuzz_target)
  cmake_parse_arguments(F "" "NAME;CORPUS" "SOURCES;LIBS" ${ARGN})
  if(VELMAR_FUZZ)
    add_executable(${F_NAME} ${F_SOURCES})
    target_link_options(${F_NAME} PRIVATE -fsanitize=fuzzer)
    target_link_libraries(${F_NAME} PRIVATE ${F_LIBS})
    add_test(NAME ${F_NAME}
      COMMAND ${CMAKE_COMMAND} -E env
        bash ${CMAKE_SOURCE_DIR}/tests/fuzz/run-fuzz.sh $<TARGET_FILE:${F_NAME}> ${F_CORPUS} 5)
  else()
    add_executable(${F_NAME} ${F_SOURCES} ${CMAKE_SOURCE_DIR}/tests/fuzz/replay_main.cc)
    target_link_libraries(${F_NAME} PRIVATE ${F_LIBS})
    add_test(NAME ${F_NAME} COMMAND ${F_NAME} ${F_CORPUS})
  endif()
  set_tests_properties(${F_NAME} PROPERTIES LABELS fuzz-smoke TIMEOUT 120)
endfunction()
