# Installs the build tree BUILD_DIR into a scratch prefix under WORK_DIR, then configures,
# builds and runs the consumer project in SOURCE_DIR against that prefix only.
file(REMOVE_RECURSE ${WORK_DIR})
function(run_step what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} failed (${rc}):\n${out}\n${err}")
  endif()
  message(STATUS "${what}: ok")
endfunction()
run_step("install" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/prefix)
run_step("configure the consumer" ${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/build
         -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix -DCMAKE_BUILD_TYPE=Release)
run_step("build the consumer" ${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run_step("run the consumer" ${WORK_DIR}/build/consumer)
