# One GoogleTest program run as one process, with a CTest entry for each of its tests.
#
# tern_add_test_program() gives a program two kinds of entry. The program's own entry runs it
# once (-P with MODE=run): every test's outcome goes to RESULTS/<Suite.Test> (a parameterised
# test's slashes written as ~), a line that begins
# "[       OK ]", "[  SKIPPED ]" or "[  FAILED  ]", followed by the failures' texts. Each test's
# entry shows its file and fails on "[  FAILED  ]", or when the file is missing because the run
# never reached that test, or Wine's heap checks reported while it ran (the wrapper's status 70
# and its report). The tests' entries are listed when CTest starts (included with
# MODE=list): from the program's own list, asked for again only when something has changed.
#
#   PROGRAM   the test program
#   EMULATOR  what runs it (the Wine wrapper)
#   RESULTS   the folder of the run's report and outcomes
#   LIST      (list) the file of CTest commands to write and include
#   NAME      (list) the program's entry, which the tests' entries need as their fixture
#   SHOW      (list) the program that shows an outcome file: cat, or cmake -E cat

# The program's report as JSON (the whole run, or with LIST_ONLY only the names of its tests) in
# out_var; without a report, out_var is empty and error_var says why. error_var also holds what
# Wine's heap checks reported, if they did.
function(tern_gtest_report out_var error_var)
  set(only "")
  if(ARGN STREQUAL "LIST_ONLY")
    set(only --gtest_list_tests)
  endif()
  file(MAKE_DIRECTORY "${RESULTS}")
  file(REMOVE "${RESULTS}/report.json")
  # The report's name is relative: the program reads its arguments as Windows paths.
  execute_process(COMMAND ${EMULATOR} "${PROGRAM}" ${only} --gtest_output=json:report.json
                  WORKING_DIRECTORY "${RESULTS}" RESULT_VARIABLE status
                  OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT EXISTS "${RESULTS}/report.json")
    # A crash ends the run without a report; the last test begun is the one that crashed.
    string(REGEX MATCHALL "\\[ RUN      \\] [^\r\n]+" begun "${output}")
    list(POP_BACK begun last)
    set(${error_var} "${PROGRAM} ended (${status}) without a report; last test begun: ${last}\n${output}"
        PARENT_SCOPE)
    set(${out_var} "" PARENT_SCOPE)
    return()
  endif()
  file(READ "${RESULTS}/report.json" report)
  set(${out_var} "${report}" PARENT_SCOPE)
  # The wrapper's status when Wine's heap checks reported: error_var gets its report.
  if(status EQUAL 70)
    string(FIND "${output}" "wine-run.sh: Wine's heap checks failed" at)
    if(at LESS 0)
      set(at 0)
    endif()
    string(SUBSTRING "${output}" ${at} -1 heap)
    set(${error_var} "${heap}" PARENT_SCOPE)
  endif()
endfunction()

# Calls `callback` with each test's suite and name and its JSON record, for the report held in
# the variable named `report_var`. (A macro, so that the callback sets variables of the caller;
# it takes the report by name, as a macro pastes the values of its arguments into its text.)
macro(tern_gtest_for_each report_var callback)
  string(JSON suites LENGTH "${${report_var}}" testsuites)
  math(EXPR last_suite "${suites} - 1")
  foreach(s RANGE ${last_suite})
    string(JSON suite GET "${${report_var}}" testsuites ${s})
    string(JSON suite_name GET "${suite}" name)
    string(JSON cases LENGTH "${suite}" testsuite)
    math(EXPR last_case "${cases} - 1")
    foreach(c RANGE ${last_case})
      string(JSON case GET "${suite}" testsuite ${c})
      string(JSON case_name GET "${case}" name)
      cmake_language(CALL ${callback} "${suite_name}" "${case_name}" "${case}")
    endforeach()
  endforeach()
endmacro()

