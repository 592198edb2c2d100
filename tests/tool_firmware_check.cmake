# tandro firmware against the built-in simulated reader, with a folder of packages and images: what each form
# prints, its JSON document, a package installed on the display, and the usage errors (exit code 2).
if(NOT TOOL OR NOT WORK)
  message(FATAL_ERROR "TOOL and WORK must be set")
endif()

include(${CMAKE_CURRENT_LIST_DIR}/tool_run.cmake)

set(dir ${WORK}/images)
file(REMOVE_RECURSE ${dir})
file(MAKE_DIRECTORY ${dir}/config)
file(WRITE ${dir}/packages.txt "1.0.0,first\n2.0.0,display update\n")
file(WRITE ${dir}/1.0.0.json "{\"nfc1_version\": \"5.0.60\"}")
file(WRITE ${dir}/2.0.0.json "{\"nfc1_version\": \"5.0.60\", \"display1_version\": \"75.0.0\"}")
file(WRITE ${dir}/bad.json "{\"nfc1_version\": ")
# Three 64-byte packets for the display, on two lines.
string(REPEAT "0123456789abcdef" 12 half)
file(WRITE ${dir}/display-75.0.0.hex "${half}\n${half}\n")
file(WRITE ${dir}/config/door "mode=1")

run(status 0 "main module  hw type 1, hw version 2, firmware 5.0.60, serial SIM00001\n.*package      2.0.0\n"
    firmware --images ${dir} status)
run(status_json 0 "^{\"main\": {\"hw_type\": 1, .*\"firmware\": \"5.0.60\".*\"package\": \"2.0.0\"}\n$"
    --json firmware --images ${dir})
run(list 0 "^1.0.0,first\n2.0.0,display update\n$" firmware list --images ${dir})
run(list_json 0 "^{\"packages\": \\[{\"package\": \"1.0.0\", \"comment\": \"first\"}, {\"package\": \"2.0.0\""
    --json firmware --images ${dir} list)
run(manifest 0 "nfc1_version +5.0.60\ndisplay1_version +75.0.0\n" firmware --images ${dir} manifest 2.0.0)
run(install 0 "package 2.0.0 installed\n" firmware --images ${dir} install 2.0.0)
run(install_nothing_json 0 "^{\"package\": \"1.0.0\", \"finished\": \\[\\]}\n$"
    --json firmware --images ${dir} install 1.0.0 --token t0ken)
run(install_missing 1 "{\"error\": \"manifest of 3.0.0: .*\", \"status\": 36865" --json firmware --images ${dir}
    install 3.0.0)
run(install_bad_manifest 1 "Manifest JSON parse error" firmware --images ${dir} install bad)
run(help 0 "usage: tandro .*firmware --images DIR" firmware --help)

run(no_images 2 "^tandro firmware: --images DIR" firmware list)
run(no_package 2 "^tandro firmware: usage" firmware --images ${dir} install)
run(path_package 2 "^tandro firmware: usage" firmware --images ${dir} install ../2.0.0)
run(unknown 2 "^tandro firmware: usage" firmware --images ${dir} flash)
run(bad_option 2 "^tandro firmware:" firmware --images ${dir} --forced list)
