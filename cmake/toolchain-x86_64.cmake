# Cross build for 64-bit Windows with the MinGW-w64 compilers of the posix thread model.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)
set(TERN_TRIPLE x86_64-w64-mingw32)
include("${CMAKE_CURRENT_LIST_DIR}/toolchain-mingw-common.cmake")
