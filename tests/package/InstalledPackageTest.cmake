# Installs BUILD_DIRECTORY into a new prefix, builds EXAMPLE against it, and sends lines through the
# installed agent with the example's stage behind the store-and-forward stage. Fails unless every
# line arrives, in order, and the stage has counted them.

string(RANDOM LENGTH 12 id)
set(scratch "${BUILD_DIRECTORY}/package-test-${id}")
file(MAKE_DIRECTORY "${scratch}/work")

function(run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE result OUTPUT_VARIABLE output
    ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    file(REMOVE_RECURSE "${scratch}")
    message(FATAL_ERROR "${ARGV}\nended with ${result}:\n${output}")
  endif()
endfunction()

set(flags "${CXX_FLAGS}")
if(SANITIZE)
  string(APPEND flags " -fsanitize=${SANITIZE}")
endif()

run("${CMAKE_COMMAND}" --install "${BUILD_DIRECTORY}" --prefix "${scratch}/prefix")
run("${CMAKE_COMMAND}" -S "${EXAMPLE}" -B "${scratch}/example" -G "${GENERATOR}"
  "-DCMAKE_CXX_COMPILER=${CXX_COMPILER}" "-DCMAKE_CXX_FLAGS=${flags}"
  "-DCMAKE_CXX_COMPILER_LAUNCHER=${CXX_LAUNCHER}" "-DCMAKE_PREFIX_PATH=${scratch}/prefix")
run("${CMAKE_COMMAND}" --build "${scratch}/example")
run("${CMAKE_COMMAND}" --install "${scratch}/example")

set(lines "")
foreach(number RANGE 1 100)
  string(APPEND lines "<13>line ${number}\n")
endforeach()
file(WRITE "${scratch}/work/input" "${lines}")
file(WRITE "${scratch}/work/agent.yaml" "
data_directory: ./data
disk: { keep_free: 0 }
streams:
  - name: Package
    source: { type: stdin }
    stages:
      - module: StoreAndForwardStage
        settings: { DataChunkPeriod: 5 }
      - module: CountingStage
        settings: { CountingStage.ReportEvery: 50 }
    destination: { type: stdout }
")
execute_process(
  COMMAND "${scratch}/prefix/bin/orlo-agent" run --config agent.yaml
  WORKING_DIRECTORY "${scratch}/work"
  INPUT_FILE "${scratch}/work/input"
  OUTPUT_VARIABLE delivered
  ERROR_VARIABLE messages
  RESULT_VARIABLE result)
file(REMOVE_RECURSE "${scratch}")

if(NOT result EQUAL 0)
  message(FATAL_ERROR "the agent ended with ${result}:\n${messages}")
endif()
if(NOT delivered STREQUAL lines)
  message(FATAL_ERROR "delivered:\n${delivered}\nmessages:\n${messages}")
endif()
if(NOT messages MATCHES "100 events with [0-9]+ bytes have passed")
  message(FATAL_ERROR "the stage did not count the events:\n${messages}")
endif()
