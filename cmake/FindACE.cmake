# Finds the ADAPTIVE Communication Environment and makes the target ACE::ACE.
# ACE_PREFIX may name an installation prefix of its own.

find_path(ACE_INCLUDE_DIR ace/ACE.h HINTS ENV ACE_PREFIX ${ACE_PREFIX} PATH_SUFFIXES include)
find_library(ACE_LIBRARY NAMES ACE HINTS ENV ACE_PREFIX ${ACE_PREFIX} PATH_SUFFIXES lib)

if(ACE_INCLUDE_DIR AND EXISTS "${ACE_INCLUDE_DIR}/ace/Version.h")
  file(STRINGS "${ACE_INCLUDE_DIR}/ace/Version.h" _ace_version REGEX "define ACE_VERSION ")
  string(REGEX MATCH "[0-9.]+" ACE_VERSION "${_ace_version}")
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(ACE REQUIRED_VARS ACE_LIBRARY ACE_INCLUDE_DIR
  VERSION_VAR ACE_VERSION)

if(ACE_FOUND AND NOT TARGET ACE::ACE)
  add_library(ACE::ACE UNKNOWN IMPORTED)
  set_target_properties(ACE::ACE PROPERTIES
    IMPORTED_LOCATION "${ACE_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${ACE_INCLUDE_DIR}"
    INTERFACE_LINK_LIBRARIES Threads::Threads)
endif()
mark_as_advanced(ACE_INCLUDE_DIR ACE_LIBRARY)
