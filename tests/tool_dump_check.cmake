# tandro cards, dump and restore against simulated cards: a Classic 1K whose sectors have other keys than the
# default, access conditions that let only key B read, a sector whose keys the key file does not know; the
# image compared byte by byte with the card's memory, restores read back by a second dump from the same
# simulated reader, and every refusal before anything is written.
if(NOT TOOL OR NOT WORK)
  message(FATAL_ERROR "TOOL and WORK must be set")
endif()
include(${CMAKE_CURRENT_LIST_DIR}/tool_run.cmake)
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})

set(hx 0 1 2 3 4 5 6 7 8 9 A B C D E F)
function(hex_byte value out)
  math(EXPR hi "${value} / 16")
  math(EXPR lo "${value} % 16")
  list(GET hx ${hi} h)
  list(GET hx ${lo} l)
  set(${out} "${h}${l}" PARENT_SCOPE)
endfunction()

# The card's memory, trailer by trailer: key A, access bytes, general purpose byte, key B.
set(transport "FF0780")
set(trailer_0 "FFFFFFFFFFFF${transport}69FFFFFFFFFFFF")
set(trailer_1 "A0A1A2A3A4A5" "7F0788" "69B0B1B2B3B4B5") # data free, trailer 011: key B not readable
set(trailer_2 "C0C1C2C3C4C5" "0F00FF" "69D0D1D2D3D4D5") # every block 011: only key B reads and writes
set(trailer_3 "112233445566${transport}69665544332211") # keys the key file does not know
set(trailer_4 "4A4A4A4A4A4A${transport}694B4B4B4B4B4B") # key B readable: the key file's key B is wrong
set(memory "")
set(expected "") # what the dump must give: sector 3 unread (zeros)
foreach(b RANGE 63)
  math(EXPR s "${b} / 4")
  math(EXPR in "${b} % 4")
  if(b EQUAL 0)
    set(block "11223344440804006263646566676869")
  elseif(in EQUAL 3)
    if(DEFINED trailer_${s})
      string(REPLACE ";" "" block "${trailer_${s}}")
    else()
      set(block "${trailer_0}")
    endif()
  else()
    hex_byte(${b} byte)
    string(REPEAT "${byte}" 16 block)
  endif()
  string(APPEND memory "${block}")
  if(s EQUAL 3)
    string(REPEAT "00" 16 block)
  endif()
  string(APPEND expected "${block}")
endforeach()
string(TOLOWER "${expected}" expected)

set(card "{\"uid\": \"11223344\", \"sak\": \"08\", \"atqa\": \"0004\", \"type\": \"ORB_MIFARE_CLASSIC_1K\", \"model\": \"classic_1k\", \"setup\": {\"memory\": \"${memory}\"}}")
set(reader "\"reader\": {\"type\": \"D1180022\", \"serial_number\": 2050001, \"serial_description\": \"SIM00001\"}")
file(WRITE ${WORK}/mixed.json "{${reader}, \"cards\": [${card}]}")
set(MIXED --sim=${WORK}/mixed.json)

# The key file in text and in binary: the default keys, but sectors 1 and 2 their own, sector 3 wrong and
# sector 4 a wrong key B.
set(key_hex "")
foreach(s RANGE 15)
  set(pair "FFFFFFFFFFFFFFFFFFFFFFFF")
  if(s EQUAL 1)
    set(pair "A0A1A2A3A4A5B0B1B2B3B4B5")
  elseif(s EQUAL 2)
    set(pair "C0C1C2C3C4C5D0D1D2D3D4D5")
  elseif(s EQUAL 4)
    set(pair "4A4A4A4A4A4A000000000000")
  endif()
  string(APPEND key_hex "${pair}")
