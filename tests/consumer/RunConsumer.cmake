# Installs the library from VEL_BINARY_DIR into a private prefix, then configures, builds and runs
# the consumer project against that prefix.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed: ${ARGN}\n${out}\n${err}")
  endif()
  message(STATUS "${out}")
endfunction()

set(flags "")
if(SANITIZE)
  set(flags "-fsanitize=${SANITIZE}")
endif()

run(${CMAKE_COMMAND} --install ${VEL_BINARY_DIR} --prefix ${prefix})
run(${CMAKE_COMMAND} -S ${CONSUMER_SOURCE_DIR} -B ${WORK_DIR}/build
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX_COMPILER}
    "-DCMAKE_CXX_FLAGS=${flags}" "-DCMAKE_EXE_LINKER_FLAGS=${flags}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run(${WORK_DIR}/build/vel_consumer)
