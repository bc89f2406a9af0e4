# cpack (./tern package) turns the install into TernCoreLib-<version>-<system>.zip: win32 and
# win64 from the MinGW builds, win32-msvc and win64-msvc from Microsoft's ABI. Each holds
# bin/TernCoreLib.dll (and the MinGW DLLs that the MinGW i686 build needs), lib/TernCoreLib.lib,
# the headers under include/TernCoreLib, the CMake package under lib/cmake/TernCoreLib, the
# README and the CHANGELOG.
install(FILES README.md CHANGELOG.md DESTINATION .)

set(CPACK_SYSTEM_NAME ${TERN_PACKAGE_SYSTEM})
set(CPACK_GENERATOR ZIP)
set(CPACK_PACKAGE_NAME TernCoreLib)
set(CPACK_PACKAGE_VENDOR "TernCoreLib developers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "A support library for long-running Windows applications")
set(CPACK_PACKAGE_FILE_NAME "TernCoreLib-${PROJECT_VERSION}-${CPACK_SYSTEM_NAME}")
set(CPACK_STRIP_FILES ON)
include(CPack)
