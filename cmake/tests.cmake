# One binary with the tests of all rooms of the core.

find_package(GTest REQUIRED)
file(GLOB_RECURSE sources CONFIGURE_DEPENDS tests/core/*_test.cpp)
file(GLOB checks CONFIGURE_DEPENDS fuzz/*.cpp)
list(FILTER checks EXCLUDE REGEX /entry.cpp$)

add_executable(core_tests ${sources} ${checks})
target_include_directories(core_tests PRIVATE ${PROJECT_SOURCE_DIR}/tests/core ${PROJECT_SOURCE_DIR}/fuzz)
target_compile_definitions(core_tests PRIVATE CORPUS="${PROJECT_SOURCE_DIR}/fuzz/corpus")
target_link_libraries(core_tests PRIVATE tarvomeldric_core GTest::gtest_main)
tarvomeldric_own_code(core_tests)

enable_testing()
add_test(NAME core_tests COMMAND core_tests)
