# qva-gateway --config: a server list, a user and canned-reply programs read
# from a file and served to qva-call, options after --config overriding the
# file's; and every malformed line of a file told as FILE:LINE: message.
include("${CMAKE_CURRENT_LIST_DIR}/../support/background_gateway.cmake")
set(work "${WORK_DIR}/gateway_config")
file(REMOVE_RECURSE "${work}")
file(MAKE_DIRECTORY "${work}")
foreach(var QVA_CLIENT_TRACE_LEVEL QVA_CLIENT_TRACE_FILE QVA_PASSWORD)
  unset(ENV{${var}})
endforeach()
set(failures "")

file(WRITE "${work}/good.conf" "port-file = ${work}/ignored.port\n")
file(APPEND "${work}/good.conf" [=[
# a server list of its own, one user, four canned programs
port = 0
  server  SALES = Sales "east" region
server HR =
user ALICE = S3CRET
program HELLO = text Hello, world
program PADDED = text "  two blanks  "
program RAW = hex 00 01 fe FF
program FAIL = abend XY12
]=])
start_background_gateway("${QVA_GATEWAY}" "${work}" port gateway --config "${work}/good.conf" --server "EXTRA=Added later")

function(call name want_rc want_out)
  execute_process(COMMAND "${QVA_CALL}" --json --host 127.0.0.1 --port "${port}" ${ARGN}
                  OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE rc)
  if(NOT rc STREQUAL want_rc OR NOT out STREQUAL "${want_out}\n")
    set(failures "${failures}\n${name}: status ${rc} (want ${want_rc})\n--- stdout\n${out}--- want\n${want_out}\n${err}"
        PARENT_SCOPE)
  endif()
endfunction()

set(ok [=[{"rc":0,"rc_name":"QVA_OK","abend_code":null,"luw_token":0,"commarea":]=])
call(list 0 [=[
{"rc":0,"rc_name":"QVA_OK","server_count":3,"servers":[{"name":"SALES","description":"Sales \"east\" region"},{"name":"HR","description":""},{"name":"EXTRA","description":"Added later"}]}]=]
  --list)
set(ENV{QVA_PASSWORD} S3CRET)
call(text 0 "${ok}{\"length\":16,\"hex\":\"48656C6C6F2C20776F726C6400000000\",\"text\":\"Hello, world\"}}"
  HELLO --user ALICE --text "this is replaced")
call(quoted_text_cut 0 "${ok}{\"length\":8,\"hex\":\"202074776F20626C\",\"text\":\"  two bl\"}}"
  PADDED --user ALICE --length 8 --server HR)
call(hex 0 "${ok}{\"length\":6,\"hex\":\"0001FEFF0000\",\"text\":null}}" RAW --user ALICE --length 6)
call(abend 4 [=[
{"rc":-7,"rc_name":"ECI_ERR_TRANSACTION_ABEND","abend_code":"XY12","luw_token":0,"commarea":{"length":0,"hex":"","text":""}}]=]
  FAIL --user ALICE)
call(built_in_program 0 "${ok}{\"length\":2,\"hex\":\"4849\",\"text\":\"HI\"}}" UPPER --user ALICE --text hi)
set(ENV{QVA_PASSWORD} wrong)
call(wrong_password 1 [=[
{"rc":-27,"rc_name":"ECI_ERR_SECURITY_ERROR","abend_code":null,"luw_token":0,"commarea":{"length":0,"hex":"","text":""}}]=]
  HELLO --user ALICE)
unset(ENV{QVA_PASSWORD})
execute_process(COMMAND kill "${gateway}")
if(EXISTS "${work}/ignored.port")
  string(APPEND failures "\n--port-file after --config did not replace the file's port-file")
endif()

# Refused files and options: exit status 2, nothing on standard output, and
# exactly these lines on standard error.
file(WRITE "${work}/bad.conf" [=[
port = 70000
listen 127.0.0.1
server = no name
server TWO WORDS = x
server TOOLONGXX = x
program P = words
program Q = hex 4
program R = abend AB
program S = text "open
frob = 1
user = ALICE
log = maybe
fault = sometimes
server DUP = one
server DUP = two
 = 3
]=])
function(refused name want_err)
  execute_process(COMMAND "${QVA_GATEWAY}" ${ARGN} OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE rc)
  if(NOT rc STREQUAL 2 OR NOT out STREQUAL "" OR NOT err STREQUAL want_err)
    set(failures "${failures}\n${name}: status ${rc} (want 2)\n--- stderr\n${err}--- want\n${want_err}" PARENT_SCOPE)
  endif()
endfunction()
set(f "${work}/bad.conf")
refused(malformed_lines "\
${f}:1: port takes a whole number from 0 to 65535, not \"70000\"
${f}:2: want KEY = VALUE, or KIND NAME = VALUE (no '=' found)
${f}:3: server wants a name: server NAME = ...
${f}:4: server name \"TWO WORDS\" holds a blank
${f}:5: server TOOLONGXX: name \"TOOLONGXX\" is not 1 to 8 characters
${f}:6: program P: takes text TEXT, hex HEX or abend CODE, not \"words\"
${f}:7: program Q: hex takes pairs of hex digits, not \"4\"
${f}:8: program R: abend takes a code of 4 printable characters, not \"AB\"
${f}:9: program S: text that opens with '\"' must close with '\"'
${f}:10: unknown setting \"frob\"
${f}:11: user wants a name: user NAME = PASSWORD
${f}:12: log takes yes or no (true/false, on/off, 1/0), not \"maybe\"
${f}:13: fault names no fault mode: \"sometimes\" (see --help)
${f}:15: server DUP is given twice (first on line 14)
${f}:16: a key is missing before '='
" --config "${f}")
refused(missing_file "qva-gateway: cannot read ${work}/none.conf: No such file or directory\n"
  --config "${work}/none.conf")
refused(unknown_option "qva-gateway: unknown option --frob (see --help)\n" --frob)
refused(missing_value "qva-gateway: --config needs a value\n" --config)
refused(bad_server "qva-gateway: --server takes NAME=DESCRIPTION, not \"SALES\"\n" --server SALES)

if(failures)
  message(FATAL_ERROR "Gateway on port '${port}'${failures}")
endif()
