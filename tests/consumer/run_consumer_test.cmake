# Builds and runs tests/consumer in one mode, as an outside project would.
#   cmake -DMODE=subdir|package -DSOURCE_DIR=... -DBUILD_DIR=... -DTOOLCHAIN=... -DWORK_DIR=...
#         -DWINE_RUN=... -P run_consumer_test.cmake
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGN}\n${out}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE "${WORK_DIR}")
set(args -S "${SOURCE_DIR}/tests/consumer" -B "${WORK_DIR}/build" -G Ninja
         -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN} -DCMAKE_BUILD_TYPE=Release -DCONSUMER_MODE=${MODE})
if(MODE STREQUAL "package")
  run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${WORK_DIR}/install")
  foreach(f bin/TernCoreLib.dll lib/TernCoreLib.lib include/TernCoreLib/TernCoreLib.h
            include/TernCoreLib/foundation/temp_string.h
            lib/cmake/TernCoreLib/TernCoreLibConfig.cmake)
    if(NOT EXISTS "${WORK_DIR}/install/${f}")
      message(FATAL_ERROR "the install lacks ${f}")
    endif()
  endforeach()
  list(APPEND args -DCMAKE_PREFIX_PATH=${WORK_DIR}/install)
  set(dll_dir "${WORK_DIR}/install/bin")
else()
  list(APPEND args -DTERN_SOURCE_DIR=${SOURCE_DIR})
  set(dll_dir "${WORK_DIR}/build/terncorelib/lib")
endif()
run(${CMAKE_COMMAND} ${args})
run(${CMAKE_COMMAND} --build "${WORK_DIR}/build")

# As a subproject only the library is built: no tests, tools or examples.
file(GLOB_RECURSE extras "${WORK_DIR}/build/*tests.exe" "${WORK_DIR}/build/*tour.exe")
if(extras)
  message(FATAL_ERROR "the outside project built more than the library: ${extras}")
endif()

set(ENV{WINEPATH} "${dll_dir}")
run(${WINE_RUN} "${WORK_DIR}/build/consumer.exe")
if(NOT last_output MATCHES "consumer ok")
  message(FATAL_ERROR "unexpected output: ${last_output}")
endif()
file(REMOVE_RECURSE "${WORK_DIR}")
