# Runs ternsearch over the bundled texts in tests/data and checks its output and exit status.
#   cmake -DTOOL=<ternsearch.exe> -DRUN=<emulator or empty> -DDATA=<tests/data> [-DONLY=<check>]
#         -P ternsearch_test.cmake
# With ONLY, just the check of that name runs: each is a CTest entry of its own, so that the runs
# of the tool, a Wine start each, share the machine with the other tests.

set(failures 0)

# check(NAME EXIT <status> OUT <stdout> [ERR <stderr>] ARGS <arguments...>)
function(check name)
  if(DEFINED ONLY AND NOT name STREQUAL ONLY)
    return()
  endif()
  set_property(GLOBAL APPEND PROPERTY checks_run ${name})
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "EXIT;OUT;ERR" "ARGS")
  execute_process(COMMAND ${RUN} ${TOOL} ${arg_ARGS}
                  WORKING_DIRECTORY "${DATA}"
                  RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
  set(problems "")
  if(NOT "${status}" STREQUAL "${arg_EXIT}")
    string(APPEND problems "  exit status ${status}, expected ${arg_EXIT}\n")
  endif()
  # An empty OUT leaves arg_OUT unset, which reads as the empty text here.
  if(NOT "${out}" STREQUAL "${arg_OUT}")
    string(APPEND problems "  output:\n${out}  expected:\n${arg_OUT}")
  endif()
  if(DEFINED arg_ERR AND NOT "${err}" STREQUAL "${arg_ERR}")
    string(APPEND problems "  error output: ${err}  expected: ${arg_ERR}")
  endif()
  if(problems)
    message(SEND_ERROR "ternsearch ${name} (${arg_ARGS}):\n${problems}")
  endif()
endfunction()

set(s search_sample.txt)
check(lines EXIT 0 ARGS -i fox ${s} OUT
"${s}:1:The quick brown fox jumps over the lazy dog.
${s}:2:A fox, a FOX and a foxglove.
${s}:4:foxfox fox_fox
")
# Occurrences, not lines; they never overlap.
check(count EXIT 0 ARGS -c fox ${s} OUT "${s}:7\n")
# "foxglove" and "foxfox" are no whole words; the underscore separates words.
check(words EXIT 0 ARGS -w -c fox ${s} OUT "${s}:4\n")
check(combined EXIT 0 ARGS -ciw fox ${s} OUT "${s}:5\n")
# A CR before the LF is not printed.
check(crlf EXIT 0 ARGS here ${s} OUT "${s}:3:Nothing to see here.\n")
check(nothing_count EXIT 1 ARGS -c zebra ${s} OUT "${s}:0\n")

set(w search_sample_utf16.txt)
check(wide EXIT 0 ARGS --wide aus ${w} OUT "${w}:1:Grüße aus Köln\n")

check(missing EXIT 2 ARGS fox missing.txt OUT "" ERR "ternsearch: missing.txt: no such file\n")
check(directory EXIT 2 ARGS fox . OUT "" ERR "ternsearch: .: is a directory\n")
# An error in one file gives status 2 even though another file holds occurrences.
check(mixed EXIT 2 ARGS -c fox ${s} missing.txt OUT "${s}:7\n"
      ERR "ternsearch: missing.txt: no such file\n")
check(two_files EXIT 0 ARGS -c fox ${s} ${w} OUT "${s}:7\n${w}:0\n")
check(bad_option EXIT 2 ARGS -x fox ${s} OUT "")

get_property(checks_run GLOBAL PROPERTY checks_run)
if(NOT checks_run)
  message(FATAL_ERROR "no check named ${ONLY}")
endif()
