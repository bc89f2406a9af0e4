# Runs ternsearch over the bundled texts in tests/data and checks its output and exit status, and
# over a text longer than its pieces against GNU grep.
#   cmake -DTOOL=<ternsearch.exe> -DRUN=<emulator or empty> -DDATA=<tests/data>
#         -DWORK=<scratch folder> [-DONLY=<check>] -P ternsearch_test.cmake
# With ONLY, just the check of that name runs: each is a CTest entry of its own, so that the runs
# of the tool, a Wine start each, share the machine with the other tests.

set(failures 0)

# check(NAME EXIT <status> OUT <stdout> | MATCH <regex> [ERR <stderr>] [INPUT <file>]
#       [OUTPUT_TO <file>] ARGS <arguments...>)
function(check name)
  if(DEFINED ONLY AND NOT name STREQUAL ONLY)
    return()
  endif()
  set_property(GLOBAL APPEND PROPERTY checks_run ${name})
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "EXIT;OUT;MATCH;ERR;INPUT;OUTPUT_TO" "ARGS")
  set(input "")
  if(arg_INPUT)
    set(input INPUT_FILE "${DATA}/${arg_INPUT}")
  endif()
  set(output OUTPUT_VARIABLE out)
  if(arg_OUTPUT_TO)
    set(output OUTPUT_FILE "${arg_OUTPUT_TO}")
  endif()
  execute_process(COMMAND ${RUN} ${TOOL} ${arg_ARGS}
                  WORKING_DIRECTORY "${DATA}" ${input}
                  RESULT_VARIABLE status ${output} ERROR_VARIABLE err)
  set(problems "")
  if(NOT "${status}" STREQUAL "${arg_EXIT}")
    string(APPEND problems "  exit status ${status}, expected ${arg_EXIT}\n")
  endif()
  # An empty OUT leaves arg_OUT unset, which reads as the empty text here.
  if(DEFINED arg_MATCH)
    if(NOT "${out}" MATCHES "${arg_MATCH}")
      string(APPEND problems "  output:\n${out}  does not match ${arg_MATCH}\n")
    endif()
  elseif(NOT "${out}" STREQUAL "${arg_OUT}")
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

# The tree under tests/data/tree: directories in order of name (code units: B before d), depth
# first, names joined with backslashes; a directory without -r is an error (see "directory").
check(recursive EXIT 0 ARGS -r fox tree OUT
"tree\\docs\\fox.txt:1:fox_fox and a Fox
tree\\docs\\old\\notes.txt:1:old fox
tree\\docs\\old\\notes.txt:2:older -fox
tree\\root.txt:1:A fox in the root.
")
# -l wins over -c and prints names even with -h.
check(names EXIT 0 ARGS -rlich fox tree OUT
"tree\\B.txt\ntree\\docs\\fox.txt\ntree\\docs\\old\\notes.txt\ntree\\root.txt\n")
# After -- a term may start with a dash.
check(no_names EXIT 0 ARGS -rch -- -fox tree OUT "0\n0\n1\n0\n0\n")
# Standard input: without FILE unnamed, with -H as grep names it; -n is accepted.
check(stdin EXIT 0 INPUT ${s} ARGS -c fox OUT "7\n")
check(stdin_named EXIT 0 INPUT ${s} ARGS -Hn -w fox - OUT
"(standard input):1:The quick brown fox jumps over the lazy dog.
(standard input):2:A fox, a FOX and a foxglove.
(standard input):4:foxfox fox_fox
")
check(help EXIT 0 ARGS --help MATCH "^usage: ternsearch.*-r .*'ba a a' holds no whole word 'a a'")
# Output that can't be written (a full disk) ends the search with status 2, and the threads that
# read ahead end with it.
check(unwritable EXIT 2 OUTPUT_TO /dev/full ARGS -r fox tree
      ERR "ternsearch: the output cannot be written\n")

# A text of 3 MiB, read in several pieces, with lines of many lengths, one of them longer than a
# piece: the lines printed are grep's, line numbers and all, and -c counts grep's matches.
if(NOT DEFINED ONLY OR ONLY MATCHES "^pieces")
  string(RANDOM LENGTH 4000 ALPHABET "fox ab\nfo" RANDOM_SEED 7 block)
  string(REPEAT "${block}" 400 text)
  string(REPEAT "a" 1500000 long)
  file(WRITE "${WORK}/long.txt" "${text}${long}fox${text}fox")
  execute_process(COMMAND grep -H -n -F fox "${WORK}/long.txt" OUTPUT_VARIABLE lines)
  execute_process(COMMAND grep -o -F fox "${WORK}/long.txt" COMMAND wc -l OUTPUT_VARIABLE matches)
  string(STRIP "${matches}" matches)
endif()
check(pieces EXIT 0 ARGS -n fox "${WORK}/long.txt" OUT "${lines}")
check(pieces_count EXIT 0 ARGS -c fox "${WORK}/long.txt" OUT "${WORK}/long.txt:${matches}\n")

get_property(checks_run GLOBAL PROPERTY checks_run)
if(NOT checks_run)
  message(FATAL_ERROR "no check named ${ONLY}")
endif()
