# swg_add_fuzzer(<name> <source> [LIBS ...]): a libFuzzer target and a bounded CTest run of it.
function(swg_add_fuzzer name source)
  cmake_parse_arguments(F "" "" "LIBS" ${ARGN})
  add_executable(${name} ${source})
  target_compile_options(${name} PRIVATE -fsanitize=fuzzer,address,undefined)
  target_link_options(${name} PRIVATE -fsanitize=fuzzer,address,undefined)
  target_link_libraries(${name} PRIVATE ${F_LIBS} swg_warnings)
  set(corpus ${CMAKE_CURRENT_SOURCE_DIR}/corpus/${name})
  set(work ${CMAKE_CURRENT_BINARY_DIR}/corpus-${name})
  # SWG_FUZZ_SECONDS is read when the test runs, not when the build is configured.
  add_test(NAME fuzz.${name}
           COMMAND ${CMAKE_COMMAND} -E env ASAN_OPTIONS=detect_leaks=1
                   sh -c "mkdir -p '${work}' && exec $<TARGET_FILE:${name}> -max_total_time=\${SWG_FUZZ_SECONDS:-20} -timeout=5 -rss_limit_mb=2048 '${work}' '${corpus}'")
  set_tests_properties(fuzz.${name} PROPERTIES LABELS fuzz TIMEOUT 600)
endfunction()
