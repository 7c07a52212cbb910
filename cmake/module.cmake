# The extension module tarvomeldric._engine, its type stubs, and what travels with it in a wheel.

if(NOT nanobind_DIR)
  execute_process(COMMAND ${Python_EXECUTABLE} -m nanobind --cmake_dir
    OUTPUT_VARIABLE nanobind_DIR OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
endif()
find_package(nanobind 3.0 CONFIG REQUIRED)

file(GLOB sources CONFIGURE_DEPENDS src/host/*/*.cpp src/_engine/*.cpp)

# The network's text passes through: optimise for speed and keep the stack protector.
nanobind_add_module(_engine NB_STATIC NB_DOMAIN tarvomeldric NB_SUPPRESS_WARNINGS NOMINSIZE PROTECT_STACK ${sources})
target_link_libraries(_engine PRIVATE tarvomeldric_core)
set(symbols ${PROJECT_SOURCE_DIR}/cmake/module.map)
target_link_options(_engine PRIVATE -Wl,--version-script=${symbols})
set_target_properties(_engine PROPERTIES LINK_DEPENDS ${symbols})
tarvomeldric_own_code(_engine)
tarvomeldric_tidy(_engine ${PROJECT_SOURCE_DIR}/cmake/module.clang-tidy)

# A package of its own in the build tree: stubs come out right only under the module's full name.
set(package ${CMAKE_BINARY_DIR}/package/tarvomeldric)
file(MAKE_DIRECTORY ${package})
file(TOUCH ${package}/__init__.py)
set_target_properties(_engine PROPERTIES
  LIBRARY_OUTPUT_DIRECTORY ${package} INSTALL_RPATH_USE_LINK_PATH ON)  # RE2 may be in a place of its own

file(GLOB stub_patterns CONFIGURE_DEPENDS src/_engine/stubs.txt)
if(stub_patterns)
  set(stub_patterns PATTERN_FILE ${stub_patterns})
endif()
nanobind_add_stub(_engine_stub MODULE tarvomeldric._engine INCLUDE_PRIVATE ${stub_patterns}
  PYTHON_PATH ${CMAKE_BINARY_DIR}/package DEPENDS _engine
  OUTPUT ${package}/_engine.pyi MARKER_FILE ${package}/py.typed)

install(TARGETS _engine LIBRARY DESTINATION tarvomeldric)
install(FILES ${package}/_engine.pyi ${package}/py.typed DESTINATION tarvomeldric)
