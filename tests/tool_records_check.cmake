# tandro records and tandro balance against the built-in simulated reader: records written and read back,
# one JSON document under --json (an error object on failure), and a one-line usage error with exit code 2
# for what is refused.
if(NOT TOOL)
  message(FATAL_ERROR "TOOL must be set")
endif()

# run(NAME RC REGEX args...): exit code RC and the output (standard output and error) matching REGEX.
function(run name want_rc regex)
  execute_process(COMMAND ${TOOL} ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err TIMEOUT 60)
  set(all "${out}${err}")
  if(NOT rc STREQUAL want_rc)
    message(SEND_ERROR "${name}: exit code ${rc}, not ${want_rc}\n--- output:\n${all}")
  elseif(NOT all MATCHES "${regex}")
    message(SEND_ERROR "${name}: no match for ${regex}\n--- output:\n${all}")
  else()
    message(STATUS "${name}: ok")
  endif()
endfunction()

run(show 0 "card type       0\ndaily duration  0 min\ntotal duration  0 min\ncard number     0\ncredit          0, valid 2000-00-00T00:00 to 2000-00-00T00:00\nvalidate        00000000000000000000\n"
    --sim records)
run(show_json 0 "^{\"card_type\": 0, \"daily_duration\": 0, \"total_duration\": 0, \"card_number\": 0, \"credit\": {\"value\": 0, \"begin\": \"2000-00-00T00:00\", \"end\": \"2000-00-00T00:00\"}, \"validate\": \"00000000000000000000\"}\n$"
    --sim --json records show)
run(right 0 "^right record 5: type 0, values 1000 and 2000, 07:45 to 23:59, days 1111100, daily maximum -\n$"
    --sim records right 5 1000 2000 07:45 23:59 1111100)
run(right_counter_json 0 "^{\"record\": 6, \"type\": 1, \"first\": 1, \"second\": 2, \"start\": \"06:00\", \"end\": \"18:30\", \"days\": \"0000011\", \"max_daily_counter\": 4}\n$"
    --sim --json records right 6 1 2 06:00 18:30 0000011 4)
run(credit 0 "^credit 2500, valid 2026-01-01T00:00 to 2027-06-30T23:59\n$"
    --sim records credit 2500 2026-01-01T00:00 2027-06-30T23:59)
run(validate 0 "^{\"validate\": \"0102030405060708090A\"}\n$" --sim --json records validate 01:02:03:04:05:06:07:08:09:0a)
run(daily 0 "^daily: 480 min\n$" --sim records daily 480)
run(out_of_range_json 1 "^{\"error\": \"right record 64: " --sim --json records right 64 1 1 00:00 00:00 0000000)
run(records_help 0 "usage: tandro \\[OPTIONS\\] records \\[show \\| right N" records --help)
run(bad_time 2 "^tandro records: usage: tandro records" --sim records right 5 1 2 24:00 23:59 1111100)
run(bad_days 2 "^tandro records: usage" --sim records right 5 1 2 07:00 23:59 11111)
run(bad_date 2 "^tandro records: usage" --sim records credit 1 1999-01-01T00:00 2027-06-30T23:59)

run(balance_set 0 "^balance: -250\n$" --sim balance set -250)
run(balance_set_json 0 "^{\"balance\": 2147483647}\n$" --sim --json balance set 2147483647)
# The blocks of the built-in card hold no value yet: an error object and a non-zero exit.
run(balance_empty 1 "^{\"error\": \"read: " --sim --json balance get)
run(balance_wrong_key 1 "tandro balance: write: " --sim balance set 5 --key A0A1A2A3A4A5)
run(balance_help 0 "usage: tandro \\[OPTIONS\\] balance get \\| set VALUE" balance --help)
run(balance_range 2 "^tandro balance: set takes a value from -2147483648 to 2147483647" --sim balance set 2147483648)
run(balance_key 2 "^tandro balance: --key takes 6 bytes" --sim balance get --key 0102)
