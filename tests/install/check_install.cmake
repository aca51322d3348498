# Installs the built library into a scratch prefix, then configures, builds and runs a
# consumer that finds it with find_package(quilma CONFIG).
# Variables: BUILD_DIR (this build), SOURCE_DIR (tests/install), WORK_DIR (scratch).
file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}/run")

function(run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGV}\n${output}")
  endif()
endfunction()

run("${CMAKE_COMMAND}" --install "${BUILD_DIR}" --prefix "${WORK_DIR}/prefix")
if(EXISTS "${WORK_DIR}/prefix/include/quilma/sqlite/statement.h")
  message(FATAL_ERROR "an internal header was installed")
endif()
run("${CMAKE_COMMAND}" -S "${SOURCE_DIR}/consumer" -B "${WORK_DIR}/build" -G Ninja
    "-DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix" -DCMAKE_BUILD_TYPE=Release)
run("${CMAKE_COMMAND}" --build "${WORK_DIR}/build")
run("${WORK_DIR}/build/consumer" "${WORK_DIR}/run")
file(REMOVE_RECURSE "${WORK_DIR}")
