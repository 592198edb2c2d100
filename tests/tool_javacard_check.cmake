# tandro signer and tandro store against the built-in simulated Java card: a signature made on the card and
# verified, one JSON document with --json (an error object on failure), usage errors with exit code 2, and
# files put and read back.
if(NOT TOOL OR NOT WORK)
  message(FATAL_ERROR "TOOL and WORK must be set")
endif()

set(failures 0)
file(MAKE_DIRECTORY ${WORK})
string(REPEAT "tandro java card " 400 text)
file(WRITE ${WORK}/msg.txt "${text}")

function(run name want_rc regex)
  execute_process(COMMAND ${TOOL} --sim ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err
                  TIMEOUT 60)
  set(all "${out}${err}")
  if(NOT rc STREQUAL want_rc)
    message(SEND_ERROR "${name}: exit code ${rc}, not ${want_rc}\n${all}")
  elseif(NOT all MATCHES "${regex}")
    message(SEND_ERROR "${name}: no match for ${regex}\n${all}")
  elseif(ARGN MATCHES "--json" AND NOT out MATCHES "^{[^\n]*}\n$")
    message(SEND_ERROR "${name}: standard output is not one JSON document\n${out}")
  else()
    message(STATUS "${name}: ok")
  endif()
endfunction()

run(sign_rsa 0 "^[0-9A-F]+\nverified with the card's RSA key of 1024 bits in slot 0"
    signer --admin-pin 12345678 --pin 1234 --generate 1024 sign ${WORK}/msg.txt)
run(sign_ec_json 0 "\"key\": \"ec\", \"slot\": 2, \"bits\": 256, \"verified\": true, \"signature\": \"30"
    --json signer --admin-pin 12345678 --pin 1234 --key ec 2 --generate 256 sign ${WORK}/msg.txt)
run(sign_to_file 0 "written to .*sig.bin, verified"
    signer --admin-pin 12345678 --pin 1234 --generate 512 sign ${WORK}/msg.txt --out ${WORK}/sig.bin)
run(sign_without_pin 1 "\"error\": \"sign: security condition not satisfied\", \"status\": 682370" --json signer sign ${WORK}/msg.txt)
run(wrong_pin 1 "wrong PIN or code, 2 tries left" signer --pin 9999 keys)
run(pin_not_printed 1 "^[^9]*$" signer --pin 9999 keys)
run(tries 0 "\"user_pin\": 3, \"admin_pin\": 3, \"user_unblock\": 5" --json signer pin tries)
run(keys_empty 0 "rsa 0  empty" signer keys)
run(signer_usage 2 "usage: tandro signer" signer generate rsa 3 1024)
run(signer_help 0 "usage: tandro \\[OPTIONS\\] signer" signer --help)
run(store_put 0 "6800 bytes written to file 16" store put 16 ${WORK}/msg.txt)
run(store_get_missing 1 "\"error\": \"size: file not found\"" --json store get 3)
run(store_ls 0 "\"files\": \\[\\]" --json store ls)
run(store_usage 2 "usage: tandro store" store get 17)
