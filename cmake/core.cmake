# The core: plain C++ that knows nothing of Python. A new file in a room is found by itself.

set(sources)
foreach(room support diagnosis guards semantic flywheel observability providers engine)
  file(GLOB found CONFIGURE_DEPENDS src/${room}/*.cpp)
  list(APPEND sources ${found})
endforeach()

add_library(tarvomeldric_core STATIC ${sources})
set_target_properties(tarvomeldric_core PROPERTIES
  POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
target_include_directories(tarvomeldric_core PUBLIC ${PROJECT_SOURCE_DIR}/src)
target_link_libraries(tarvomeldric_core PUBLIC PkgConfig::RE2 Threads::Threads)
tarvomeldric_own_code(tarvomeldric_core)
tarvomeldric_tidy(tarvomeldric_core ${PROJECT_SOURCE_DIR}/.clang-tidy)
