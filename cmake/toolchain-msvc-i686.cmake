# Cross build for 32-bit Windows in Microsoft's ABI: clang-cl, lld-link and llvm-rc over Wine's
# headers and import libraries (cross/msvc explains the pieces).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR X86)
set(TERN_MSVC_ARCH i686)
include("${CMAKE_CURRENT_LIST_DIR}/toolchain-msvc-common.cmake")
