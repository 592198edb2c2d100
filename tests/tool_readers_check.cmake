# tandro readers and the --reader / --serial choice of a reader, against two simulated readers shown to the scan
# as serial ports (no D2XX library here: the FTDI devices are skipped, which the list says).
if(NOT TOOL OR NOT WORK)
  message(FATAL_ERROR "TOOL and WORK must be set")
endif()
set(failures 0)
include(${CMAKE_CURRENT_LIST_DIR}/tool_run.cmake)

file(MAKE_DIRECTORY ${WORK})
set(two ${WORK}/two_readers.json)
set(card "\"sak\": \"08\", \"atqa\": \"0004\", \"type\": \"ORB_MIFARE_CLASSIC_1K\", \"model\": \"classic_1k\"")
set(key "\"keys\": [{\"index\": 0, \"key\": \"FFFFFFFFFFFF\"}]")
file(WRITE ${two} "{\"readers\": [
 {\"reader\": {\"serial_description\": \"ZR000001\", ${key}}, \"links\": [{\"kind\": \"pty\"}],
  \"cards\": [{\"uid\": \"5A3C9E21\", ${card}, \"setup\": {\"blocks\": [{\"block\": 4, \"data\": \"11111111111111111111111111111111\"}]}}]},
 {\"reader\": {\"serial_description\": \"ZR000002\", ${key}}, \"links\": [{\"kind\": \"pty\"}],
  \"cards\": [{\"uid\": \"5A3C9E22\", ${card}, \"setup\": {\"blocks\": [{\"block\": 4, \"data\": \"22222222222222222222222222222222\"}]}}]}]}")

run(readers_list 0 " 0  serial [^\n]*ttyUSB0 [^\n]*ZR000001[^\n]*\n 1  serial [^\n]*ttyUSB1 [^\n]*ZR000002[^\n]*\nFTDI devices skipped"
    --sim=${two} readers)
run(readers_json 0 "^{\"readers\": \\[{\"index\": 0, \"link\": \"serial\", [^\n]*\"serial\": \"ZR000001\"[^\n]*}, {\"index\": 1, [^\n]*\"serial\": \"ZR000002\"[^\n]*\\], \"count\": 2, \"note\": \"FTDI devices skipped[^\n]*}\n$"
    --json --sim=${two} readers)
run(readers_default_reader 0 "SIM00001  -  firmware" readers)
run(readers_help 0 "^usage: tandro \\[OPTIONS\\] readers.*index \\(for --reader N\\)" readers --help)
run(readers_argument 2 "^tandro readers: takes no arguments" readers 3)

# Each reader answers with its own card.
run(reader_by_index 0 "^0040  22 22 22" --sim=${two} --reader 1 read 4)
run(reader_by_serial 0 "^0040  11 11 11" --sim=${two} --serial ZR000001 read 4)
run(reader_by_serial_prefix 0 "^0040  11 11 11" --sim=${two} --serial ZR read 4)
run(reader_index_past_end 1 "reader 5: .*ZEL_DEVICE_INDEX_OUT_OF_BOUND" --sim=${two} --reader 5 read 4)
run(reader_serial_unknown 1 "reader ZX: .*ZEL_DEVICE_INDEX_OUT_OF_BOUND" --sim=${two} --serial ZX read 4)
run(reader_index_text 2 "^tandro: --reader takes an index" --reader one read 4)
run(reader_serial_long 2 "^tandro: --serial takes a serial number" --serial 0123456789012345678901 read 4)
