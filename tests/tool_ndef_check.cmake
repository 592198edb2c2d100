# tandro ndef with typed records against the built-in simulated reader: each typed write, the decoded read
# with the Wi-Fi password hidden unless asked for, raw messages to and from files with the card's capacity
# checked first, and one-line usage errors (exit code 2) for what is refused.
if(NOT TOOL)
  message(FATAL_ERROR "TOOL is not set")
endif()
if(NOT WORK)
  message(FATAL_ERROR "WORK is not set")
endif()

include(${CMAKE_CURRENT_LIST_DIR}/tool_run.cmake)
file(MAKE_DIRECTORY ${WORK})

# An NTAG 216 holding one Wi-Fi record: SSID "Lab", password "pw1", WPA2-Personal, AES.
set(wifi_tlv "0347D2172D6170706C69636174696F6E2F766E642E7766612E777363100E00291026000101104500034C6162100300020020100F000200081027000370773110200006FFFFFFFFFFFFFE")
file(WRITE ${WORK}/wifi.json "{\"cards\": [{\"uid\": \"04A22B1A5C6481\", \"sak\": \"00\", \"atqa\": \"0044\", \"type\": \"ORB_NTAG_216\", \"model\": \"ntag216\", \"setup\": {\"pages\": [{\"page\": 4, \"data\": \"${wifi_tlv}\"}]}}]}")
file(WRITE ${WORK}/small.json "{\"cards\": [{\"uid\": \"04A22B1A5C6482\", \"sak\": \"00\", \"atqa\": \"0044\", \"type\": \"ORB_MIFARE_ULTRALIGHT\", \"model\": \"ultralight\", \"setup\": {\"pages\": [{\"page\": 3, \"data\": \"E1100600\"}, {\"page\": 4, \"data\": \"0300FE00\"}]}}]}")

run(read_wifi_hidden 0 "SSID: Lab\n  Authentication type: WPA2-Personal\n  Encryption type: AES\n  Password: \\(hidden"
    --sim=${WORK}/wifi.json ndef read)
run(read_wifi_shown 0 "Password: pw1" --sim=${WORK}/wifi.json ndef read --show-secrets)
run(read_wifi_json 0 "^{\"messages\": 1.*\"payload\": \"\".*\"decoded\": \"SSID: Lab\\\\n.*hidden"
    --json --sim=${WORK}/wifi.json ndef read)
execute_process(COMMAND ${TOOL} --sim=${WORK}/wifi.json --json ndef read RESULT_VARIABLE rc OUTPUT_VARIABLE out)
if(out MATCHES "pw1|707731")
  message(SEND_ERROR "read_wifi_json: the password shows without --show-secrets")
endif()

# The raw message to a file, and back onto a card.
run(read_out 0 "^71 message bytes written to" --sim=${WORK}/wifi.json ndef read --out ${WORK}/wifi.ndef)
file(READ ${WORK}/wifi.ndef saved HEX)
string(TOUPPER "${saved}" saved)
if(NOT "0347${saved}FE" STREQUAL "${wifi_tlv}")
  message(SEND_ERROR "read_out: the file holds ${saved}")
endif()
run(write_in 0 "^message of 71 bytes written to message 1" ndef write --in ${WORK}/wifi.ndef)
run(write_in_too_big 1 "does not fit the card's 45 bytes; nothing was written"
    --sim=${WORK}/small.json ndef write --in ${WORK}/wifi.ndef)

# Typed writes to the card and to the emulated tag.
run(write_wifi 0 "^wifi record written to message 1\n$" ndef write --wifi Lab --password pw1 --auth wpa2)
run(write_bt_json 0 "^{\"written\": true, \"record\": \"bt\", \"storage\": \"card\", \"stored_address\": \"FFEEDDCCBBAA\"}\n$"
    --json ndef write --bt AA:BB:CC:DD:EE:FF)
run(write_bt 0 "^bt record written to message 1\naddress stored as 0605040302A1 " ndef write --bt a1-02-03-04-05-06)
file(WRITE ${WORK}/ana.vcf "BEGIN:VCARD\r\nVERSION:3.0\r\nFN:Ana Lee\r\nTEL;TYPE=cell:+385991\r\nEND:VCARD\r\n")
run(write_vcard 0 "^vcard record written" ndef write --vcard ${WORK}/ana.vcf)
run(write_sms 0 "^sms record written" ndef write --sms +385991 --body "see you")
run(write_tel 0 "^tel record written" ndef write --tel +385991)
run(write_mail 0 "^mail record written" ndef write --mail a@tandro.example --subject Hi --body Text)
run(write_geo 0 "^geo record written" ndef write --geo 45.8,15.9)
run(write_aar 0 "^aar record written" ndef write --aar org.example.app)
run(write_emulate 0 "^wifi record written to the emulated tag; emulation started\n$"
    ndef write --wifi Lab --password pw1 --emulate)
run(write_emulate_ram_json 0 "\"storage\": \"emulation-ram\"" --json ndef write --tel 123 --emulate --ram)

# Refused before anything is written.
run(bt_short 2 "^tandro ndef: --bt takes a Bluetooth address of six bytes" ndef write --bt AA:BB:CC)
run(wifi_no_password 2 "^tandro ndef: --wifi needs --password" ndef write --wifi Lab)
run(wifi_auth_word 2 "^tandro ndef: --auth takes open" ndef write --wifi Lab --password x --auth wpa3)
run(two_records 2 "^tandro ndef: write takes one record" ndef write --tel 1 --sms 2)
run(vcard_folder 2 "^tandro ndef: .* is a folder, not a file" ndef write --vcard ${WORK})
run(vcard_missing 2 "^tandro ndef: cannot read" ndef write --vcard ${WORK}/no-such.vcf)
run(in_folder 2 "^tandro ndef: .* is a folder, not a file" ndef write --in ${WORK})
file(WRITE ${WORK}/junk.ndef "not a message")
run(in_junk 2 "^tandro ndef: --in: " ndef write --in ${WORK}/junk.ndef)
run(out_folder 2 "^tandro ndef: --out: .* is a folder" ndef read --out ${WORK})
run(geo_word 2 "^tandro ndef: --geo takes LATITUDE,LONGITUDE" ndef write --geo 45.8)
string(REPEAT "x" 201 long_body)
run(sms_long 2 "^tandro ndef: --body takes at most 200 bytes" ndef write --sms 1 --body ${long_body})
run(ram_alone 2 "^tandro ndef: --ram goes with --emulate" ndef write --tel 1 --ram)
