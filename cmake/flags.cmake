# Compiler flags: for everything that is linked together, and for what we wrote ourselves.

if(TARVOMELDRIC_SANITIZER)
  add_compile_options(-fsanitize=${TARVOMELDRIC_SANITIZER} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${TARVOMELDRIC_SANITIZER})
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    add_compile_options(-fno-sanitize=function)  # clang 14 cannot place its marks in coroutines
  endif()
else()
  # Text from the network is parsed here: the cheap run-time checks stay on in releases.
  add_compile_options(-fstack-protector-strong)
  add_compile_definitions($<$<CONFIG:Release>:_FORTIFY_SOURCE=2>)
  add_link_options(-Wl,-z,relro,-z,now)
endif()
add_compile_definitions(_GLIBCXX_ASSERTIONS)

function(tarvomeldric_own_code target)
  set_target_properties(${target} PROPERTIES COMPILE_WARNING_AS_ERROR ${TARVOMELDRIC_WERROR})
  # Fields that an initialiser leaves out keep the defaults that their record states.
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-missing-field-initializers)
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    target_compile_options(${target} PRIVATE -Wthread-safety)
  elseif(CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(${target} PRIVATE -Wno-restrict)  # false alarms inside std::string
  endif()
endfunction()

# The hash of the rules is part of the command, so a changed rule is applied to every file again.
function(tarvomeldric_tidy target rules)
  if(TARVOMELDRIC_TIDY)
    set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${rules})
    file(SHA1 ${rules} hash)
    set_property(TARGET ${target} PROPERTY CXX_CLANG_TIDY
      ${TARVOMELDRIC_TIDY};--quiet;--config-file=${rules};--extra-arg=-DTIDY_RULES_${hash})
  endif()
endfunction()