endforeach()
string(REGEX REPLACE "(............)" "\\1\n" key_lines "${key_hex}")
file(WRITE ${WORK}/keys.txt "# sector 0, key A then key B\n${key_lines}")
string(REGEX REPLACE "(..)" "\\\\x\\1" key_escaped "${key_hex}")
execute_process(COMMAND printf "${key_escaped}" OUTPUT_FILE ${WORK}/keys.bin RESULT_VARIABLE rc)
file(SIZE ${WORK}/keys.bin key_size)
if(rc OR NOT key_size EQUAL 192)
  message(FATAL_ERROR "the binary key file was not written (${key_size} bytes)")
endif()

# image_is(NAME FILE HEX): the file's bytes are the lower case HEX.
function(image_is name file want)
  file(READ ${file} got HEX)
  if(NOT got STREQUAL want)
    string(LENGTH "${got}" n)
    message(SEND_ERROR "${name}: the image differs from the card (${n} hex digits)\n${got}\n${want}")
  else()
    message(STATUS "${name}: image ok")
  endif()
endfunction()

# ---- tandro cards: every card with its details, null for what a card has not.
set(ntag "{\"uid\": \"04A22B1A5C6480\", \"sak\": \"00\", \"atqa\": \"0044\", \"type\": \"ORB_NTAG_215\", \"model\": \"ntag215\", \"setup\": {\"pages\": [{\"page\": 4, \"data\": \"0102030405060708\"}]}}")
set(iso "{\"uid\": \"04518A2B3C4D80\", \"sak\": \"20\", \"atqa\": \"0344\", \"type\": \"ORB_GENERIC_ISO14443_4\", \"model\": \"iso14443_4\"}")
file(WRITE ${WORK}/three.json "{${reader}, \"cards\": [${card}, ${ntag}, ${iso}]}")
run(cards_text 0 "3 cards in the field\n  1  11223344 +ATQA 0004  SAK 08  ORB_MIFARE_CLASSIC_1K +1024 bytes \\(752 of user data\\)\n  2  04A22B1A5C6480 +ATQA 0044  SAK 00  ORB_NTAG_215 +540 bytes"
    --sim=${WORK}/three.json cards)
run(cards_json 0 "^\\[{\"uid\": \"11223344\", \"atqa\": \"0004\", \"sak\": \"08\", \"type\": \"ORB_MIFARE_CLASSIC_1K\", \"type_code\": 33, \"size\": 1024, \"linear_size\": 752}, {\"uid\": \"04A22B1A5C6480\", \"atqa\": \"0044\", \"sak\": \"00\", \"type\": \"ORB_NTAG_215\", \"type_code\": 9, \"size\": 540, \"linear_size\": [0-9]+}, {\"uid\": \"04518A2B3C4D80\", \"atqa\": \"0344\", \"sak\": \"20\", \"type\": \"ORB_GENERIC_ISO14443_4\", \"type_code\": 64, \"size\": null, \"linear_size\": null}\\]\n$"
    --sim=${WORK}/three.json --json cards)
file(WRITE ${WORK}/empty.json "{${reader}, \"cards\": []}")
run(cards_none 0 "^\\[\\]\n$" --sim=${WORK}/empty.json --json cards)

# ---- dump: text and binary key files give the same image; sector 3 is named with why.
run(dump_text 1 "ORB_MIFARE_CLASSIC_1K 11223344: 1024 bytes written to .*15 of 16 sectors read in full\n  sector  3: neither key A nor key B of the key file opens it \\(blocks 12, 13, 14, 15; zeros in the image\\).*tandro dump: 1 sector could not be read in full"
    ${MIXED} dump ${WORK}/text.bin --keys ${WORK}/keys.txt)
