# tandro display and tandro flash against the built-in simulated reader: what each prints, its JSON document,
# and a one-line usage error (exit code 2) for arguments it cannot take.
if(NOT TOOL OR NOT FIXTURES OR NOT WORK)
  message(FATAL_ERROR "TOOL, FIXTURES and WORK must be set")
endif()

include(${CMAKE_CURRENT_LIST_DIR}/tool_run.cmake)

file(MAKE_DIRECTORY ${WORK})
# A firmware image of 1,000 bytes (eight packets, the last one padded) and a raw bitmap of 1,024 bytes.
string(REPEAT "0123456789" 100 image)
file(WRITE ${WORK}/image.bin "${image}")
string(REPEAT "ABCDEFGH" 128 bitmap)
file(WRITE ${WORK}/raw.bitmap "${bitmap}")
file(WRITE ${WORK}/short.bitmap "ABC")

run(show_png 0 "^picture shown\n$" display show ${FIXTURES}/full_grey.png)
run(show_raw_json 0 "^{\"done\": \"picture shown\"}\n$" --json display show ${WORK}/raw.bitmap)
run(text 0 "^text shown\n$" display text "Hello")
run(time_json 0 "^{\"done\": \"time shown\"}\n$" --json display time 7:05)
run(gallery_save 0 "^picture saved at 10\n$" display gallery save 10 ${FIXTURES}/corner.bmp)
run(show_jpeg 0 "^picture shown\n$" display show ${FIXTURES}/python.jpg)
run(show_jpeg_json 0 "^{\"done\": \"picture shown\"}\n$" --json display show ${FIXTURES}/python.jpg)
run(gallery_save_jpeg 0 "^picture saved at 3\n$" display gallery save 3 ${FIXTURES}/python.jpg)
run(gallery_show 0 "^gallery 16 shown\n$" display gallery show 16)
run(clear 0 "^display cleared\n$" display clear)
run(flash 0 "8 packets sent, image verified" flash ${WORK}/image.bin)
run(flash_json 0 "^{\"packets\": 8, \"verified\": true}\n$" --json flash ${WORK}/image.bin)
run(display_help 0 "^usage: tandro \\[OPTIONS\\] display show PICTURE .*display show PICTURE +shows a picture: a .png, .jpg, .jpeg or .bmp file" display --help)
run(flash_help 0 "^usage: tandro \\[OPTIONS\\] flash IMAGE" flash --help)
run(display_option 2 "^tandro display: unknown option --fast" display show ${FIXTURES}/python.jpg --fast)

# Refused by the library or the module: exit code 1 and the error object under --json.
run(show_too_wide 1 "{\"error\": \"show: .*\", \"status\": 32770, \"status_text\": \"[^\"]*ZEL_DISPLAY_IMAGE_DIMENSION_ERROR\"}" --json display show ${FIXTURES}/wide.png)
run(show_missing 1 "ZEL_DISPLAY_IMAGE_LOAD_ERROR" display show ${WORK}/none.png)
# A JPEG the decoder refuses: the error object and the one-line message, nothing from the decoder.
string(ASCII 255 216 255 219 soi)
file(WRITE ${WORK}/broken.jpg "${soi}not a picture")
run(show_broken_jpeg 1 "^{\"error\": \"show: [^\"]*ZEL_DISPLAY_IMAGE_LOAD_ERROR\", \"status\": 32769, \"status_text\": \"[^\"]*\"}\ntandro display: show: [^\n]*ZEL_DISPLAY_IMAGE_LOAD_ERROR\n$"
    --json display show ${WORK}/broken.jpg)

# A .jpeg name goes to the library through a temporary .jpg link, removed afterwards; one that is not there is
# refused as a missing .jpg is.
file(COPY_FILE ${FIXTURES}/python.jpg ${WORK}/python.jpeg)
file(REMOVE_RECURSE ${WORK}/tmp)
file(MAKE_DIRECTORY ${WORK}/tmp)
execute_process(COMMAND ${CMAKE_COMMAND} -E env TMPDIR=${WORK}/tmp ${TOOL} --sim --json display show ${WORK}/python.jpeg
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err TIMEOUT 60)
file(GLOB left ${WORK}/tmp/*)
if(NOT rc EQUAL 0 OR NOT "${out}${err}" STREQUAL "{\"done\": \"picture shown\"}\n" OR left)
  message(SEND_ERROR "show_jpeg_long: exit ${rc}, left behind: ${left}\n--- output:\n${out}${err}")
else()
  message(STATUS "show_jpeg_long: ok")
endif()
run(show_jpeg_long_missing 1 "ZEL_DISPLAY_IMAGE_LOAD_ERROR" display show ${WORK}/none.jpeg)

# Refused before the reader is asked.
string(REPEAT "x" 250 long_text)
run(text_too_long 2 "^tandro display: the text is longer than 249 characters" display text ${long_text})
run(gallery_index 2 "^tandro display: gallery index 0 to 10" display gallery save 11 ${FIXTURES}/corner.bmp)
run(time_range 2 "^tandro display: time HH:MM" display time 24:00)
run(raw_short 2 "^tandro display: PICTURE is" display show ${WORK}/short.bitmap)
run(unknown 2 "^tandro display: show, text" display blink)
run(flash_missing 2 "^tandro flash: IMAGE must be" flash ${WORK}/none.bin)
run(flash_count 2 "^tandro flash: IMAGE" flash)
