# ./tern search hands Wine the FILE operands as Z: paths and nothing else: neither the options
# nor TERM, even where TERM names an existing path ("tree" below); "-" stays standard input.
#   cmake -DSCRIPT=<scripts/ternsearch-args.sh> -DDATA=<tests/data> -DWORK=<scratch folder>
#         -P ternsearch_args_test.cmake
file(REMOVE_RECURSE "${WORK}")
file(MAKE_DIRECTORY "${WORK}/dosdevices")
file(CREATE_LINK / "${WORK}/dosdevices/z:" SYMBOLIC)
execute_process(COMMAND env WINEPREFIX=${WORK} bash -c "\"$0\" \"$@\" | tr '\\0' '\\n'"
                        ${SCRIPT} -ri -- tree tree - search_sample.txt
                WORKING_DIRECTORY "${DATA}" RESULT_VARIABLE status OUTPUT_VARIABLE out)
string(REPLACE "/" "\\" windows "${DATA}")
set(expected "-ri\n--\ntree\nZ:${windows}\\tree\n-\nZ:${windows}\\search_sample.txt\n")
if(NOT status EQUAL 0 OR NOT out STREQUAL expected)
  message(FATAL_ERROR "status ${status}, arguments:\n${out}expected:\n${expected}")
endif()