image_is(dump_text ${WORK}/text.bin "${expected}")
run(dump_binary 1 "15 of 16 sectors read in full" ${MIXED} dump ${WORK}/binary.bin --keys ${WORK}/keys.bin)
image_is(dump_binary ${WORK}/binary.bin "${expected}")
run(dump_json 1 "^{\"error\": \"1 sector could not be read in full; the image holds zeros there\", .*\"partial\": {\"file\": \"[^\"]*json.bin\", \"uid\": \"11223344\", \"card\": \"ORB_MIFARE_CLASSIC_1K\", \"size\": 1024, \"sectors\": 16, \"sectors_read\": 15, \"unreadable\": \\[{\"sector\": 3, \"blocks\": \\[12, 13, 14, 15\\], \"reason\": \"neither key A nor key B of the key file opens it\"}\\]}}\n"
    ${MIXED} --json dump ${WORK}/json.bin --keys ${WORK}/keys.txt)
image_is(dump_json ${WORK}/json.bin "${expected}")
# Keys show only when asked for.
execute_process(COMMAND ${TOOL} ${MIXED} dump ${WORK}/quiet.bin --keys ${WORK}/keys.txt OUTPUT_VARIABLE out
                ERROR_VARIABLE err)
if("${out}${err}" MATCHES "A0A1A2A3A4A5|B0B1B2B3B4B5|C0C1C2")
  message(SEND_ERROR "dump printed keys without --show-keys:\n${out}${err}")
endif()
run(dump_show_keys 1 "sector  1: key A A0A1A2A3A4A5, key B B0B1B2B3B4B5\n  sector  2: key A C0C1C2C3C4C5, key B D0D1D2D3D4D5\n  sector  3: key A -, key B -\n  sector  4: key A 4A4A4A4A4A4A, key B -"
    ${MIXED} dump ${WORK}/shown.bin --keys ${WORK}/keys.txt --show-keys)
# With key A alone the blocks of sector 2 stay unread: only key B may read them.
run(dump_key_a 1 "sector  2: the access conditions let no key of the key file read \\(blocks 8, 9, 10; zeros"
    ${MIXED} dump ${WORK}/a.bin --keys ${WORK}/keys.txt --key-type A)
# Without a key file the default key opens the sectors that have it.
run(dump_default 1 "12 of 16 sectors read in full\n  sector  1: neither key A nor key B of the default key FFFFFFFFFFFF opens it"
    ${MIXED} dump ${WORK}/default.bin)
# A Type 2 tag: its whole memory through the raw space.
file(WRITE ${WORK}/ntag.json "{${reader}, \"cards\": [${ntag}]}")
run(dump_ntag 0 "ORB_NTAG_215 04A22B1A5C6480: 540 bytes written" --sim=${WORK}/ntag.json dump ${WORK}/ntag.bin)
file(READ ${WORK}/ntag.bin ntag_image HEX)
string(LENGTH "${ntag_image}" ntag_len)
string(SUBSTRING "${ntag_image}" 32 16 ntag_page4)
if(NOT ntag_len EQUAL 1080 OR NOT ntag_page4 STREQUAL "0102030405060708")
  message(SEND_ERROR "dump_ntag: image ${ntag_image}")
endif()

# Of a Type 2 tag the user memory is written back, the pages around it are not.
run(restore_ntag_dry 0 "pages 0 to 3 \\(UID, lock bytes, capability container\\) are not written\npages 130 to 134 \\(configuration\\) are not written\npage 4: would write 01020304\npage 5: would write 05060708\n.*page 129: would write"
    --sim=${WORK}/ntag.json restore ${WORK}/ntag.bin --dry-run)
run(restore_ntag 0 "ORB_NTAG_215 04A22B1A5C6480: 126 pages written" --sim=${WORK}/ntag.json restore ${WORK}/ntag.bin)
# The card is picked by --uid among several, else the first memory card; a field without one is a failure.
run(dump_by_uid 0 "ORB_NTAG_215 04A22B1A5C6480: 540 bytes written"
    --sim=${WORK}/three.json dump ${WORK}/picked.bin --uid 04A22B1A5C6480)
file(WRITE ${WORK}/iso.json "{${reader}, \"cards\": [${iso}]}")
run(dump_no_memory_card 1 "^tandro dump: no memory card in the field: .*ZEL_NO_CARD" --sim=${WORK}/iso.json dump ${WORK}/none.bin)
if(EXISTS ${WORK}/none.bin)
  message(SEND_ERROR "dump_no_memory_card: an image was written")
