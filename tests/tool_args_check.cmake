# The tool against its built-in simulated reader: every command takes hex text by the same rule (either case,
# blanks, ':' or '-' between bytes) and refuses the rest with a one-line usage error and exit code 2; and
# tandro desfire by its table of subcommands.
if(NOT TOOL)
  message(FATAL_ERROR "TOOL is not set")
endif()

set(failures 0)

include(${CMAKE_CURRENT_LIST_DIR}/tool_run.cmake)

# Accepted: both cases and every separator between bytes give the same bytes.
run(apdu_separators 0 "\"command\": \"00A4040000\"" --json apdu "00 a4:04-00\t00")
run(desfire_key_separators 0 "key 3 stored in the reader" desfire-key 3 "00112233 44:55:66:77-8899aabbccddeeff")
run(config_key_lower_case 0 "key written" config key 1 "a0 a1 a2 a3 a4 a5")

# Refused, each with its command's usage error.
run(apdu_split_byte 1 "\"0 0A4040000\" is not a command APDU in hex" apdu "0 0A4040000")
run(desfire_key_odd 2 "^tandro desfire-key: N HEX" desfire-key 3 00112233445566778899aabbccddeef)
run(desfire_option_key 2 "^tandro desfire: --key takes 16 hex bytes"
    desfire --key 00112233445566778899aabbccddeeGG free)
run(desfire_aid_short 2 "^tandro desfire: app-create takes an AID" desfire app-create "A1:B2:")
run(config_key_odd 2 "^tandro config: key INDEX HEX12" config key 1 A0A1A2A3A4A)
run(t2t_uid_letter 2 "^tandro t2t: --uid takes a UID in hexadecimal" t2t --uid 04:zz info)
run(ndef_uid_prefix 2 "^tandro ndef: --uid takes a UID in hexadecimal" ndef --uid 0x0411 read)
run(iso15693_uid_split 2 "^tandro iso15693: --uid takes a UID in hexadecimal" iso15693 --uid "E0 0" info)
run(read_key_odd 2 "^tandro read: --key takes 6 or 16 bytes in hexadecimal" read 4 --key FFFFFFFFFFF)
run(write_data_split 2 "^tandro write: the data in hexadecimal" write 4 "0011 2")

# tandro desfire by its table of subcommands, through the public key forms.
run(desfire_read_default_key 0 "\"data\": \"54616E64\"" --json desfire read A1B2C3 1 0 4)
run(desfire_read_without_auth 0 "\"data\": \"54616E64\"" --json desfire --no-auth read A1B2C3 1 0 4)
run(desfire_value 0 "^value 100\n$" desfire --key-type aes --key 00000000000000000000000000000000 value A1B2C3 2)
run(desfire_unknown 2 "^tandro desfire: unknown subcommand 'bogus'" desfire bogus)
run(desfire_no_sub 2 "^tandro desfire: names no subcommand" desfire --no-auth)
run(desfire_file_id 2 "^tandro desfire: read takes an AID and a file id \\(0 to 31\\)" desfire read A1B2C3 40)
run(desfire_uid_keyed 0 "^UID 04D35F1E6A2B80\n$" desfire uid)
run(desfire_uid_without_auth 0 "^UID 04D35F1E6A2B80\n$" desfire --no-auth uid)
run(desfire_sdm_by_aes_only 2 "^tandro desfire: sdm-settings authenticates with an AES key"
    desfire --key-type des sdm-settings A1B2C3 1)
run(desfire_value_limit 2 "^tandro desfire: file-create: std\\|backup SIZE" desfire file-create A1B2C3 5 value 0 x 1)
