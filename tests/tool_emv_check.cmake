# tandro emv against the built-in simulated reader: the account number masked unless asked for, the last
# transaction, the tree with its descriptions, one JSON document under --json (an error object on failure),
# and a one-line usage error with exit code 2 for what it refuses.
if(NOT TOOL OR NOT WORK)
  message(FATAL_ERROR "TOOL and WORK must be set")
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
  set(last_out "${out}" PARENT_SCOPE)
endfunction()

function(absent name text)
  string(FIND "${last_out}" "${text}" at)
  if(NOT at EQUAL -1)
    message(SEND_ERROR "${name}: the output shows ${text}\n--- output:\n${last_out}")
  endif()
endfunction()

run(masked 0 "Application: SIM DEBIT \\(A0000000031010\\)\nAccount number: \\*\\*\\*\\*\\*\\*\\*\\*\\*\\*\\*\\*9010\nExpiry: 2028-12-31\nLast transaction:\n  ATCounter: 66\n  Date: 20.11.2026\n"
    --sim emv)
absent(masked_number "4000123456789010")
run(show_pan 0 "Account number: 4000123456789010\n" --sim emv --show-pan)
run(json 0 "^{\"application\": {\"aid\": \"A0000000031010\", \"label\": \"SIM DEBIT\"}, \"pan\": \"\\*+9010\", \"pan_masked\": true, \"expiry\": \"2028-12-31\", \"last_transaction\": {\"atc\": \"66\", \"date\": \"20.11.2026\", \"time\": \"14:30:05\", \"amount\": \"123.45\", \"currency\": \"EUR\", \"terminal_country\": \"DE\"}"
    --sim --json emv)
absent(json_number "4000123456789010")
run(tree 0 "SELECT 2PAY.SYS.DDF01\n  6F File Control Information \\(FCI\\) Template\n.*    9F38 Processing Options Data Object List \\(PDOL\\): 9F66049F02069F37045F2A029A03\n        9F66 Terminal Transaction Qualifiers \\(TTQ\\), 4 bytes\n.*5A Application Primary Account Number \\(PAN\\): \\(8 bytes, hidden"
    --sim emv tree)
absent(tree_number "4000123456789010")
run(tree_json 0 "^{\"answers\": \\[{\"command\": \"SELECT 2PAY.SYS.DDF01\", \"tree\": \\[{\"tag\": \"6F\"" --sim --json emv tree)
run(tree_shown 0 "5A Application Primary Account Number \\(PAN\\): 4000123456789010" --sim emv tree --show-pan)

# A card answering GET PROCESSING OPTIONS in format 1 with an odd number of digits: the tool reads the
# records itself and drops the F padding.
file(WRITE ${WORK}/emv_format1.json
     "{\"cards\": [{\"uid\": \"04518A2B3C4D80\", \"sak\": \"20\", \"atqa\": \"0344\", \"type\": \"ORB_GENERIC_ISO14443_4\", \"model\": \"emv\", \"setup\": {\"applications\": [{\"gpo_format\": 1, \"pan\": \"476173900101011\"}]}}]}")
run(format1 0 "Account number: 476173900101011\n" --sim=${WORK}/emv_format1.json emv --show-pan)
# No payment card: an error object and a non-zero exit.
file(WRITE ${WORK}/emv_none.json
     "{\"cards\": [{\"uid\": \"04518A2B3C4D80\", \"sak\": \"20\", \"atqa\": \"0344\", \"type\": \"ORB_GENERIC_ISO14443_4\", \"model\": \"iso14443_4\"}]}")
run(no_card 1 "^{\"error\": \"account number: " --sim=${WORK}/emv_none.json --json emv)

run(help 0 "usage: tandro \\[OPTIONS\\] emv \\[tree\\] \\[--show-pan\\] \\[--df NAME\\].*--show-pan +shows the account number whole"
    emv --help)
run(unknown 2 "^tandro emv: unknown argument 'bogus'" --sim emv bogus)
run(df_missing 2 "^tandro emv: --df needs a value" --sim emv --df)
string(REPEAT "D" 256 long_name)
run(df_long 2 "^tandro emv: --df takes a name of 1 to 255 characters" --sim emv tree --df ${long_name})
run(tree_twice 2 "^tandro emv: unknown argument 'tree'" --sim emv tree tree)
# Options go anywhere among the words.
run(options_first 0 "5A Application Primary Account Number \\(PAN\\): 4000123456789010" --sim emv --show-pan tree)