endif()
# The key options of the memory commands: one key form at a time.
run(key_forms_two 2 "^tandro read: give one of --key, --key-index, --akm1, --akm2 and --sam"
    read 4 --key FFFFFFFFFFFF --key-index 1)

# ---- key file faults: usage errors naming the line (text) or the size (binary), before the reader.
file(WRITE ${WORK}/odd.txt "FFFFFFFFFFFF\n\nFFFFFFFFFFF\n")
run(keys_odd 2 "^tandro dump: key file .*odd.txt: line 3: 11 hex digits, a key has 12" ${MIXED} dump ${WORK}/x.bin --keys ${WORK}/odd.txt)
file(WRITE ${WORK}/badhex.txt "# sector 0\nFFFFFFFFFFFF\nFFFFFFFFFFFZ\n")
run(keys_bad_hex 2 "^tandro dump: key file .*: line 3: 'Z' is not a hex digit" ${MIXED} dump ${WORK}/x.bin --keys ${WORK}/badhex.txt)
file(WRITE ${WORK}/single.txt "FFFFFFFFFFFF\nFFFFFFFFFFFF\nA0A1A2A3A4A5\n")
run(keys_no_b 2 "^tandro restore: key file .*: line 3: key A of sector 1 has no key B" ${MIXED} restore ${WORK}/text.bin --keys ${WORK}/single.txt)
execute_process(COMMAND printf "\\xff\\xff\\xff\\xff\\xff\\xff\\xff\\xff\\xff\\xff\\xff\\xff\\xff" OUTPUT_FILE ${WORK}/short.bin)
run(keys_size 2 "^tandro dump: key file .*: 13 bytes: a binary key file holds 12 bytes a sector" ${MIXED} dump ${WORK}/x.bin --keys ${WORK}/short.bin)
run(keys_missing 2 "^tandro dump: --keys .*nowhere.keys: No such file or directory" ${MIXED} dump ${WORK}/x.bin --keys ${WORK}/nowhere.keys)
run(key_type_bad 2 "^tandro dump: --key-type takes A, B or both" ${MIXED} dump ${WORK}/x.bin --key-type C)
run(dump_no_file 2 "^tandro dump: names no image FILE" ${MIXED} dump)

# ---- restore, refused before anything is written (each run starts from the scenario, so these need no
# second dump; the round trips below do).
file(WRITE ${WORK}/small.bin "0123456789")
run(restore_size 1 "small.bin holds 10 bytes, the card \\(ORB_MIFARE_CLASSIC_1K\\) 1024; nothing was written" ${MIXED} restore ${WORK}/small.bin)

# patch(VAR HEXDIGIT_OFFSET HEX): VAR with HEX written over it from the offset (two hex digits a byte).
function(patch var at text)
  string(LENGTH "${text}" n)
  math(EXPR after "${at} + ${n}")
  string(SUBSTRING "${${var}}" 0 ${at} p1)
  string(SUBSTRING "${${var}}" ${after} -1 p2)
  set(${var} "${p1}${text}${p2}" PARENT_SCOPE)
endfunction()
# write_image(FILE HEX)
function(write_image file text)
  string(REGEX REPLACE "(..)" "\\\\x\\1" escaped "${text}")
  execute_process(COMMAND printf "${escaped}" OUTPUT_FILE ${file})
endfunction()
# The image with sector 3's real trailer in place of the zeros the dump gave it (zeros are no trailer to
# write back).
set(whole "${expected}")
patch(whole 480 "112233445566ff078069665544332211")
write_image(${WORK}/whole.bin "${whole}")

# ---- round trips against one simulated reader that keeps its state between commands.
execute_process(COMMAND sh -c "'${TOOL}' sim --scenario '${WORK}/mixed.json' --pty > '${WORK}/links' 2>&1 & echo $!"
                OUTPUT_VARIABLE sim_pid OUTPUT_STRIP_TRAILING_WHITESPACE)
