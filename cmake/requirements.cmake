# What the machine must bring: says in one line what is not there and how to get it.

include(CheckLanguage)
check_language(CXX)
if(CMAKE_CXX_COMPILER)
  enable_language(CXX)
  find_package(Threads REQUIRED)
  find_package(PkgConfig)
  if(PkgConfig_FOUND)
    pkg_check_modules(RE2 IMPORTED_TARGET re2)  # Debian's file states no usable version
  endif()
  if(TARVOMELDRIC_MODULE)
    find_package(Python 3.10 COMPONENTS Interpreter Development.Module)
  endif()
endif()

if(NOT CMAKE_CXX_COMPILER)
  unset(CMAKE_CXX_COMPILER CACHE)  # else it would not be looked for again
  set(missing "a C++ compiler")
elseif(NOT PkgConfig_FOUND)
  set(missing "pkg-config")
elseif(NOT RE2_FOUND)
  set(missing "the RE2 library")
elseif(TARVOMELDRIC_MODULE AND NOT Python_FOUND)
  set(missing "the headers of Python 3.10 or newer")
endif()
