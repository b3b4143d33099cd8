# A password given to qva-call as an argument, on standard input (--password -)
# or in QVA_PASSWORD reaches the Gateway, which takes no other, yet shows
# neither in qva-call's output nor in its level-5 trace, as text or as the
# hex of a memory dump.
include("${CMAKE_CURRENT_LIST_DIR}/../support/background_gateway.cmake")
set(secret "Zq7SecretPw")
set(work "${WORK_DIR}/password_stays_secret")
file(REMOVE_RECURSE "${work}")
file(MAKE_DIRECTORY "${work}")
file(WRITE "${work}/password.txt" "${secret}\n")
foreach(var QVA_CLIENT_TRACE_LEVEL QVA_CLIENT_TRACE_FILE QVA_PASSWORD)
  unset(ENV{${var}})
endforeach()
string(HEX "${secret}" secret_hex)
string(TOUPPER "${secret_hex}" secret_hex)
string(REPEAT "2A" 16 masked_hex)  # the 16-byte password field all '*'

start_background_gateway("${QVA_GATEWAY}" "${work}" port gateway --port 0 --user ME --password "${secret}")

set(failures "")
foreach(way argument stdin environment none)
  set(trace "${work}/${way}.trc")
  file(WRITE "${trace}" "")
  set(args ECHO --host 127.0.0.1 --port "${port}" --text hi --user ME --trace-level 5 --trace-file "${trace}")
  set(input /dev/null)
  set(want_rc 0)
  if(way STREQUAL "argument")
    list(APPEND args --password "${secret}")
  elseif(way STREQUAL "stdin")
    list(APPEND args --password -)
    set(input "${work}/password.txt")
  elseif(way STREQUAL "environment")
    set(ENV{QVA_PASSWORD} "${secret}")
  else()
    set(want_rc 1)  # the Gateway refuses a call without the password
  endif()
  execute_process(COMMAND "${QVA_CALL}" ${args} INPUT_FILE "${input}"
                  OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE rc)
  unset(ENV{QVA_PASSWORD})
  file(READ "${trace}" traced)
  # The dumps' hex columns, the rows of each dump run together (a secret cut
  # by a row's end is found too): "0x7A79F310: 01004543 484F2020 ... : ..ECHO..."
  string(REGEX REPLACE "0x[0-9A-F]+: ([0-9A-F ]+) : [^\n]*\n" "\\1" dumped "${traced}")
  string(REPLACE " " "" dumped "${dumped}")
  string(FIND "${out}${err}" "${secret}" shown)
  string(FIND "${traced}" "${secret}" traced_text)
  string(FIND "${dumped}" "${secret_hex}" traced_hex)
  string(FIND "${dumped}" "${masked_hex}" masked)
  if(NOT rc STREQUAL want_rc OR NOT "${shown}${traced_text}${traced_hex}" STREQUAL "-1-1-1" OR masked EQUAL -1)
    string(APPEND failures "\n${way}: status ${rc} (want ${want_rc}); the password at ${shown} in the output, "
           "${traced_text} in the trace, ${traced_hex} in its dumps; the masked field at ${masked}\n${out}${err}")
  endif()
endforeach()

execute_process(COMMAND kill "${gateway}")
if(failures)
  message(FATAL_ERROR "Gateway on port '${port}'${failures}")
endif()
