# tandro https: its help (verification on by default), the usage errors, and one JSON error object with a
# non-zero exit when nothing listens, with the simulated GIDS card's certificate read first; the PIN never shown.
if(NOT TOOL OR NOT WORK)
  message(FATAL_ERROR "TOOL and WORK must be set")
endif()
include(${CMAKE_CURRENT_LIST_DIR}/tool_run.cmake)

run(help 0 "usage: tandro \\[OPTIONS\\] https URL .*--insecure +do not verify the server at all \\(verification is on by default\\)" https --help)
run(no_url 2 "^tandro https: a URL is needed" https)
run(bad_url 2 "^tandro https: the URL must be https://HOST" https "https://host:99999/")
run(scheme 2 "^tandro https: the URL must be" https "http://host/")
run(pin_alone 2 "^tandro https: --card and --pin go together" https https://127.0.0.1/ --pin 1234)
run(cert_alone 2 "^tandro https: --cert and --key go together" https https://127.0.0.1/ --cert x.pem)
run(mixed 2 "^tandro https: --card does not go with --cert" https https://127.0.0.1/ --card --pin 1 --cert a --key b)
run(unknown 2 "^tandro https: unknown option --bogus" https https://127.0.0.1/ --bogus)
run(two_urls 2 "^tandro https: unknown argument 'https://127.0.0.2/'" https https://127.0.0.1/ https://127.0.0.2/)
run(pin_missing 2 "^tandro https: --pin needs a value" https https://127.0.0.1/ --card --pin)
run(insecure_ca 2 "^tandro https: --insecure does not go with --ca" https --insecure https://127.0.0.1/ --ca=c.pem)
run(missing_cert 1 "^{\"error\": \"--cert ${WORK}/none.pem: no certificate\"}" --json https https://127.0.0.1:1/
    --insecure --cert ${WORK}/none.pem --key ${WORK}/none.key)
run(missing_ca 1 "^{\"error\": \"--ca ${WORK}/none.pem: .*FILE_NOT_EXISTS" --json https https://127.0.0.1:1/
    --ca ${WORK}/none.pem)
# The card's certificate comes from the simulated card; then nothing listens on port 1.
run(card_no_server 1 "^{\"error\": \"GET https://127.0.0.1:1/: .*TLS_CONNECTING_ERROR" --json https
    https://127.0.0.1:1/ --card --pin 918273 --insecure)
execute_process(COMMAND ${TOOL} --sim https https://127.0.0.1:1/ --card --pin 918273 --insecure
                OUTPUT_VARIABLE out ERROR_VARIABLE err TIMEOUT 60)
string(FIND "${out}${err}" "918273" at)
if(NOT at EQUAL -1)
  message(SEND_ERROR "pin_hidden: the output shows the PIN\n${out}${err}")
endif()
