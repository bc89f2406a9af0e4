# Shared settings for every target of the project.
#
# Two compiler families build it: GCC (MinGW-w64) and Microsoft's ABI, either cl.exe on Windows
# or clang-cl in the cross build, for both of which CMake sets MSVC and takes cl.exe's switches
# (clang-cl's compiler id is Clang; its front end is MSVC's). What only one family has stays
# behind `if(MSVC)` here.

# The Windows headers as the library wants them: Windows 7 API level on purpose (MinGW's default
# differs between versions), lean, and without the min/max macros.
add_library(tern_windows_flags INTERFACE)
target_compile_definitions(tern_windows_flags INTERFACE
  _WIN32_WINNT=0x0601 WINVER=0x0601 WIN32_LEAN_AND_MEAN NOMINMAX)
if(MSVC)
  # Warning level 4; sources and literals as UTF-8 (cl.exe would read them in the system's code
  # page); __cplusplus as the standard says (cl.exe reports 199711L without it).
  target_compile_options(tern_windows_flags INTERFACE /W4 /utf-8 /Zc:__cplusplus)
else()
  target_compile_options(tern_windows_flags INTERFACE
    -Wall -Wextra -Wno-unknown-pragmas $<$<CONFIG:Release>:-O2>)
endif()

# The system part of the release zip's name: win32 or win64, and -msvc for Microsoft's ABI, whose
# C++ interface (names, vtables, exceptions) differs from GCC's.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(TERN_PACKAGE_SYSTEM win32)
else()
  set(TERN_PACKAGE_SYSTEM win64)
endif()
if(MSVC)
  string(APPEND TERN_PACKAGE_SYSTEM -msvc)
endif()

# How every module of the project links the MinGW runtime. libstdc++ and winpthread are static, so
# TernCoreLib.dll needs no MinGW DLL but one: in the i686 build libgcc stays shared
# (libgcc_s_dw2-1.dll). There exceptions unwind by DWARF-2 tables, and a C++ exception only
# crosses from one module into another when both use the same unwinder; with a static libgcc each
# module has its own, and a _com_error thrown in the DLL terminates the application. x86_64 unwinds
# through SEH, so libgcc is static there. In Microsoft's ABI every module links the shared C and
# C++ runtime (/MD, CMake's default), which needs nothing here.
function(tern_link_runtime target)
  if(MSVC)
    return()
  endif()
  target_link_options(${target} PRIVATE -static-libstdc++ -L${TERN_STATIC_RUNTIME_DIR})
  if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    target_link_options(${target} PRIVATE -shared-libgcc)
  else()
    target_link_options(${target} PRIVATE -static-libgcc)
  endif()
endfunction()

# The compiler driver links winpthread as -lpthread at the very end, where the linker prefers the
# DLL's import library. A folder searched first that holds only the static archive under both
# names makes that link static. (--whole-archive would work too, but also drags in winpthread's
# own VERSIONINFO, which collides with the DLL's.)
if(NOT MSVC)
  set(TERN_STATIC_RUNTIME_DIR "${PROJECT_BINARY_DIR}/static-runtime")
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libwinpthread.a
                  OUTPUT_VARIABLE TERN_WINPTHREAD_A OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT EXISTS "${TERN_WINPTHREAD_A}")
    message(FATAL_ERROR "libwinpthread.a not found for ${CMAKE_CXX_COMPILER}")
  endif()
  file(MAKE_DIRECTORY "${TERN_STATIC_RUNTIME_DIR}")
  configure_file("${TERN_WINPTHREAD_A}" "${TERN_STATIC_RUNTIME_DIR}/libpthread.a" COPYONLY)
  configure_file("${TERN_WINPTHREAD_A}" "${TERN_STATIC_RUNTIME_DIR}/libwinpthread.a" COPYONLY)
endif()

