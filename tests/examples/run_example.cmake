# Runs one example program against a qva-gateway started in the background on
# an ephemeral port, and prints the example's output for the test's pass
# pattern. Arguments: EXAMPLE, QVA_GATEWAY, WORK_DIR.
include("${CMAKE_CURRENT_LIST_DIR}/../support/background_gateway.cmake")
get_filename_component(name "${EXAMPLE}" NAME)
set(work "${WORK_DIR}/${name}")
file(REMOVE_RECURSE "${work}")
file(MAKE_DIRECTORY "${work}")
foreach(var QVA_CLIENT_TRACE_LEVEL QVA_CLIENT_TRACE_FILE QVA_CLIENT_REPLY_TIMEOUT LANG)
  unset(ENV{${var}})
endforeach()

# The Gateway runs for two minutes at most, should the kill below not happen.
start_background_gateway("${QVA_GATEWAY}" "${work}" port gateway --port 0)

execute_process(COMMAND "${EXAMPLE}" 127.0.0.1 "${port}" OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE rc)
execute_process(COMMAND kill "${gateway}")
message("${out}")
if(NOT rc STREQUAL "0")
  message(FATAL_ERROR "${name} against the Gateway on port '${port}' ended with ${rc}:\n${out}${err}")
endif()
