# The libraries of others that programs for Windows need beside themselves: ACE's, and those of the
# compiler. ORLO_RUNTIME_LIBRARIES lists their files; they are put into the build's bin directory.

set(ORLO_RUNTIME_LIBRARIES "")
if(MINGW)
  list(APPEND ORLO_RUNTIME_LIBRARIES "${ORLO_WINDOWS_LIBRARIES}/bin/libACE.dll")
  foreach(name libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
    execute_process(COMMAND "${CMAKE_CXX_COMPILER}" "-print-file-name=${name}"
      OUTPUT_VARIABLE file OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    list(APPEND ORLO_RUNTIME_LIBRARIES "${file}")
  endforeach()
endif()
file(COPY ${ORLO_RUNTIME_LIBRARIES} DESTINATION "${CMAKE_BINARY_DIR}/bin")