set(port "")
foreach(i RANGE 100)
  if(EXISTS ${WORK}/links)
    file(STRINGS ${WORK}/links links REGEX "^pty ")
    if(links)
      string(REGEX REPLACE "^pty " "" port "${links}")
      break()
    endif()
  endif()
  execute_process(COMMAND ${CMAKE_COMMAND} -E sleep 0.05)
endforeach()
if(NOT port)
  execute_process(COMMAND kill ${sim_pid})
  message(FATAL_ERROR "the simulated reader printed no pseudo-terminal")
endif()
set(LIVE --port ${port})

# live(NAME RC REGEX args...): as run(), against the simulated reader that keeps its state.
function(live name want_rc regex)
  execute_process(COMMAND ${TOOL} ${LIVE} ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err TIMEOUT 60)
  if(NOT rc STREQUAL want_rc OR NOT "${out}${err}" MATCHES "${regex}")
    message(SEND_ERROR "${name}: exit ${rc} (want ${want_rc}), want ${regex}\n--- output:\n${out}${err}")
  else()
    message(STATUS "${name}: ok")
  endif()
endfunction()

live(before 1 "15 of 16" dump ${WORK}/before.bin --keys ${WORK}/keys.txt)
image_is(before ${WORK}/before.bin "${expected}")

# A dry run says what it would write, trailers without their keys, and writes nothing.
live(dry_run 0 "block 0 \\(the maker's block\\) is never written\n.*block 1: would write 01010101010101010101010101010101\n.*block 7: would write \\*\\*\\*\\*\\*\\*\\*\\*\\*\\*\\*\\*7F078869\\*\\*\\*\\*\\*\\*\\*\\*\\*\\*\\*\\* \\(trailer\\)\n.*dry run: nothing was written"
     restore ${WORK}/whole.bin --keys ${WORK}/keys.txt --dry-run --trailers)
execute_process(COMMAND ${TOOL} ${LIVE} restore ${WORK}/whole.bin --dry-run --trailers --keys ${WORK}/keys.txt
                OUTPUT_VARIABLE out)
if(out MATCHES "A0A1A2A3A4A5|B0B1B2B3B4B5")
  message(SEND_ERROR "dry_run: trailer keys shown without --show-keys")
endif()
live(dry_run_show_keys 0 "block 7: would write A0A1A2A3A4A57F078869B0B1B2B3B4B5"
     restore ${WORK}/whole.bin --keys ${WORK}/keys.txt --dry-run --trailers --show-keys)
live(after_dry_run 1 "15 of 16" dump ${WORK}/after-dry.bin --keys ${WORK}/keys.txt)
image_is(after_dry_run ${WORK}/after-dry.bin "${expected}")

# A trailer whose access bytes are out of form refuses the restore before any write, though block 4 changed
# too: sector 5's trailer (block 23) gets access bytes 000000.
string(REPEAT "ee" 16 changed_block)
set(bad_image "${whole}")
patch(bad_image 128 "${changed_block}")
patch(bad_image 748 "000000")
write_image(${WORK}/bad-trailer.bin "${bad_image}")
file(SIZE ${WORK}/bad-trailer.bin bad_size)
if(NOT bad_size EQUAL 1024)
  message(SEND_ERROR "bad-trailer.bin: ${bad_size} bytes")
endif()
live(bad_trailer 1 "^tandro restore: refused, nothing was written: sector 5: access bytes 000000 are not valid \\(each bit must come once plain and once inverted\\); the card would lock the sector for good\n$"
     restore ${WORK}/bad-trailer.bin --keys ${WORK}/keys.txt --trailers)
live(after_bad_trailer 1 "15 of 16" dump ${WORK}/after-bad.bin --keys ${WORK}/keys.txt)
image_is(after_bad_trailer ${WORK}/after-bad.bin "${expected}")

