# Builds and runs tests/consumer in one mode, as an outside project would.
#   cmake -DMODE=subdir|package -DSOURCE_DIR=... -DBUILD_DIR=... -DTOOLCHAIN=... -DWORK_DIR=...
#         -DWINE_RUN=... -P run_consumer_test.cmake
# The package's include tree must hold exactly the headers that the umbrella header includes,
# directly or not, and main.cpp includes the umbrella header before anything else: it compiles
# with the installed headers alone.
cmake_minimum_required(VERSION 3.23)

include(${CMAKE_CURRENT_LIST_DIR}/../run_step.cmake)

# The consumer's build folder stays from run to run, so that a run with nothing changed builds
# nothing; a fresh install each time, so that no header of an earlier one remains.
set(args -S "${SOURCE_DIR}/tests/consumer" -B "${WORK_DIR}/build" -G Ninja
         -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN} -DCMAKE_BUILD_TYPE=Release -DCONSUMER_MODE=${MODE})
if(MODE STREQUAL "package")
  file(REMOVE_RECURSE "${WORK_DIR}/install")
  run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${WORK_DIR}/install")
  foreach(f bin/TernCoreLib.dll lib/TernCoreLib.lib lib/cmake/TernCoreLib/TernCoreLibConfig.cmake)
    if(NOT EXISTS "${WORK_DIR}/install/${f}")
      message(FATAL_ERROR "the install lacks ${f}")
    endif()
  endforeach()
  set(include_dir "${WORK_DIR}/install/include/TernCoreLib")
  file(GLOB_RECURSE installed RELATIVE "${include_dir}" "${include_dir}/*")
  set(reached TernCoreLib.h)
  set(queue TernCoreLib.h)
  while(queue)
    list(POP_FRONT queue header)
    set(includes "")
    if(EXISTS "${include_dir}/${header}")
      file(STRINGS "${include_dir}/${header}" includes REGEX "^#include \"")
    endif()
    foreach(line IN LISTS includes)
      string(REGEX REPLACE "^#include \"([^\"]+)\".*" "\\1" name "${line}")
      if(NOT name IN_LIST reached)
        list(APPEND reached "${name}")
        list(APPEND queue "${name}")
      endif()
    endforeach()
  endwhile()
  list(SORT installed)
  list(SORT reached)
  if(NOT installed STREQUAL reached)
    message(FATAL_ERROR "installed headers:\n  ${installed}\nreached from TernCoreLib.h:\n  ${reached}")
  endif()
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
