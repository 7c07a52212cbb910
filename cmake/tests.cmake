# One binary with the tests of all rooms of the core.

find_package(GTest REQUIRED)
file(GLOB_RECURSE sources CONFIGURE_DEPENDS tests/core/*_test.cpp)

add_executable(core_tests ${sources})
target_include_directories(core_tests PRIVATE ${PROJECT_SOURCE_DIR}/tests/core)
target_link_libraries(core_tests PRIVATE tarvomeldric_core GTest::gtest_main)
tarvomeldric_own_code(core_tests)

enable_testing()
add_test(NAME core_tests COMMAND core_tests)
