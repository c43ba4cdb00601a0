# What the tests of this folder share.

# run(<what> <command...>): its output, of both streams, stands in `output`.
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
