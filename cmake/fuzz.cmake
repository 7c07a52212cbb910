# One fuzzer for each check: the build's flags instrument the core, and here libFuzzer comes in.

foreach(input diagnosis rules_json json_pieces event_stream)
  add_executable(fuzz_${input} fuzz/entry.cpp fuzz/${input}.cpp)
  target_compile_definitions(fuzz_${input} PRIVATE CHECK=check_${input})
  target_link_options(fuzz_${input} PRIVATE -fsanitize=fuzzer)
  target_link_libraries(fuzz_${input} PRIVATE tarvomeldric_core)
  tarvomeldric_own_code(fuzz_${input})
endforeach()
