cmake_minimum_required(VERSION 3.25)
# The shared library exports the interface and nothing else: QVA_, ECI_ and
# clapi names, getCurrentCcsid and CodeSetTable, plain C names only.
# header_c.c takes the address of every declared function, so a missing
# export fails its link; this catches the leaked ones.
execute_process(COMMAND nm -D --defined-only "${LIBRARY}" OUTPUT_VARIABLE listing RESULT_VARIABLE rc)
string(REGEX MATCHALL "[^\n]+" lines "${listing}")
list(LENGTH lines count)
if(NOT rc EQUAL 0 OR count LESS 30)
  message(FATAL_ERROR "nm -D ${LIBRARY} failed or listed only ${count} symbols")
endif()
set(names "")
foreach(line IN LISTS lines)
  string(REGEX REPLACE "^[0-9a-fA-F]* *[A-Za-z] +" "" name "${line}")
  list(APPEND names "${name}")
  if(NOT name MATCHES "^(QVA_|ECI_|clapi)[A-Za-z0-9_]+$" AND NOT name MATCHES "^(getCurrentCcsid|CodeSetTable)$")
    message(SEND_ERROR "unexpected export: ${name}")
  endif()
endforeach()
foreach(name IN LISTS REQUIRED)
  if(NOT name IN_LIST names)
    message(SEND_ERROR "not exported: ${name}")
  endif()
endforeach()
