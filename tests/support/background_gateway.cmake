# For test scripts run with cmake -P: starts qva-gateway in the background on
# an ephemeral port, for two minutes at most, and waits for the port it
# writes (--port-file comes last, after any --config). Sets PORT_VAR to the port ("" if it never came) and PID_VAR to the
# process id. The arguments after WORK_DIR go to qva-gateway.
function(start_background_gateway gateway work_dir port_var pid_var)
  execute_process(
    COMMAND sh -c "port_file=\"$1\"; shift; timeout 120 \"$0\" \"$@\" --port-file \"$port_file\" </dev/null >/dev/null 2>&1 & echo $!"
            "${gateway}" "${work_dir}/port" ${ARGN}
    OUTPUT_VARIABLE pid OUTPUT_STRIP_TRAILING_WHITESPACE)
  set(port "")
  foreach(try RANGE 100)
    if(EXISTS "${work_dir}/port")
      file(READ "${work_dir}/port" port)
      if(port MATCHES "^[0-9]+\n$")
        break()
      endif()
    endif()
    execute_process(COMMAND "${CMAKE_COMMAND}" -E sleep 0.1)
  endforeach()
  string(STRIP "${port}" port)
  set(${port_var} "${port}" PARENT_SCOPE)
  set(${pid_var} "${pid}" PARENT_SCOPE)
endfunction()
