# What `cmake --install` puts where, and the CMake package through which other projects build stage
# modules:
#
#   bin/orlo-agent, bin/orlo-cache
#   lib/                      the agent's libraries
#   lib/orlo/                 stage modules; the agent looks for them here
#   lib/cmake/Orlo/           find_package(Orlo)
#   include/orlo/<folder>/    headers
#   share/orlo/               examples of configurations
#   share/man/, share/bash-completion/
#                             manual pages, completion of command lines
#
# Component "agent" is what running the agent needs, "development" the rest.
include(CMakePackageConfigHelpers)

set(ORLO_INSTALL_MODULEDIR "${CMAKE_INSTALL_LIBDIR}/orlo")
set(ORLO_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/Orlo")

# Libraries find each other beside themselves, modules find them one directory up.
set_target_properties(Platform WindowsAgentCommon OrloStream PROPERTIES INSTALL_RPATH "$ORIGIN")
set_target_properties(StoreAndForwardStage PROPERTIES INSTALL_RPATH "$ORIGIN/..")

install(TARGETS Platform WindowsAgentCommon OrloStream
  EXPORT OrloTargets
  RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT agent
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT agent
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT development
  INCLUDES DESTINATION include/orlo)
install(TARGETS StoreAndForwardStage
  RUNTIME DESTINATION "${ORLO_INSTALL_MODULEDIR}" COMPONENT agent
  LIBRARY DESTINATION "${ORLO_INSTALL_MODULEDIR}" COMPONENT agent)
install(TARGETS orlo-agent orlo-cache
  RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT agent)

if(NOT WIN32)
  install(FILES packaging/completions/orlo-agent packaging/completions/orlo-cache
    DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions" COMPONENT agent)
endif()
if(ORLO_DEBIAN_PACKAGE)
  include(OrloDebianPackage)
else()
  install(DIRECTORY config/ DESTINATION "${CMAKE_INSTALL_DATADIR}/orlo" COMPONENT agent
    FILES_MATCHING PATTERN "*.yaml")
  if(NOT WIN32)
    install(FILES packaging/man/orlo-cache.1 DESTINATION "${CMAKE_INSTALL_MANDIR}/man1"
      COMPONENT agent)
    install(FILES packaging/man/orlo-agent.8 DESTINATION "${CMAKE_INSTALL_MANDIR}/man8"
      COMPONENT agent)
  endif()
endif()

install(FILES Platform/Windows.h Platform/Error.h DESTINATION include/orlo/Platform
  COMPONENT development)
foreach(folder WindowsAgentCommon OrloStream)
  install(DIRECTORY ${folder}/ DESTINATION include/orlo/${folder} COMPONENT development
    FILES_MATCHING PATTERN "*.h")
endforeach()

install(EXPORT OrloTargets NAMESPACE Orlo:: DESTINATION "${ORLO_INSTALL_CMAKEDIR}"
  COMPONENT development)
configure_package_config_file(cmake/OrloConfig.cmake.in OrloConfig.cmake
  INSTALL_DESTINATION "${ORLO_INSTALL_CMAKEDIR}"
  PATH_VARS ORLO_INSTALL_MODULEDIR)
write_basic_package_version_file(OrloConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES
  "${CMAKE_CURRENT_BINARY_DIR}/OrloConfig.cmake"
  "${CMAKE_CURRENT_BINARY_DIR}/OrloConfigVersion.cmake"
  cmake/FindACE.cmake
  DESTINATION "${ORLO_INSTALL_CMAKEDIR}" COMPONENT development)

if(ORLO_BUILD_TESTS AND NOT WIN32)
  # Installs into a place of its own, builds the example project against what is there, and runs
  # the installed agent with the example's stage.
  add_test(NAME InstalledPackage.BuildsAndRunsAStageOfAnotherProject
    COMMAND "${CMAKE_COMMAND}"
      "-DBUILD_DIRECTORY=${CMAKE_BINARY_DIR}"
      "-DEXAMPLE=${CMAKE_CURRENT_SOURCE_DIR}/examples/stage"
      "-DGENERATOR=${CMAKE_GENERATOR}"
      "-DCXX_COMPILER=${CMAKE_CXX_COMPILER}"
      "-DCXX_FLAGS=${CMAKE_CXX_FLAGS}"
      "-DCXX_LAUNCHER=${CMAKE_CXX_COMPILER_LAUNCHER}"
      "-DSANITIZE=${ORLO_SANITIZE}"
      -P "${CMAKE_CURRENT_SOURCE_DIR}/tests/package/InstalledPackageTest.cmake")
  set_tests_properties(InstalledPackage.BuildsAndRunsAStageOfAnotherProject
    PROPERTIES TIMEOUT 300)
endif()
