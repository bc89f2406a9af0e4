# Runs one program of two builds, the MinGW one and the one in Microsoft's ABI, the same way and
# compares what they do byte for byte: standard output, standard error and exit status.
#   cmake -DRUN=<wine-run.sh> -DMINGW=<exe> -DMSVC=<exe> -DDATA=<tests/data> -DCASES=tour|ternsearch
#         -P compare_outputs.cmake
# The tour runs once. ternsearch runs with every option over the bundled samples and the tests'
# trees, from tests/data; a case that starts with <FILE reads FILE as standard input, and "."
# stands for no arguments.
cmake_minimum_required(VERSION 3.20)

if(CASES STREQUAL "tour")
  set(cases ".")
else()
  set(cases
    "fox search_sample.txt"
    "-n -i fox search_sample.txt"
    "-c fox search_sample.txt search_sample_utf16.txt"
    "-w -H fox search_sample.txt"
    "-ciw fox search_sample.txt"
    "-i 'the lazy' search_sample.txt"
    "--wide -i fox search_sample_utf16.txt"
    "--wide -c -w fox search_sample_utf16.txt"
    "-r -i the tree server_tree"
    "-l -r a tree server_tree"
    "-h -r -w -c a server_tree"
    "-r -n zz"
    "-- -x search_sample.txt"
    "fox missing.txt tree search_sample.txt"
    "--help"
    "--version"
    "-z fox"
    "<search_sample.txt -H fox -"
    "<search_sample.txt -c -i fox")
endif()

set(failures "")
foreach(case IN LISTS cases)
  set(args "")
  if(NOT case STREQUAL ".")
    separate_arguments(args UNIX_COMMAND "${case}")
  endif()
  set(input "")
  if(args MATCHES "^<")
    list(POP_FRONT args file)
    string(SUBSTRING "${file}" 1 -1 file)
    set(input INPUT_FILE "${DATA}/${file}")
  endif()
  foreach(build MINGW MSVC)
    execute_process(COMMAND ${RUN} ${${build}} ${args} WORKING_DIRECTORY "${DATA}" ${input}
                    RESULT_VARIABLE status_${build} OUTPUT_VARIABLE out_${build}
                    ERROR_VARIABLE err_${build})
  endforeach()
  foreach(what status out err)
    if(NOT "${${what}_MINGW}" STREQUAL "${${what}_MSVC}")
      string(APPEND failures "${CASES} ${case}: ${what} differs\n"
             "--- MinGW:\n${${what}_MINGW}\n--- Microsoft's ABI:\n${${what}_MSVC}\n")
    endif()
  endforeach()
  if(CASES STREQUAL "tour" AND NOT status_MSVC EQUAL 0)
    string(APPEND failures "the tour failed (${status_MSVC})\n")
  endif()
endforeach()
if(failures)
  message(FATAL_ERROR "${failures}")
endif()
