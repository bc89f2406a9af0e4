# cpack (./tern package) turns the install into TernCoreLib-<version>-win32.zip or -win64.zip:
# bin/TernCoreLib.dll (and the MinGW DLLs that the i686 build needs), lib/TernCoreLib.lib, the
# headers under include/TernCoreLib, the CMake package under lib/cmake/TernCoreLib, the README
# and the CHANGELOG.
install(FILES README.md CHANGELOG.md DESTINATION .)

if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(CPACK_SYSTEM_NAME win32)
else()
  set(CPACK_SYSTEM_NAME win64)
endif()
set(CPACK_GENERATOR ZIP)
set(CPACK_PACKAGE_NAME TernCoreLib)
set(CPACK_PACKAGE_VENDOR "TernCoreLib developers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "A support library for long-running Windows applications")
set(CPACK_PACKAGE_FILE_NAME "TernCoreLib-${PROJECT_VERSION}-${CPACK_SYSTEM_NAME}")
set(CPACK_STRIP_FILES ON)
include(CPack)
