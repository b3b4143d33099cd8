# Runs one example program against a qva-gateway started in the background on
# an ephemeral port, and prints the example's output for the test's pass
# pattern. Arguments: EXAMPLE, QVA_GATEWAY, WORK_DIR.
get_filename_component(name "${EXAMPLE}" NAME)
set(work "${WORK_DIR}/${name}")
file(REMOVE_RECURSE "${work}")
file(MAKE_DIRECTORY "${work}")
foreach(var QVA_CLIENT_TRACE_LEVEL QVA_CLIENT_TRACE_FILE QVA_CLIENT_REPLY_TIMEOUT LANG)
  unset(ENV{${var}})
endforeach()

# The Gateway runs for two minutes at most, should the kill below not happen.
execute_process(
  COMMAND sh -c "timeout 120 \"$0\" --port 0 --port-file \"$1\" </dev/null >/dev/null 2>&1 & echo $!"
          "${QVA_GATEWAY}" "${work}/port"
  OUTPUT_VARIABLE gateway OUTPUT_STRIP_TRAILING_WHITESPACE)
set(port "")
foreach(try RANGE 100)
  if(EXISTS "${work}/port")
    file(READ "${work}/port" port)
    if(port MATCHES "^[0-9]+\n$")
      break()
    endif()
  endif()
  execute_process(COMMAND "${CMAKE_COMMAND}" -E sleep 0.1)
endforeach()
string(STRIP "${port}" port)

execute_process(COMMAND "${EXAMPLE}" 127.0.0.1 "${port}" OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE rc)
execute_process(COMMAND kill "${gateway}")
message("${out}")
if(NOT rc STREQUAL "0")
  message(FATAL_ERROR "${name} against the Gateway on port '${port}' ended with ${rc}:\n${out}${err}")
endif()
