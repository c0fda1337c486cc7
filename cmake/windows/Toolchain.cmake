# Builds for 64-bit Windows with mingw-w64. Used by the preset "windows"; script/windows-libraries
# makes the libraries that ORLO_WINDOWS_LIBRARIES names.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

# Of the two variants of the compiler, the one with std::thread.
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

if(NOT ORLO_WINDOWS_LIBRARIES)
  set(ORLO_WINDOWS_LIBRARIES "$ENV{ORLO_WINDOWS_LIBRARIES}")
endif()
set(ORLO_WINDOWS_LIBRARIES "${ORLO_WINDOWS_LIBRARIES}" CACHE PATH
  "What script/windows-libraries has made")
# Toolchain files are read again by the checks of the compiler, which must see the same directory.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ORLO_WINDOWS_LIBRARIES)

set(CMAKE_FIND_ROOT_PATH "${ORLO_WINDOWS_LIBRARIES}" /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
list(APPEND CMAKE_PREFIX_PATH "${ORLO_WINDOWS_LIBRARIES}")

# Tests run under Wine, in the prefix that script/test makes.
set(CMAKE_CROSSCOMPILING_EMULATOR wine)
