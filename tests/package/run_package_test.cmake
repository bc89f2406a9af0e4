# Makes the release zip of a build folder with cpack, unpacks it into an empty folder, checks
# what it holds, builds tests/package against it with nothing but CMAKE_PREFIX_PATH, runs the
# program under Wine, and checks that find_package refuses a version the package doesn't satisfy.
#   cmake -DBUILD_DIR=... -DSOURCE_DIR=... -DTOOLCHAIN=... -DWORK_DIR=... -DWINE_RUN=...
#         -DCPACK=... -DVERSION=... -DSYSTEM=win32|win64|win32-msvc|win64-msvc
#         -P run_package_test.cmake
# TOOLCHAIN is the build's own: the MinGW zips are used with MinGW, the MSVC ones with clang-cl.
cmake_minimum_required(VERSION 3.20)

include(${CMAKE_CURRENT_LIST_DIR}/../run_step.cmake)

file(REMOVE_RECURSE "${WORK_DIR}")
run(${CPACK} -G ZIP -B "${WORK_DIR}/out" --config "${BUILD_DIR}/CPackConfig.cmake")
set(name "TernCoreLib-${VERSION}-${SYSTEM}")
file(ARCHIVE_EXTRACT INPUT "${WORK_DIR}/out/${name}.zip" DESTINATION "${WORK_DIR}/unpacked")

# The contents: the library, its package and headers, README and CHANGELOG, and nothing else.
set(top "${WORK_DIR}/unpacked/${name}")
file(GLOB_RECURSE files RELATIVE "${top}" "${top}/*")
set(runtime bin/libgcc_s_dw2-1.dll bin/libwinpthread-1.dll)
foreach(f bin/TernCoreLib.dll lib/TernCoreLib.lib include/TernCoreLib/TernCoreLib.h
          lib/cmake/TernCoreLib/TernCoreLibConfig.cmake
          lib/cmake/TernCoreLib/TernCoreLibConfigVersion.cmake README.md CHANGELOG.md)
  if(NOT f IN_LIST files)
    message(FATAL_ERROR "${name}.zip lacks ${f}: ${files}")
  endif()
endforeach()
foreach(f IN LISTS files)
  if(f MATCHES "^bin/(libgcc|libwinpthread)" AND NOT SYSTEM STREQUAL "win32")
    message(FATAL_ERROR "${name}.zip holds ${f}, which only the 32-bit MinGW build needs")
  elseif(NOT f MATCHES "^(bin/[^/]+\\.dll|lib/TernCoreLib\\.lib|lib/cmake/TernCoreLib/[^/]+\\.cmake|include/TernCoreLib/.+\\.h|README\\.md|CHANGELOG\\.md)$")
    message(FATAL_ERROR "${name}.zip holds ${f}, which is no part of a release")
  endif()
endforeach()
if(SYSTEM STREQUAL "win32")
  foreach(f IN LISTS runtime)
    if(NOT f IN_LIST files)
      message(FATAL_ERROR "${name}.zip lacks ${f}, which the 32-bit DLL needs")
    endif()
  endforeach()
endif()

set(configure ${CMAKE_COMMAND} -S "${SOURCE_DIR}/tests/package" -G Ninja
    -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN} -DCMAKE_BUILD_TYPE=Release
    -DCMAKE_PREFIX_PATH=${WORK_DIR}/unpacked)
run(${configure} -B "${WORK_DIR}/user" -DWANT_VERSION=${VERSION})
run(${CMAKE_COMMAND} --build "${WORK_DIR}/user")
set(ENV{WINEPATH} "${top}/bin")
run(${WINE_RUN} "${WORK_DIR}/user/package_user.exe")
if(NOT last_output MATCHES "TernCoreLib ${VERSION}, 2 found")
  message(FATAL_ERROR "unexpected output: ${last_output}")
endif()

# The next major version is one this package doesn't satisfy.
string(REGEX MATCH "^[0-9]+" major "${VERSION}")
math(EXPR major "${major} + 1")
execute_process(COMMAND ${configure} -B "${WORK_DIR}/refused" -DWANT_VERSION=${major}.0
                RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(result EQUAL 0 OR NOT out MATCHES "compatible with requested version")
  message(FATAL_ERROR "find_package accepted version ${major}.0 of ${VERSION}:\n${out}")
endif()
file(REMOVE_RECURSE "${WORK_DIR}")
