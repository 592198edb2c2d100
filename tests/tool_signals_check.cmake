# tandro signal, led, sleep, rf, se and features against the built-in simulated reader: what each prints,
# its JSON document, its exit code on a refusal of the reader, and a one-line usage error (exit code 2) for
# arguments it cannot take.
if(NOT TOOL)
  message(FATAL_ERROR "TOOL is not set")
endif()

include(${CMAKE_CURRENT_LIST_DIR}/tool_run.cmake)

# Done, in text and as one JSON document.
run(signal_modes 0 "^signal given\n$" signal 2 3)
run(signal_speaker_json 0 "^{\"done\": \"speaker set\"}\n$" --json signal speaker 1000)
run(led_rgb 0 "^rgb on\n$" led rgb "ff:80:00" 40)
run(led_green 0 "^green led blinking\n$" led green blink)
run(sleep_enter 0 "^asleep\n$" sleep enter)
run(sleep_auto_json 0 "^{\"auto_sleep_seconds\": 0}\n$" --json sleep auto)
run(rf_get_json 0 "^{\"set\": \"a\", \"registers\": \\[[0-9]+, [0-9]+, [01], [0-7], [0-9]+\\]}\n$" --json rf get a)
run(rf_get_trans 0 "^a-trans( [0-9]+)(( [0-9]+)+)\n$" rf get a-trans)
run(rf_default 0 "^pn7462 set to default\n$" rf default pn7462)
run(rf_set 0 "^b-trans set\n$" rf set b-trans 1 2 1 3 4 0x11 0x22 3 4)
run(se_status_json 0 "^{\"config_locked\": false, \"data_locked\": false}\n$" --json se status)
run(se_info 0 "^  0  00006002\n$" se info)
run(se_config_json 0 "^{\"config\": \"[0-9A-F]+\"}\n$" --json se config)
run(se_lock 0 "^configuration locked\n$" se lock config)
run(features_aid 0 "^aid F0010203040506\n$" features aid)
run(features_discovery_set 0 "^discovery written\n$" features discovery set "01 02 04")
run(help 0 "^usage: tandro \\[OPTIONS\\] rf [^\n]*\n.*\n  rf get SET " rf --help)

# Refused by the reader: exit code 1, a message, and under --json the error object alone on standard output.
run(se_lock_slot_open 1 "ZEL_PARAMETERS_ERROR" se lock slot 3)
run(features_mobile_json 1 "{\"error\": \"mobile: .*ZEL_NO_CARD\", \"status\": 8, \"status_text\": \".*ZEL_NO_CARD\"}" --json features mobile)

# Refused before the reader is asked.
run(signal_range 2 "^tandro signal: LIGHT SOUND" signal 256 1)
run(led_bad_colour 2 "^tandro led: " led rgb FF80 50)
run(led_intensity 2 "^tandro led: " led rgb FF8000 101)
run(sleep_word 2 "^tandro sleep: " sleep deep)
run(rf_unknown_set 2 "^tandro rf: get SET" rf get c)
run(rf_range 2 "^tandro rf: set a takes 5 values" rf set a 16 0 0 0 0)
run(rf_count 2 "^tandro rf: set a-trans takes 9 values" rf set a-trans 1 1 1 1 1)
run(rf_no_default 2 "^tandro rf: the b-trans set has no default" rf default b-trans)
run(se_slot_range 2 "^tandro se: " se lock slot 16)
run(features_aid_long 2 "^tandro features: " features aid set 000102030405060708090A0B0C0D0E0F10)
run(features_bad_hex 2 "^tandro features: " features discovery set 0G)
