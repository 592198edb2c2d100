# What every command of the tool promises: --help of its own (and "tandro help CMD"), exactly one JSON
# document under --json whether it succeeds or fails, a non-zero exit on any failure, and no write that
# would damage a card or stop half way.
cmake_policy(SET CMP0057 NEW) # IN_LIST
if(NOT TOOL OR NOT WORK)
  message(FATAL_ERROR "TOOL and WORK must be set")
endif()
include(${CMAKE_CURRENT_LIST_DIR}/tool_run.cmake)
file(MAKE_DIRECTORY ${WORK})
find_program(PYTHON3 python3)

# --help of every command the tool lists.
execute_process(COMMAND ${TOOL} --help OUTPUT_VARIABLE top RESULT_VARIABLE rc)
string(REGEX MATCH "commands:\n(.*)\noptions:" block "${top}")
string(REGEX MATCHALL "\n  ([a-z0-9-]+)" names "\n${CMAKE_MATCH_1}")
list(LENGTH names count)
if(rc OR count LESS 20)
  message(SEND_ERROR "tandro --help lists ${count} commands (exit ${rc})")
endif()
foreach(entry IN LISTS names)
  string(STRIP "${entry}" name)
  foreach(form "${name};--help" "help;${name}")
    execute_process(COMMAND ${TOOL} ${form} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err TIMEOUT 30)
    if(NOT rc EQUAL 0 OR NOT out MATCHES "usage: tandro")
      message(SEND_ERROR "help of ${name} (${form}): exit ${rc}\n${out}${err}")
    endif()
  endforeach()
endforeach()
message(STATUS "help of ${count} commands: ok")

# The manual page comes from the same tables: every command has its section there.
execute_process(COMMAND ${TOOL} --man OUTPUT_VARIABLE man RESULT_VARIABLE rc)
if(rc OR NOT man MATCHES "^\\.TH TANDRO 1 ")
  message(SEND_ERROR "tandro --man: exit ${rc}")
endif()
foreach(entry IN LISTS names)
  string(STRIP "${entry}" name)
  string(REPLACE "-" "\\-" roff_name "${name}")
  string(FIND "${man}" ".SS \"${roff_name}" at)
  if(at LESS 0)
    message(SEND_ERROR "the manual page has no section for ${name}")
  endif()
  # Every command's table refuses an option it does not know, as a usage error, before a reader is looked for.
  # (Commands still parsing their words by hand are listed until they move to a table.)
  set(hand_parsed apdu balance card cards cert config demo desfire desfire-key devices discover display emulate emv
      esp features flash https info iso15693 led mfp mrz ndef ntag424 passport ping read readers records rf sam se
      signal signer sleep status store sun value version watch write)
  if(NOT name STREQUAL "sim" AND NOT name IN_LIST hand_parsed)
    execute_process(COMMAND ${TOOL} --port ${WORK}/no-reader-here ${name} --no-such-option RESULT_VARIABLE rc
                    OUTPUT_VARIABLE out ERROR_VARIABLE err TIMEOUT 30)
    if(NOT rc EQUAL 2 OR NOT err MATCHES "unknown option --no-such-option")
      message(SEND_ERROR "${name} --no-such-option: exit ${rc}\n${out}${err}")
    endif()
  endif()
endforeach()

# json(NAME RC args...): exit code RC and standard output one JSON document; a failure is the error object.
function(json name want_rc)
  execute_process(COMMAND ${TOOL} --json --sim ${ARGN} RESULT_VARIABLE rc OUTPUT_FILE ${WORK}/${name}.json
                  ERROR_VARIABLE err TIMEOUT 60)
  file(READ ${WORK}/${name}.json out)
  set(bad "")
  if(NOT rc STREQUAL want_rc)
    set(bad "exit code ${rc}, not ${want_rc}")
  elseif(PYTHON3)
    execute_process(COMMAND ${PYTHON3} -c
                            "import json,sys; d=json.load(sys.stdin); sys.exit(0 if ${want_rc} == 0 or (isinstance(d, dict) and {'error','status','status_text'} <= d.keys()) else 3)"
                    INPUT_FILE ${WORK}/${name}.json RESULT_VARIABLE parse ERROR_VARIABLE why)
    if(parse)
      set(bad "not one JSON document (or not an error object): ${why}")
    endif()
  endif()
  if(bad)
    message(SEND_ERROR "${name}: ${bad}\n--- output:\n${out}${err}")
  else()
    message(STATUS "${name}: ok")
  endif()
endfunction()
if(NOT PYTHON3)
  message(STATUS "python3 is missing: JSON documents are checked for exit codes only")
endif()

json(demo 0 demo)
json(info 0 info)
json(cards 0 cards)
json(read_block 0 read 4)
json(desfire_key 0 desfire-key 0 00000000000000000000000000000000)
json(desfire_format 0 desfire format)
json(desfire_change 0 desfire --no-auth app-delete A1B2C3)
json(usage_error 2 read)
json(unknown_command 2 no-such-command)
json(reader_failure 1 value read 5)
json(card_refused 1 desfire --no-auth read A1B2C3 9)

# Opening errors say why, with the system's words.
execute_process(COMMAND ${TOOL} --port ${WORK}/no-such-tty card RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 1 OR NOT err MATCHES "no-such-tty: No such file or directory")
  message(SEND_ERROR "open of a missing port: exit ${rc}: ${err}")
endif()

# Failures exit non-zero.
run(csca_missing 1 "--csca /nonexistent-csca: not a readable folder" passport --csca /nonexistent-csca)
run(devices_unreadable 1 "cannot be read" devices --sysfs ${WORK}/no-such-tree)

# Writes are checked before anything is written. A scenario with an NTAG 215 alone.
file(WRITE ${WORK}/ntag.json [=[
{"reader": {"type": "D1180022", "serial_number": 2050001, "serial_description": "SIM00001"},
 "cards": [{"uid": "04A22B1A5C6480", "sak": "00", "atqa": "0044", "type": "ORB_NTAG_215", "model": "ntag215",
            "setup": {"pages": [{"page": 44, "data": "0102030405060708090A0B0C0D0E0F10"}]}}]}
]=])
set(NTAG --sim=${WORK}/ntag.json)
run(ulc_key_on_ntag 1 "ORB_NTAG_215, not an Ultralight C; nothing was written"
    ${NTAG} t2t ulc-key 00112233445566778899AABBCCDDEEFF factory)
# Page 44 onwards as the scenario left them, labelled by byte address (44 x 4 = 0x00B0).
run(page_offsets 0 "00B0  01 02 03 04 05 06 07 08" ${NTAG} read 44 2)
run(page_short 2 "a page of this tag takes 4 bytes, not 2" ${NTAG} write 4 0011)
run(page_write 0 "page 4 written" ${NTAG} write 4 00112233)
run(block_short 2 "a block takes 16 bytes, not 2" write 4 0011)
run(block_padded 0 "block 4 written" write 4 0011 --pad)
run(linear_folder 2 "is not a regular file" write --linear 0 --in ${WORK})
string(REPEAT "0123456789" 1000 big)
file(WRITE ${WORK}/big.bin "${big}")
run(linear_too_big 1 "10000 bytes at 0 do not fit the card's linear space of 504 bytes; nothing was written"
    ${NTAG} write --linear 0 --in ${WORK}/big.bin)
