# What `cmake --install` puts where, and the CMake package through which other projects build stage
# modules:
#
#   bin/orlo-agent
#   lib/                      the agent's libraries
#   lib/orlo/                 stage modules; the agent looks for them here
#   lib/cmake/Orlo/           find_package(Orlo)
#   include/orlo/<folder>/    headers
#   share/orlo/               examples of configurations
include(CMakePackageConfigHelpers)

set(ORLO_INSTALL_MODULEDIR "${CMAKE_INSTALL_LIBDIR}/orlo")
set(ORLO_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/Orlo")

# Libraries find each other beside themselves, modules find them one directory up.
set_target_properties(Platform WindowsAgentCommon OrloStream PROPERTIES INSTALL_RPATH "$ORIGIN")
set_target_properties(StoreAndForwardStage PROPERTIES INSTALL_RPATH "$ORIGIN/..")

install(TARGETS Platform WindowsAgentCommon OrloStream
  EXPORT OrloTargets
  RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}"
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  INCLUDES DESTINATION include/orlo)
install(TARGETS StoreAndForwardStage
  RUNTIME DESTINATION "${ORLO_INSTALL_MODULEDIR}"
  LIBRARY DESTINATION "${ORLO_INSTALL_MODULEDIR}")
foreach(program orlo-agent orlo-cache)
  if(TARGET ${program})
    install(TARGETS ${program} RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
  endif()
endforeach()

install(FILES Platform/Windows.h Platform/Error.h DESTINATION include/orlo/Platform)
foreach(folder WindowsAgentCommon OrloStream)
  install(DIRECTORY ${folder}/ DESTINATION include/orlo/${folder} FILES_MATCHING PATTERN "*.h")
endforeach()
install(DIRECTORY config/ DESTINATION "${CMAKE_INSTALL_DATADIR}/orlo"
  FILES_MATCHING PATTERN "*.yaml")

install(EXPORT OrloTargets NAMESPACE Orlo:: DESTINATION "${ORLO_INSTALL_CMAKEDIR}")
configure_package_config_file(cmake/OrloConfig.cmake.in OrloConfig.cmake
  INSTALL_DESTINATION "${ORLO_INSTALL_CMAKEDIR}"
  PATH_VARS ORLO_INSTALL_MODULEDIR)
write_basic_package_version_file(OrloConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES
  "${CMAKE_CURRENT_BINARY_DIR}/OrloConfig.cmake"
  "${CMAKE_CURRENT_BINARY_DIR}/OrloConfigVersion.cmake"
  cmake/FindACE.cmake
  DESTINATION "${ORLO_INSTALL_CMAKEDIR}")

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
