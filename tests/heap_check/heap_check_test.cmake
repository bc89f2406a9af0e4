# The Wine wrapper's heap checks (scripts/wine-run.sh) catch a bad free: the wrapper exits 70,
# reports Wine's line with the program's name (and the program's line before it) on standard
# error and in $TERN_HEAP_LOG, and passes the program's own output on untouched, both outputs
# apart and merged into one.
#   cmake -DRUN=<wine-run.sh> -DPROGRAM=<tern_bad_free.exe> -DWORK=<scratch folder>
#         -P heap_check_test.cmake
file(REMOVE_RECURSE "${WORK}")
file(MAKE_DIRECTORY "${WORK}")
set(log "${WORK}/heap-check.log")
set(run ${CMAKE_COMMAND} -E env TERN_HEAP_CHECK=1 TERN_HEAP_LOG=${log} ${RUN} ${PROGRAM})
set(report "wine-run.sh: Wine's heap checks failed in [^\n]*tern_bad_free.exe \\(the program's own status: 0\\)\n  [0-9a-f]+:(warn|err):heap:[^\n]+\n    after: own error line\n")

execute_process(COMMAND ${run} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
file(READ "${log}" logged)
if(NOT status EQUAL 70 OR NOT out STREQUAL "before\nafter\n" OR
   NOT err MATCHES "^own error line\n${report}$" OR NOT logged MATCHES "^${report}$")
  message(FATAL_ERROR "apart: status ${status}\nout:\n${out}\nerr:\n${err}\nlog:\n${logged}")
endif()

# Merged, the order of the program's lines stays; the report comes last.
execute_process(COMMAND ${run} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(NOT status EQUAL 70 OR
   NOT out MATCHES "^before\nown error line\nafter\n${report}$")
  message(FATAL_ERROR "merged: status ${status}\n${out}")
endif()
