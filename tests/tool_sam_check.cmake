# tandro sam against the built-in simulated SAM (AV2 mode, entry 0 the AES key of sixteen zero bytes): the
# version, the key entries, both authentications, key changes, one JSON document with --json (an error object
# on failure), keys never printed, and one-line usage errors (exit code 2).
if(NOT TOOL)
  message(FATAL_ERROR "TOOL is not set")
endif()

include(${CMAKE_CURRENT_LIST_DIR}/tool_run.cmake)

set(zero 00000000000000000000000000000000)
set(secret 11223344556677889900AABBCCDDEEFF)

run(version 0 "^SAM AV2 \\(hardware 3\\) in AV2 mode\nUID 045A1122334455\n$" sam version)
run(version_json 0 "^{\"type\": 2, \"name\": \"SAM AV2 \\(hardware 3\\) in AV2 mode\", \"uid\": \"045A1122334455\"}\n$"
    --json sam version)
run(version_raw 0 "^0401010302180504010103021805045A1122334455[0-9A-F]+A2\n$" sam version --raw)
run(entry_zero 0 "entry   0  versions 000102  change key 0 v0  counter 255  SET 2000" sam entries 0)
run(entries_json 0 "^{\"entries\": \\[{\"entry\": 0, \"raw\": \"[0-9A-F]+\", \"change_key\": 0, \"set\": \"2000\"}, {\"entry\": 1, [^\n]*}\\]}\n$"
    --json sam entries 0 1)
run(entries_progress 0 "reading \\[#+\\] 128/128" sam entries)
run(auth_av2 0 "^authenticated \\(av2\\) with key entry 0 version 1\n$" sam --key ${zero} --ver 1 authenticate av2)
run(auth_av2_json 0 "^{\"authenticated\": true, \"form\": \"av2\", \"entry\": 0, \"version\": 0}\n$"
    --json sam --key ${zero} --host-mode 2 authenticate av2)
run(auth_wrong_key 1 "^{\"error\": \"\\[0x2000 \\(8192\\)\\] ZEL_SAM_APDU_ERROR\", \"step\": \"authenticate\", \"status\": 8192, \"sw\": \"6982\"}\n"
    --json sam --key ${secret} authenticate av2)
run(auth_des_in_av2 1 "^tandro sam: authenticate: [^\n]*ZEL_AUTH_ERROR\n$" sam authenticate des)
run(change_aes 0 "^key entry 5 written \\(aes\\)\n$" sam --key ${zero} change-key 5 aes ${secret})
run(change_host_json 0 "^{\"entry\": 9, \"type\": \"host\", \"changed\": true, \"sw\": \"9000\"}\n$"
    --json sam --key ${zero} --versions 3,4,5 --cek 9 change-key 9 host ${secret})
run(change_mifare 0 "written \\(mifare\\)" sam --key ${zero} change-key 7 mifare A0A1A2A3A4A5B0B1B2B3B4B5)
run(key_not_printed 1 "^[^C]*$" sam --key ${secret} change-key 5 aes ${secret})
run(usage_key_length 2 "^tandro sam: a aes key is 16 bytes" sam --key ${zero} change-key 5 aes 0011)
run(usage_no_key 2 "^tandro sam: change-key needs --key" sam change-key 5 des 0011223344556677)
run(usage_type 2 "^tandro sam: usage" sam --key ${zero} change-key 5 rc4 ${secret})
run(usage_host_mode 2 "^tandro sam: --host-mode" sam --host-mode 3 --key ${zero} authenticate av2)
run(usage_range 2 "^tandro sam: usage" sam entries 9 3)
run(usage_entry 2 "^tandro sam: --entry" sam --entry 128 authenticate des)
run(help 0 "usage: tandro \\[OPTIONS\\] sam" sam --help)
