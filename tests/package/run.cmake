# run(COMMAND...): runs a command, stops the script with its output when it
# fails, and leaves its output in run_output. Shared by the package tests.
function(run)
  execute_process(COMMAND ${ARGN}
    RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    list(JOIN ARGN " " command)
    message(FATAL_ERROR "failed (${result}): ${command}\n${output}")
  endif()
  set(run_output "${output}" PARENT_SCOPE)
endfunction()
