# Cross build for 32-bit Windows with the MinGW-w64 compilers of the posix thread model (the win32
# model has no std::thread or std::mutex, which GoogleTest needs).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86)
set(TERN_TRIPLE i686-w64-mingw32)
include("${CMAKE_CURRENT_LIST_DIR}/toolchain-mingw-common.cmake")
