# SPDX-License-Identifier: Apache-2.0
# Writes the small folder that `make run` shares: a few text, HTML and image files whose sizes
# make byte ranges worth trying. Rewritten at every configure; nothing else lives there.
set(TW_SAMPLE_DIR ${PROJECT_BINARY_DIR}/sample)
file(MAKE_DIRECTORY ${TW_SAMPLE_DIR})
file(WRITE ${TW_SAMPLE_DIR}/readme.txt
  "This folder is shared by tarnwick-mediaserver (make run).\n"
  "Every file can be fetched whole or in byte ranges, for example:\n"
  "  curl -r 0-99 http://127.0.0.1:9000/files/numbers.txt\n")
set(_tw_numbers "")
foreach(_tw_i RANGE 1 1000)
  string(APPEND _tw_numbers "line ${_tw_i}\n")
endforeach()
file(WRITE ${TW_SAMPLE_DIR}/numbers.txt "${_tw_numbers}")
file(WRITE ${TW_SAMPLE_DIR}/page.html
  "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>Sample page</title></head>\n"
  "<body><h1>Sample page</h1><p>Served from the shared folder.</p>"
  "<img src=\"picture.svg\" alt=\"picture\"></body></html>\n")
file(WRITE ${TW_SAMPLE_DIR}/picture.svg
  "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"160\" height=\"90\">"
  "<rect width=\"160\" height=\"90\" fill=\"#2a6f97\"/>"
  "<circle cx=\"80\" cy=\"45\" r=\"30\" fill=\"#f4d35e\"/></svg>\n")