# The MinGW DLLs that the i686 build's modules need at run time: libgcc_s_dw2-1.dll, and the
# libwinpthread-1.dll that the posix compilers' libgcc DLL itself imports. Empty for x86_64 and in
# Microsoft's ABI, whose runtime DLLs are the system's.
function(tern_runtime_dlls out)
  set(dlls "")
  if(CMAKE_SIZEOF_VOID_P EQUAL 4 AND NOT MSVC)
    foreach(name libgcc_s_dw2-1.dll libwinpthread-1.dll)
      execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${name}
                      OUTPUT_VARIABLE dll OUTPUT_STRIP_TRAILING_WHITESPACE)
      if(NOT IS_ABSOLUTE "${dll}" OR NOT EXISTS "${dll}")
        file(GLOB dll "/usr/lib/gcc/i686-w64-mingw32/*-posix/${name}" "/usr/i686-w64-mingw32/lib/${name}")
        list(GET dll 0 dll)
      endif()
      if(NOT EXISTS "${dll}")
        message(FATAL_ERROR "${name} not found beside the i686 cross compiler")
      endif()
      list(APPEND dlls "${dll}")
    endforeach()
  endif()
  set(${out} "${dlls}" PARENT_SCOPE)
endfunction()

# The project's version, for a program's --version (TERN_VERSION, a string literal).
function(tern_program_version target)
  target_compile_definitions(${target} PRIVATE TERN_VERSION="${PROJECT_VERSION}")
endfunction()

# A program of the project, linked like an application of the library, that knows the version.
function(tern_add_program name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE TernCoreLib::TernCoreLib tern_windows_flags)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  tern_program_version(${name})
  tern_link_runtime(${name})
endfunction()

# A subsystem folder's object library; the DLL target in lib/ combines them. With STATIC first, a
# static library instead, linked into the DLL and also into the tests and benchmarks that call
# its code directly (the vector kernels).
function(tern_add_subsystem name)
  set(kind OBJECT)
  set(sources ${ARGN})
  if("${ARGV1}" STREQUAL "STATIC")
    set(kind STATIC)
    list(REMOVE_AT sources 0)
  endif()
  add_library(${name} ${kind} ${sources})
  target_link_libraries(${name} PUBLIC tern_windows_flags)
  target_compile_definitions(${name} PRIVATE TERNCORELIB_BUILDING)
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>)
endfunction()

# Sources compiled for an instruction set beyond the build's baseline, named the same for every
# compiler: SSE2, SSSE3, AVX2 or AVX512BW (AVX-512 Foundation and Byte/Word). They are called only
# after a run-time check (foundation/internal/cpu_features.h). Such a file keeps its code
# file-local and includes no header with shared inline code (foundation/internal/compiler.h's
# functions are static), so that no copy of a shared function is built for that set.
#   GCC: -m flags. Vector moves are assembled as unaligned ones (same speed on aligned data): GCC
#   cannot align the x86_64 Windows stack to 32 bytes for a spilled vector. i686 functions realign
#   their stack where they need it, since 32-bit Windows callers guarantee only 4 bytes.
#   Microsoft's ABI: /arch where cl.exe has one. cl.exe accepts every intrinsic without it; clang-cl
#   wants the set enabled, so it also gets clang's own flag.
# Call it in the folder of the target that compiles the files.
function(tern_vector_sources set)
  set(gcc_SSE2 -msse2)
  set(gcc_SSSE3 -mssse3)
  # POPCNT too: every processor with AVX2 has it (it came two generations earlier), and without
  # the flag a population count is a dozen instructions.
  set(gcc_AVX2 -mavx2 -mpopcnt)
  set(gcc_AVX512BW -mavx512f -mavx512bw -mpopcnt)
  set(msvc_SSE2 "")
  set(msvc_SSSE3 "")
  set(msvc_AVX2 /arch:AVX2)
  set(msvc_AVX512BW /arch:AVX512)
  if(NOT DEFINED gcc_${set})
    message(FATAL_ERROR "tern_vector_sources: unknown instruction set ${set}")
  endif()
  if(CMAKE_CXX_COMPILER_FRONTEND_VARIANT STREQUAL "MSVC")
    set(options ${msvc_${set}})
    if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
      foreach(flag IN LISTS gcc_${set})
        list(APPEND options "/clang:${flag}")
      endforeach()
    endif()
  else()
    set(options ${gcc_${set}} -Wa,-muse-unaligned-vector-move)
    if(CMAKE_SIZEOF_VOID_P EQUAL 4)
      list(APPEND options -mstackrealign)
    endif()
    # Line tables only: the kernels are templates instantiated for every shape of filter, whose
    # full debug information costs a third of their compile time and helps no backtrace.
    list(APPEND options $<$<CONFIG:RelWithDebInfo,Debug>:-g1>)
  endif()
  set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS "${options}")