# The zeros of the unread sector are no trailer either.
live(zero_trailer 1 "^tandro restore: refused, nothing was written: sector 3: access bytes 000000"
     restore ${WORK}/before.bin --keys ${WORK}/keys.txt --trailers)

# Restore a changed image, data blocks only: blocks 4, 9 (only key B writes sector 2) and 61 change; the
# unreadable sector 3 cannot be written and is named; dumped again, the card holds the image.
set(new "${expected}")
foreach(b 4 9 61)
  math(EXPR at "${b} * 32")
  patch(new ${at} "${changed_block}")
endforeach()
write_image(${WORK}/new.bin "${new}")
live(restore_data 1 "ORB_MIFARE_CLASSIC_1K 11223344: 44 blocks written from .*\n  block  12: not written: no key of the key file opens the sector\n  block  13: .*tandro restore: 3 blocks could not be written"
     restore ${WORK}/new.bin --keys ${WORK}/keys.txt)
live(after_restore 1 "15 of 16" dump ${WORK}/after-restore.bin --keys ${WORK}/keys.txt)
image_is(after_restore ${WORK}/after-restore.bin "${new}")

# Trailers with --trailers: sector 6 gets new keys; the old key file no longer opens it, a new one does.
# The unread sector 3 gets its real trailer in the image (its zeros would be refused): its keys are not in
# the key file, so its blocks are named as not written.
set(rekeyed "${new}")
patch(rekeyed 864 "616161616161ff07806962626262626262")
set(rekeyed_image "${rekeyed}")
patch(rekeyed_image 480 "112233445566ff078069665544332211")
write_image(${WORK}/rekeyed.bin "${rekeyed_image}")
live(restore_trailers 1 "59 blocks written.*block  15: not written: no key of the key file opens the sector"
     restore ${WORK}/rekeyed.bin --keys ${WORK}/keys.txt --trailers)
live(old_keys 1 "sector  6: neither key A nor key B of the key file opens it" dump ${WORK}/old.bin --keys ${WORK}/keys.txt)
file(STRINGS ${WORK}/keys.txt key_list REGEX "^[0-9A-F]")
list(REMOVE_AT key_list 12 13)
list(INSERT key_list 12 616161616161 626262626262)
string(REPLACE ";" "\n" new_keys "${key_list}")
file(WRITE ${WORK}/new-keys.txt "${new_keys}\n")
live(new_keys 1 "15 of 16" dump ${WORK}/rekeyed-again.bin --keys ${WORK}/new-keys.txt)
image_is(new_keys ${WORK}/rekeyed-again.bin "${rekeyed}")

execute_process(COMMAND kill ${sim_pid})

# ---- progress: nothing on a pipe (standard error here is one), a bar on a terminal unless --quiet.
execute_process(COMMAND ${TOOL} ${MIXED} dump ${WORK}/pipe.bin ERROR_VARIABLE err OUTPUT_QUIET)
if(err MATCHES "\r|\\[#")
  message(SEND_ERROR "progress on a pipe: ${err}")
endif()
find_program(SCRIPT script)
if(SCRIPT)
  execute_process(COMMAND ${SCRIPT} -qec "'${TOOL}' --sim dump '${WORK}/tty.bin'" /dev/null OUTPUT_VARIABLE tty
                  RESULT_VARIABLE rc)
  if(NOT tty MATCHES "dump \\[#+\\] 100% 64/64 blocks")
    message(SEND_ERROR "no progress bar on a terminal (exit ${rc}):\n${tty}")
  endif()
  execute_process(COMMAND ${SCRIPT} -qec "'${TOOL}' --sim --quiet dump '${WORK}/tty.bin'" /dev/null
                  OUTPUT_VARIABLE tty)
  if(tty MATCHES "\\[#")
    message(SEND_ERROR "a progress bar under --quiet:\n${tty}")
  endif()
endif()
