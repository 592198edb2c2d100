# tandro ntag424 against the built-in simulated reader, and tandro sun verify on the worked examples of
# secure dynamic messaging: genuine taps, forged MACs and malformed URLs.
if(NOT TOOL)
  message(FATAL_ERROR "TOOL is not set")
endif()

set(failures 0)

include(${CMAKE_CURRENT_LIST_DIR}/tool_run.cmake)

set(zero 00000000000000000000000000000000)
run(sun_picc 0 "UID      04DE5F1EACC040\ncounter  61\nverdict  genuine\n"
    sun verify "https://t.example/?p=EF963FF7828658A599F3041510671E88&m=94EED9EE65337086"
    --meta-key ${zero} --file-key ${zero})
run(sun_enc_json 0 "^\\{\"uid\": \"04958CAA5C5E80\", \"counter\": 8, \"verdict\": \"genuine\", \"mac_ok\": true, \"file_data_len\": 16\\}\n$"
    --json sun verify
    "https://t.example/?picc_data=FD91EC264309878BE6345CBE53BADF40&enc=CEE9A53E3E463EF1F459635736738962&cmac=ECC1E7F6C6C73BF6"
    --meta-key ${zero} --file-key ${zero})
run(sun_show_data 0 "data     16 bytes: 78787878787878787878787878787878"
    sun verify
    "https://t.example/?picc_data=FD91EC264309878BE6345CBE53BADF40&enc=CEE9A53E3E463EF1F459635736738962&cmac=ECC1E7F6C6C73BF6"
    --meta-key ${zero} --file-key ${zero} --show-data)
run(sun_forged 1 "verdict  forged or replayed"
    sun verify
    "https://t.example/?picc_data=FD91EC264309878BE6345CBE53BADF40&enc=CEE9A53E3E463EF1F459635736738962&cmac=3CC1E7F6C6C33B33"
    --meta-key ${zero} --file-key ${zero})
run(sun_plain 0 "counter  6\nverdict  genuine"
    sun verify "https://t.example/?uid=041E3C8A2D6B80&ctr=000006&cmac=4B00064004B0B3D3" --file-key ${zero})
run(sun_odd_hex 2 "^tandro sun: the URL: a parameter is not hexadecimal"
    sun verify "https://t.example/?p=EF963FF7828658A599F3041510671E8&m=94EED9EE65337086"
    --meta-key ${zero} --file-key ${zero})
run(sun_no_mac 2 "^tandro sun: the URL: the URL carries no MAC"
    sun verify "https://t.example/?p=EF963FF7828658A599F3041510671E88" --meta-key ${zero} --file-key ${zero})
run(sun_no_meta_key 2 "^tandro sun: the URL carries PICC data: --meta-key is needed"
    sun verify "https://t.example/?p=EF963FF7828658A599F3041510671E88&m=94EED9EE65337086" --file-key ${zero})
run(sun_help 0 "^usage: tandro \\[OPTIONS\\] sun verify URL" sun --help)

run(ntag424_uid 0 "^UID 04A5B6C7D8E980\n$" ntag424 uid 0)
run(ntag424_uid_wrong_key 1 "uid: " ntag424 --key 11111111111111111111111111111111 uid 0)
run(ntag424_info_json 0 "^\\{\"files\": \\[\\{\"file\": 1, .*\"size\": 32.*\\}\\]\\}\n$" --json ntag424 info)
run(ntag424_sdm 0 "file 2 SDM settings changed" ntag424 sdm 2 uid-mirror ctr-mirror meta=14 file=0 uid=10 ctr=30 mac-input=40 mac=40)
run(ntag424_tamper 0 "tamper loop: permanent invalid" ntag424 tamper 0)
run(ntag424_bad_key 2 "^tandro ntag424: --key takes 16 bytes in hexadecimal" ntag424 --key 0011 uid 0)
run(ntag424_bad_sub 2 "^tandro ntag424: usage: tandro ntag424" ntag424 bogus)
run(ntag424_bad_sdm 2 "^tandro ntag424: usage: tandro ntag424" ntag424 sdm 2 meta=16)
run(ntag424_help 0 "^usage: tandro \\[OPTIONS\\] ntag424" ntag424 --help)

if(failures)
  message(FATAL_ERROR "${failures} checks failed")
endif()
