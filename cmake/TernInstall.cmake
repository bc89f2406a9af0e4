# cmake --install lays out the DLL, its import library, the headers and a package config, so that
# find_package(TernCoreLib CONFIG REQUIRED) gives TernCoreLib::TernCoreLib.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(TERN_CONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/TernCoreLib)

# The public headers (lib/CMakeLists.txt lists them) go below include/TernCoreLib.
install(TARGETS TernCoreLib EXPORT TernCoreLibTargets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/TernCoreLib
  FILE_SET umbrella DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/TernCoreLib)

tern_runtime_dlls(TERN_RUNTIME_DLLS)
if(TERN_RUNTIME_DLLS)
  install(FILES ${TERN_RUNTIME_DLLS} DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

install(EXPORT TernCoreLibTargets NAMESPACE TernCoreLib:: DESTINATION ${TERN_CONFIG_DIR})
configure_package_config_file(cmake/TernCoreLibConfig.cmake.in
  ${PROJECT_BINARY_DIR}/TernCoreLibConfig.cmake INSTALL_DESTINATION ${TERN_CONFIG_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TernCoreLibConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
# The package's C++ interface (names, vtables, exceptions) is that of one ABI, GCC's or
# Microsoft's, and the other side cannot use it: find_package passes over a package of the other
# ABI as it does over one of the other word size.
if(MSVC)
  set(abi_test "MSVC")
  set(abi_name "Microsoft's ABI: MSVC or clang-cl")
else()
  set(abi_test "NOT MSVC")
  set(abi_name "GCC's ABI: MinGW")
endif()
file(APPEND ${PROJECT_BINARY_DIR}/TernCoreLibConfigVersion.cmake "
# The C++ ABI of the package: ${abi_name}.
if(NOT (${abi_test}))
  set(PACKAGE_VERSION \"\${PACKAGE_VERSION} (${abi_name})\")
  set(PACKAGE_VERSION_UNSUITABLE TRUE)
endif()
")
install(FILES ${PROJECT_BINARY_DIR}/TernCoreLibConfig.cmake
              ${PROJECT_BINARY_DIR}/TernCoreLibConfigVersion.cmake
        DESTINATION ${TERN_CONFIG_DIR})