endfunction()

# GoogleTest built from Debian's sources with the cross compiler.
macro(tern_setup_googletest)
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
  set(gtest_disable_pthreads OFF CACHE BOOL "" FORCE)
  # The shared C runtime (/MD) like everything else here, not GoogleTest's default static one.
  set(gtest_force_shared_crt ON CACHE BOOL "" FORCE)
  add_subdirectory(${TERN_GTEST_DIR} ${PROJECT_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
  # Nobody steps through GoogleTest itself, and its speed hardly shows in a test run: debug
  # information and the last optimisations only cost compile time.
  if(NOT MSVC)
    target_compile_options(gtest PRIVATE -g0 -O1)
    target_compile_options(gtest_main PRIVATE -g0 -O1)
  endif()
  # GoogleTest's header and the Windows headers, compiled once for every test source and then
  # reused by every test program, which all compile with the same flags (tern_test_flags).
  add_library(tern_test_pch OBJECT ${PROJECT_SOURCE_DIR}/tests/precompiled.cpp)
  target_link_libraries(tern_test_pch PRIVATE GTest::gtest tern_test_flags)
  target_include_directories(tern_test_pch PRIVATE ${PROJECT_SOURCE_DIR})
  target_precompile_headers(tern_test_pch PRIVATE <gtest/gtest.h> <string> <vector>
                            [["foundation/win.h"]])
endmacro()

# The flags of the test programs' own sources: the library's, with line tables only for debug
# information (enough for a backtrace; the full information on GoogleTest's templates costs a
# third of their compile time).
add_library(tern_test_flags INTERFACE)
target_link_libraries(tern_test_flags INTERFACE tern_windows_flags)
if(NOT MSVC)
  target_compile_options(tern_test_flags INTERFACE $<$<CONFIG:RelWithDebInfo,Debug>:-g1>)
endif()

# A test program linked like an application of the library. It runs as one process, and each of
# its tests still has a CTest entry of its own that passes or fails with it (gtest_program.cmake).
# Such an entry shows a file: with cat where there is one, which starts far faster than cmake.
find_program(TERN_CAT cat)
if(TERN_CAT)
  set(TERN_SHOW_OUTCOME "[==[${TERN_CAT}]==]")
else()
  set(TERN_SHOW_OUTCOME "[==[${CMAKE_COMMAND}]==] -E cat")
endif()
function(tern_add_test_program name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE TernCoreLib::TernCoreLib GTest::gtest GTest::gtest_main
                                        tern_test_flags)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  target_precompile_headers(${name} REUSE_FROM tern_test_pch)
  tern_link_runtime(${name})

  set(script "${PROJECT_SOURCE_DIR}/cmake/gtest_program.cmake")
  set(results "${CMAKE_CURRENT_BINARY_DIR}/${name}_results")
  add_test(NAME ${name}
    COMMAND ${CMAKE_COMMAND} -DMODE=run -DPROGRAM=$<TARGET_FILE:${name}>
            -DEMULATOR=${CMAKE_CROSSCOMPILING_EMULATOR} -DRESULTS=${results} -P ${script})
  set_tests_properties(${name} PROPERTIES FIXTURES_SETUP ${name} TIMEOUT 600 COST 10)
  set(include_file "${CMAKE_CURRENT_BINARY_DIR}/${name}_include.cmake")
  file(GENERATE OUTPUT "${include_file}" CONTENT
"set(MODE list)
set(NAME [==[${name}]==])
set(PROGRAM [==[$<TARGET_FILE:${name}>]==])
set(EMULATOR [==[${CMAKE_CROSSCOMPILING_EMULATOR}]==])
set(RESULTS [==[${results}]==])
set(LIST [==[${CMAKE_CURRENT_BINARY_DIR}/${name}_tests.cmake]==])
set(SHOW ${TERN_SHOW_OUTCOME})
include([==[${script}]==])
")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${include_file}")
endfunction()