function(tern_gtest_write_outcome suite name case)
  string(JSON result GET "${case}" result)
  string(JSON failures ERROR_VARIABLE none LENGTH "${case}" failures)
  if(none)
    set(failures 0)
  endif()
  if(failures GREATER 0)
    set(text "[  FAILED  ] ${suite}.${name}\n")
    math(EXPR last "${failures} - 1")
    foreach(f RANGE ${last})
      string(JSON failure GET "${case}" failures ${f} failure)
      string(APPEND text "${failure}\n")
    endforeach()
  elseif(result STREQUAL "SKIPPED")
    set(text "[  SKIPPED ] ${suite}.${name}\n")
  else()
    set(text "[       OK ] ${suite}.${name}\n")
  endif()
  string(REPLACE "/" "~" file "${suite}.${name}")
  file(WRITE "${RESULTS}/${file}" "${text}")
endfunction()

function(tern_gtest_add_entry suite name case)
  string(REPLACE "/" "~" file "${suite}.${name}")
  string(APPEND entries
    "add_test([==[${suite}.${name}]==] ${SHOW} [==[${RESULTS}/${file}]==])\n"
    "set_tests_properties([==[${suite}.${name}]==] PROPERTIES FIXTURES_REQUIRED ${NAME}\n"
    "  FAIL_REGULAR_EXPRESSION \"\\\\[  FAILED  \\\\]\" SKIP_REGULAR_EXPRESSION \"\\\\[  SKIPPED \\\\]\")\n")
  set(entries "${entries}" PARENT_SCOPE)
endfunction()

if(MODE STREQUAL "run")
  file(REMOVE_RECURSE "${RESULTS}")
  tern_gtest_report(report error)
  if(NOT report)
    message(FATAL_ERROR "${error}")
  endif()
  tern_gtest_for_each(report tern_gtest_write_outcome)
  # Each of Wine's heap lines fails the test that was running when it came, which the wrapper
  # names as the program's line before it; one that came outside a test fails the program.
  set(placed "\n  ([^\n]+)\n    after: \\[ RUN      \\] ([^\n]+)")
  string(REGEX MATCHALL "${placed}" lines "${error}")
  foreach(line IN LISTS lines)
    string(REGEX MATCH "${placed}" line "${line}")
    set(test "${CMAKE_MATCH_2}")
    set(text "[  FAILED  ] ${test}\nWine's heap checks: ${CMAKE_MATCH_1}\n")
    string(REPLACE "/" "~" file "${test}")
    file(READ "${RESULTS}/${file}" outcome)
    string(REGEX REPLACE "^\\[       OK \\][^\n]*\n" "" outcome "${outcome}")
    file(WRITE "${RESULTS}/${file}" "${text}${outcome}")
  endforeach()
  string(REGEX REPLACE "${placed}" "" unplaced "${error}")
  if(unplaced MATCHES "\n  [0-9a-f]+:")
    message(FATAL_ERROR "${error}")
  endif()
elseif(MODE STREQUAL "list")
  # Listed again when the program, this script or the file that includes it has changed (or
  # the list is missing, which IS_NEWER_THAN counts as older).
  set(stale FALSE)
  foreach(source "${PROGRAM}" "${CMAKE_CURRENT_LIST_FILE}" "${CMAKE_PARENT_LIST_FILE}")
    if("${source}" IS_NEWER_THAN "${LIST}")
      set(stale TRUE)
    endif()
  endforeach()
  if(EXISTS "${PROGRAM}" AND stale)
    set(entries "")
    tern_gtest_report(report error LIST_ONLY)
    if(report)
      tern_gtest_for_each(report tern_gtest_add_entry)
      file(WRITE "${LIST}" "${entries}")
    else()
      # An entry that fails with the reason, instead of a test list.
      file(REMOVE "${LIST}")
      file(WRITE "${RESULTS}/not-listed" "[  FAILED  ] ${error}")
      add_test(${NAME}_NOT_LISTED ${SHOW} "${RESULTS}/not-listed")
      set_tests_properties(${NAME}_NOT_LISTED PROPERTIES FAIL_REGULAR_EXPRESSION "FAILED")
    endif()
  endif()
  if(EXISTS "${LIST}")
    include("${LIST}")
  endif()
endif()
