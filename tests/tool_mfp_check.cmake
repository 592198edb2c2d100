# tandro mfp against the built-in simulated reader: each subcommand on the Plus card the built-in field gets
# for it, one JSON document under --json (an error object on failure), keys never printed, and a one-line
# usage error with exit code 2 for what it refuses.
if(NOT TOOL)
  message(FATAL_ERROR "TOOL is not set")
endif()
include(${CMAKE_CURRENT_LIST_DIR}/tool_run.cmake)

set(FF FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF)
set(K 00112233445566778899AABBCCDDEEFF)

run(help 0 "usage: tandro \\[OPTIONS\\] mfp \\[--sam\\]" mfp --help)
run(perso_minimal 0 "^{\"result\": \"personalised and committed, now ORB_MIFARE_PLUS_X_4K_SL1\"}\n$"
    --json mfp perso-minimal ${K})
run(perso_minimal_nine 0 "personalised and committed" mfp perso-minimal ${K} ${K} ${K} ${K} ${K} ${K} ${K} ${K} ${K})
run(perso_write 0 "^block 0xA080 written\n$" mfp perso 0xA080 "00:11:22:33 44 55 66 77 88 99 aa bb cc dd ee ff")
run(commit 0 "^{\"result\": \"personalisation committed\"}\n$" --json mfp commit)
run(switch 0 "^switched to level 3\n$" mfp switch-level ${FF})
run(switch_wrong_key 1 "^{\"error\": \"switch to level 3: \\[0x0E \\(14\\)\\] ZEL_AUTH_ERROR\"}\n" --json mfp switch-level ${K})
run(sector_key 0 "^sector 39 key written\n$" mfp change-key sector 39 0x80 ${FF} ${K} 2)
run(master_key 0 "^{\"result\": \"master key written\"}\n$" --json mfp change-key master ${FF} ${K})
run(uid 0 "^{\"uid\": \"045A1122334480\", \"length\": 7}\n$" --json mfp uid ${FF} ${FF})
run(uid_ev 0 "^UID 045A1122334480\n$" mfp uid ${FF})
run(uid_wrong_key 1 "tandro mfp: uid: \\[0x0E \\(14\\)\\] ZEL_AUTH_ERROR" mfp uid ${K})

# Refused before the reader is reached.
run(no_sub 2 "^tandro mfp: names no subcommand" mfp)
run(unknown 2 "^tandro mfp: unknown subcommand 'bogus'" mfp bogus)
run(perso_short 2 "^tandro mfp: perso takes a block address" mfp perso 0x9000 0011)
run(perso_address 2 "^tandro mfp: perso takes a block address" mfp perso 0x10000 ${K})
run(minimal_count 2 "^tandro mfp: perso-minimal takes nine keys or one" mfp perso-minimal ${K} ${K})
run(mode 2 "^tandro mfp: change-key sector: MODE is 0x60, 0x61, 0x80 or 0x81" mfp change-key sector 1 0x62 1 ${K})
run(mode_key 2 "^tandro mfp: change-key sector: 0x80 and 0x81 take a given key" mfp change-key sector 1 0x80 1 ${K})
run(which 2 "^tandro mfp: change-key names master, config, vc-enc, vc-mac or sector, not 'other'"
    mfp change-key other 1 ${K})
run(sam_switch 2 "^tandro mfp: switch-level has no SAM form" mfp --sam switch-level 1)
run(uid_mixed 2 "^tandro mfp: uid takes one or two keys of one kind" mfp uid 1 ${K})
run(key_odd 2 "^tandro mfp: change-key takes the key" mfp change-key config ${K} 0011223344556677889)
