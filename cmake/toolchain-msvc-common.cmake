# What the two MSVC-ABI cross toolchains share. CMake takes its MSVC path with these (MSVC is 1,
# MSVC's default switches, CMAKE_CXX_COMPILER_FRONTEND_VARIANT "MSVC"); only the folders below,
# the defines and the link switches are particular to building on Linux. On Windows none of this
# is used: CMake finds cl.exe, the SDK and the runtime itself.
#
# The sysroot (Wine's import libraries under Microsoft's names, MinGW's COM headers and the
# runtime stand-in built as msvcrt.lib) is made by cross/msvc/make-sysroot.sh into
# TERN_MSVC_SYSROOT, by default build/msvc-sysroot/<arch> of this checkout, or where the
# environment variable of that name points; a run with nothing changed does nothing.
set(TERN_MSVC_TARGET ${TERN_MSVC_ARCH}-pc-windows-msvc)
set(CMAKE_C_COMPILER clang-cl-14)
set(CMAKE_CXX_COMPILER clang-cl-14)
set(CMAKE_C_COMPILER_TARGET ${TERN_MSVC_TARGET})
set(CMAKE_CXX_COMPILER_TARGET ${TERN_MSVC_TARGET})
set(CMAKE_RC_COMPILER llvm-rc-14)
set(CMAKE_LINKER lld-link-14)
set(CMAKE_AR llvm-lib-14)
set(CMAKE_MT "")

get_filename_component(tern_msvc_root "${CMAKE_CURRENT_LIST_DIR}/.." ABSOLUTE)
if(NOT TERN_MSVC_SYSROOT)
  if(DEFINED ENV{TERN_MSVC_SYSROOT})
    set(TERN_MSVC_SYSROOT "$ENV{TERN_MSVC_SYSROOT}/${TERN_MSVC_ARCH}")
  else()
    set(TERN_MSVC_SYSROOT "${tern_msvc_root}/build/msvc-sysroot/${TERN_MSVC_ARCH}")
  endif()
endif()
set(TERN_MSVC_SYSROOT "${TERN_MSVC_SYSROOT}" CACHE PATH "The MSVC-ABI cross sysroot")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TERN_MSVC_SYSROOT)
execute_process(COMMAND "${tern_msvc_root}/cross/msvc/make-sysroot.sh" ${TERN_MSVC_ARCH}
                        "${TERN_MSVC_SYSROOT}"
                RESULT_VARIABLE tern_sysroot_result)
if(NOT tern_sysroot_result EQUAL 0)
  message(FATAL_ERROR "cross/msvc/make-sysroot.sh could not make ${TERN_MSVC_SYSROOT}")
endif()

# Header folders, searched in this order: libc++'s headers (used header-only; its C wrappers
# include the C runtime's next), the stand-in's header fixes, MinGW's COM support headers, and
# Wine's C runtime and Windows headers. As standard folders they reach every target as system
# folders, and no user's flags drop them.
set(tern_msvc_includes
  /usr/lib/llvm-14/include/c++/v1
  "${tern_msvc_root}/cross/msvc/include"
  "${TERN_MSVC_SYSROOT}/include"
  /usr/include/wine/wine/msvcrt
  /usr/include/wine/wine/windows)
set(CMAKE_C_STANDARD_INCLUDE_DIRECTORIES ${tern_msvc_includes})
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES ${tern_msvc_includes})
set(CMAKE_RC_STANDARD_INCLUDE_DIRECTORIES /usr/include/wine/wine/windows)

# Wine's headers: WCHAR as wchar_t (else char16_t). libc++ as headers
# alone: no visibility or extern-template annotations that ask for its compiled library, and no
# request to link one. _MSC_VER as Visual Studio 2019's last (1929), not clang's default 1920.
set(tern_msvc_defines "-fms-compatibility-version=19.29 -DWINE_UNICODE_NATIVE")
set(CMAKE_C_FLAGS_INIT "${tern_msvc_defines}")
set(CMAKE_CXX_FLAGS_INIT "${tern_msvc_defines} -D_LIBCPP_DISABLE_VISIBILITY_ANNOTATIONS \
-D_LIBCPP_DISABLE_EXTERN_TEMPLATE -D_LIBCPP_NO_AUTO_LINK")

# The sysroot's libraries; no manifest tool here (Wine needs no manifest); and on i686 no SafeSEH
# table, which Wine's import libraries lack the marks for.
set(tern_msvc_link "/libpath:${TERN_MSVC_SYSROOT}/lib /manifest:no")
if(TERN_MSVC_ARCH STREQUAL "i686")
  string(APPEND tern_msvc_link " /safeseh:no")
endif()
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "${tern_msvc_link}")
endforeach()

# No C++ standard library is compiled for this target: the project builds no GoogleTest or Google
# Benchmark programs with it.
set(TERN_HEADER_ONLY_STDLIB ON)
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TERN_HEADER_ONLY_STDLIB)

set(CMAKE_FIND_ROOT_PATH "${TERN_MSVC_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
# Programs run under Wine through a wrapper that uses the build's own prefix, quietly.
set(CMAKE_CROSSCOMPILING_EMULATOR "${tern_msvc_root}/scripts/wine-run.sh")
