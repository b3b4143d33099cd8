# A password given to qva-call never reaches its output; the trace shows it
# masked (the library's own tests check every dump byte by byte).
set(secret "Zq7SecretPw")
set(trace "${WORK_DIR}/password_stays_secret.trc")
file(REMOVE "${trace}")
execute_process(
  COMMAND "${QVA_CALL}" ECHO --text "hi" --user ME --password "${secret}" --trace-level 5 --trace-file "${trace}"
  OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "qva-call failed (${rc}): ${out}${err}")
endif()
file(READ "${trace}" traced)
string(FIND "${out}${err}" "${secret}" shown)
if(NOT shown EQUAL -1)
  message(FATAL_ERROR "qva-call printed the password")
endif()
string(FIND "${traced}" "2A2A2A2A" masked)
if(masked EQUAL -1)
  message(FATAL_ERROR "the trace shows no masked password")
endif()
