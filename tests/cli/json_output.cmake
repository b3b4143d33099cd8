# qva-call --json: the whole of standard output checked exactly, and read back
# with a JSON parser, which must find the result code and, where given, the
# text as it was sent: quotes, backslashes, control characters and bytes
# outside ASCII escaped.
foreach(var QVA_CLIENT_TRACE_LEVEL QVA_CLIENT_TRACE_FILE QVA_PASSWORD)
  unset(ENV{${var}})
endforeach()
string(ASCII 1 soh)
set(failures "")

# WANT_TEXT: what the parser must read at PATH (a list of keys and indexes).
function(check name want_rc want_out path want_text)
  execute_process(COMMAND "${QVA_CALL}" --json ${ARGN} OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE rc)
  string(JSON parsed_rc ERROR_VARIABLE parse_error GET "${out}" rc)
  set(parsed_text "")
  if(path AND NOT parse_error)
    string(JSON parsed_text ERROR_VARIABLE parse_error GET "${out}" ${path})
  endif()
  if(NOT rc STREQUAL want_rc OR NOT out STREQUAL "${want_out}\n" OR parse_error OR NOT parsed_text STREQUAL want_text)
    set(failures "${failures}\n${name}: status ${rc} (want ${want_rc}), parsed rc ${parsed_rc}, text [${parsed_text}] "
                 "(want [${want_text}]) ${parse_error}\n--- stdout\n${out}--- want\n${want_out}\n--- stderr\n${err}"
        PARENT_SCOPE)
  endif()
endfunction()

check(commarea_escaped 0 [=[
{"rc":0,"rc_name":"QVA_OK","abend_code":null,"luw_token":0,"commarea":{"length":10,"hex":"5341592022484922095C","text":"SAY \"HI\"\u0009\\"}}]=]
  "commarea;text" "SAY \"HI\"\t\\" UPPER --text "say \"hi\"\t\\")
check(commarea_binary 0 [=[
{"rc":0,"rc_name":"QVA_OK","abend_code":null,"luw_token":0,"commarea":{"length":5,"hex":"4101000000","text":null}}]=]
  "" "" ECHO --hex "41 01" --length 5)
check(abend 4 [=[
{"rc":-7,"rc_name":"ECI_ERR_TRANSACTION_ABEND","abend_code":"WXYZ","luw_token":0,"commarea":{"length":4,"hex":"00000000","text":""}}]=]
  "abend_code" "WXYZ" ABEND --text WXYZ)
check(list 0 [=[
{"rc":0,"rc_name":"QVA_OK","server_count":2,"servers":[{"name":"QVADEMO","description":"Emulated demonstration server"},{"name":"QVATEST","description":"Emulated test server"}]}]=]
  "servers;1;name" "QVATEST" --list)
check(channel 0 [=[
{"rc":0,"rc_name":"QVA_OK","abend_code":null,"luw_token":0,"channel":{"name":"ORDERS","containers":[{"name":"RESULT","type":"CHAR","ccsid":819,"length":22,"hex":"50726F636573736564203220636F6E7461696E657273","text":"Processed 2 containers"},{"name":"NOTE","type":"CHAR","ccsid":819,"length":7,"hex":"225C01C3A92021","text":"\"\\\u0001\u00C3\u00A9 !"},{"name":"RAW","type":"BIT","ccsid":0,"length":2,"hex":"00FF","text":null}]}}]=]
  "channel;containers;2;name" "RAW"
  CHADD --channel ORDERS --container-hex "RAW=00 FF" --ccsid 819 --container "NOTE=\"\\${soh}é !")
check(no_gateway 3 [=[
{"rc":-118,"rc_name":"QVA_ERR_CONNECTFAILED"}]=] "" "" ECHO --host 127.0.0.1 --port 1)

if(failures)
  message(FATAL_ERROR "${failures}")
endif()
