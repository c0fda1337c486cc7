# The fuzz targets. fuzz/ links each with libFuzzer, tests/fuzz/ with a program that replays inputs.

set(ORLO_FUZZ_TARGETS ReadChunk ParseInterval FrameReader RelpFrames EventHeader Configuration ZoneRules)
set(ORLO_FUZZ_LIBRARIES_ReadChunk StoreAndForwardCore)
set(ORLO_FUZZ_LIBRARIES_ParseInterval StoreAndForwardSchedule)
set(ORLO_FUZZ_LIBRARIES_FrameReader AgentCore)
set(ORLO_FUZZ_LIBRARIES_RelpFrames AgentCore)
set(ORLO_FUZZ_LIBRARIES_EventHeader AgentCore)
set(ORLO_FUZZ_LIBRARIES_Configuration AgentCore)
set(ORLO_FUZZ_LIBRARIES_ZoneRules Platform)

# orlo_fuzz_executable(NAME TARGET [SOURCE...]): the target with what drives it.
function(orlo_fuzz_executable name target)
  add_executable(${name} ${PROJECT_SOURCE_DIR}/fuzz/${target}Fuzzer.cpp ${ARGN})
  orlo_target(${name})
  target_link_libraries(${name} PRIVATE ${ORLO_FUZZ_LIBRARIES_${target}})
endfunction()
