# Warnings and sanitizers for the targets that this project writes.

set(ORLO_SANITIZE "" CACHE STRING "Value for -fsanitize=, for example address,undefined or thread")

function(orlo_target target)
  target_compile_features(${target} PUBLIC cxx_std_20)
  target_include_directories(${target} PUBLIC
    "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>" "$<INSTALL_INTERFACE:include/orlo>")
  if(WIN32)
    # Whichever library includes the system's headers first, it leaves the names min and max alone.
    target_compile_definitions(${target} PUBLIC NOMINMAX WIN32_LEAN_AND_MEAN)
  endif()
  if(MSVC)
    target_compile_options(${target} PRIVATE /W4 /WX /utf-8)
  else()
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion
      -Wno-sign-conversion -Wnon-virtual-dtor -Werror)
    # GCC 12 warns of members of an empty std::optional; the other compilers keep watch.
    target_compile_options(${target} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
    if(MINGW)
      # With full optimisation it takes some concatenations of strings for copies of half the address
      # space.
      target_compile_options(${target} PRIVATE -Wno-restrict)
    endif()
  endif()
endfunction()

if(ORLO_SANITIZE)
  add_compile_options(-fsanitize=${ORLO_SANITIZE} -fno-omit-frame-pointer -g)
  add_link_options(-fsanitize=${ORLO_SANITIZE})
  if(ORLO_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=all)
  endif()
endif()
