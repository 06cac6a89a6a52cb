# What is installed beside the libraries themselves. The components are runtime (the shared libraries), development (what
# programs are built with), daemon, and tools, which is for the programs of tools/.
include(CMakePackageConfigHelpers)

install(DIRECTORY ${VELTO_HEADERS}/VeltoIPC DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development
  FILES_MATCHING PATTERN "*.h")

# For find_package(VeltoIPC), which gives VeltoIPC::VeltoIPC in the kind that is asked for.
set(package ${CMAKE_INSTALL_LIBDIR}/cmake/VeltoIPC)
list(GET kinds 0 installed)
if(VELTO_BUILD_BOTH)
  set(installed ${kinds})
endif()
foreach(kind IN LISTS installed)
  string(TOLOWER ${kind} set)
  install(EXPORT VeltoIPC-${set} NAMESPACE VeltoIPC:: DESTINATION ${package} FILE VeltoIPC-${set}.cmake
    COMPONENT development)
endforeach()
configure_package_config_file(VeltoIPCConfig.cmake.in VeltoIPCConfig.cmake INSTALL_DESTINATION ${package})
write_basic_package_version_file(VeltoIPCConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/VeltoIPCConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/VeltoIPCConfigVersion.cmake
  DESTINATION ${package} COMPONENT development)

# For pkg-config: relative to the file itself, so that the installed tree can be moved (cmake --install --prefix).
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR})
  set(pkgconfig_prefix ${CMAKE_INSTALL_PREFIX})
  set(pkgconfig_libdir ${CMAKE_INSTALL_LIBDIR})
else()
  file(RELATIVE_PATH pkgconfig_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /.)
  set(pkgconfig_prefix "\${pcfiledir}/${pkgconfig_prefix}")
  set(pkgconfig_libdir "\${exec_prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()
if(IS_ABSOLUTE ${CMAKE_INSTALL_INCLUDEDIR})
  set(pkgconfig_includedir ${CMAKE_INSTALL_INCLUDEDIR})
else()
  set(pkgconfig_includedir "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
foreach(name VeltoPlatform VeltoIPC)
  configure_file(${name}.pc.in ${name}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    COMPONENT development)
endforeach()
