# tandro emulate and esp against the built-in simulated reader: what each prints, its JSON document, and a
# one-line usage error (exit code 2) for arguments it cannot take.
if(NOT TOOL)
  message(FATAL_ERROR "TOOL is not set")
endif()
if(NOT WORK)
  message(FATAL_ERROR "WORK is not set")
endif()

include(${CMAKE_CURRENT_LIST_DIR}/tool_run.cmake)
file(MAKE_DIRECTORY ${WORK})

# The record goes in, emulation starts, and the simulated phone reads the URI back.
run(ndef_uri_phone 0 "emulation started\na phone reads:\nndef D101115504.*\nuri https://tandro.example/x\n$"
    emulate ndef --uri https://tandro.example/x --start)
run(ndef_text_json 0 "^{\"record\": \"text\", \"payload_bytes\": 8, \"form\": \"ram\", \"started\": true, \"phone_read\": \"D1010854[0-9A-F]+\"}\n$"
    --json emulate ndef --text hello --ram --start)
run(ndef_aar 0 "a phone reads:\nndef 91.*616E64726F69642E636F6D3A706B67" emulate ndef --uri tel:123 --aar org.z --start)
run(start_combined 0 "^emulation started\n$" emulate start --combined)
run(stop_ram_json 0 "^{\"done\": \"emulation stopped\"}\n$" --json emulate stop --ram)
run(status_json 0 "^{\"external_field\": false, \"adhoc\": \\[0, 0, 0, 0, 0\\]}\n$" --json emulate status)
run(esp_info 0 "^serial 0E5A0001\nfirmware 3.1.12\nunits 1\ntime 0 0 0 0 0 0\n$" esp info)
run(esp_wifi_json 0 "^{\"done\": \"wifi off\"}\n$" --json esp wifi off)
run(esp_backup 0 "^configuration saved to .*backup.txt \\([0-9]+ bytes\\)\n$" esp backup ${WORK}/backup.txt)
file(READ ${WORK}/backup.txt saved)
if(NOT saved MATCHES "wifi.ssid=")
  message(SEND_ERROR "esp_backup: the file holds no configuration")
endif()
file(WRITE ${WORK}/restore.txt "wifi.ssid=other\n")
run(esp_restore_json 0 "^{\"done\": \"configuration restored \\(16 bytes\\)\"}\n$" --json esp restore ${WORK}/restore.txt)
run(help 0 "^usage: tandro \\[OPTIONS\\] emulate ndef.*emulate stop +stops it.*--adhoc +start, stop: ad hoc" emulate --help)
run(esp_help 0 "^usage: tandro \\[OPTIONS\\] esp info.*esp backup FILE +saves the module's configuration" esp --help)

# Refused before the reader is asked.
run(ndef_both 2 "^tandro emulate: ndef takes one of" emulate ndef --uri a --text b)
run(ndef_none 2 "^tandro emulate: " emulate ndef)
run(ndef_too_long 2 "^tandro emulate: the record's payload is over 137 bytes" emulate ndef --text
    "0123456789012345678901234567890123456789012345678901234567890123456789012345678901234567890123456789012345678901234567890123456789012345678")
run(start_word 2 "^tandro emulate: unknown option --fast" emulate start --fast)
# Each form takes only its own options.
run(stop_combined 2 "^tandro emulate: start takes --ram, --combined or --adhoc; stop --ram or --adhoc"
    emulate stop --combined)
run(start_two_modes 2 "^tandro emulate: start takes" emulate start --ram --adhoc)
run(start_record 2 "^tandro emulate: start takes" emulate start --uri https://tandro.example/)
run(ndef_mode 2 "^tandro emulate: ndef takes --uri URI or --text TEXT" emulate ndef --text a --adhoc)
run(ndef_word 2 "^tandro emulate: ndef takes --uri URI or --text TEXT" emulate ndef now --text a)
run(status_option 2 "^tandro emulate: ndef, start, stop or status" emulate status --ram)
run(ndef_aar_ram 2 "^tandro emulate: --aar takes a package name and no --ram" emulate ndef --uri tel:1 --aar=org.z --ram)
run(esp_option 2 "^tandro esp: unknown option --fast" esp reset --fast)
run(esp_word 2 "^tandro esp: " esp wifi maybe)
run(esp_restore_missing 2 "^tandro esp: cannot read" esp restore ${WORK}/no-such-file)
