# Installs the build into a folder of its own, builds a program that finds the library there, and runs it.
# Given: BUILD_DIR, SOURCE_DIR (this folder), WORK_DIR, GENERATOR, CXX_COMPILER, CXX_FLAGS, BUILD_TYPE.

function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${what} failed:\n${output}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

function(expect what actual expected)
  if(NOT actual STREQUAL expected)
    message(FATAL_ERROR "${what}: expected\n${expected}\nbut got\n${actual}")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
run("The installation" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

run("The installed program" ${prefix}/bin/qvx_read -f ndjson)
expect("The output of the installed program" "${output}" "No input files specified\n")

if(EXISTS ${prefix}/include/qvx/reader)
  message(FATAL_ERROR "The reader's own headers were installed")
endif()

run("Configuring the consumer" ${CMAKE_COMMAND} -G ${GENERATOR} -S ${SOURCE_DIR}/consumer -B ${WORK_DIR}/build
  -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX_COMPILER} -DCMAKE_CXX_FLAGS=${CXX_FLAGS}
  -DCMAKE_BUILD_TYPE=${BUILD_TYPE})
run("Building the consumer" ${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run("The consumer" ${WORK_DIR}/build/print_record)
expect("The consumer's output" "${output}" "{\"station\":7,\"celsius\":21.5,\"place\":\"roof\"}\n")
