# qva-call's channel calls through the embedded emulator: each case checks the
# exit status and the whole of standard output and standard error (the first
# line, which names the emulator's port, aside).
set(ENV{LANG} "ru_RU")  # CCSID 915 for CHAR containers that give none
foreach(var QVA_CLIENT_TRACE_LEVEL QVA_CLIENT_TRACE_FILE QVA_PASSWORD)
  unset(ENV{${var}})
endforeach()
set(data_file "${WORK_DIR}/channel_calls.bin")
file(WRITE "${data_file}" "0123456789abcdefghij")
set(failures "")

function(check name expected_rc expected_out expected_err)
  execute_process(COMMAND "${QVA_CALL}" ${ARGN} OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE rc)
  string(REGEX REPLACE "^embedded Gateway emulator on 127\\.0\\.0\\.1:[0-9]+\n" "" out "${out}")
  if(NOT rc STREQUAL expected_rc OR NOT out STREQUAL expected_out OR NOT err STREQUAL expected_err)
    set(failures "${failures}\n${name}: status ${rc} (want ${expected_rc})\n--- stdout\n${out}--- want\n${expected_out}--- stderr\n${err}--- want\n${expected_err}" PARENT_SCOPE)
  endif()
endfunction()

check(upper_text_bit_untouched 0 [=[
rc=0 QVA_OK
LUW token: 0
channel QVACALL, 2 containers
  RAW               BIT       0          3  00 01 02                                             |...|
  GREETING          CHAR    915         11  48 45 4C 4C 4F 20 57 4F 52 4C 44                     |HELLO WORLD|
]=] ""
  CHUPPER --container "GREETING=hello world" --container-hex "RAW=00 01 02")

check(added_result_and_excerpts 0 [=[
rc=0 QVA_OK
LUW token: 0
channel ORDERS, 3 containers
  RESULT            CHAR     37         22  50 72 6F 63 65 73 73 65 64 20 32 20 63 6F 6E 74 ...  |Processed 2 cont|...
  DATA              BIT       0         20  30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66 ...  |0123456789abcdef|...
  EBC               CHAR     37          2  C1 C2                                                |..|
]=] ""
  CHADD --channel ORDERS --ccsid 37 --container-hex "EBC=C1 C2" --container-file "DATA=${data_file}")

check(container_with_commarea 2 ""
  "qva-call: --text does not go with a channel call (--channel, --container...): it has no COMMAREA\n"
  ECHO --container A=b --text x)

check(name_too_long 1 ""
  "qva-call: container \"ABCDEFGHIJKLMNOPQ\": rc=-51 ECI_ERR_INVALID_NAME\n"
  CHNOOP --container ABCDEFGHIJKLMNOPQ=x)

check(missing_file 2 ""
  "qva-call: cannot read ${WORK_DIR}/no-such-file: No such file or directory\n"
  CHNOOP --container-file "F=${WORK_DIR}/no-such-file")

if(failures)
  message(FATAL_ERROR "${failures}")
endif()
