include(CMakePackageConfigHelpers)

install(TARGETS KeloAXLConfigLogger EXPORT KeloAXLConfigLoggerTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${KELO_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kelo)
install(EXPORT KeloAXLConfigLoggerTargets
  NAMESPACE KeloAXLConfigLogger::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/KeloAXLConfigLogger)
configure_package_config_file(cmake/KeloAXLConfigLoggerConfig.cmake.in
  ${CMAKE_BINARY_DIR}/KeloAXLConfigLoggerConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/KeloAXLConfigLogger)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/KeloAXLConfigLoggerConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_BINARY_DIR}/KeloAXLConfigLoggerConfig.cmake
  ${CMAKE_BINARY_DIR}/KeloAXLConfigLoggerConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/KeloAXLConfigLogger)
# The pkg-config file finds its prefix from where it is installed, so a staged or relocated
# installation (cmake --install --prefix DIR) stays usable; its run path lets a program built
# with it find the library in a prefix the dynamic loader does not search.
file(RELATIVE_PATH KELO_PC_TO_PREFIX "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" KELO_PC_TO_PREFIX "${KELO_PC_TO_PREFIX}")
configure_file(cmake/KeloAXLConfigLogger.pc.in ${CMAKE_BINARY_DIR}/KeloAXLConfigLogger.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/KeloAXLConfigLogger.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(EXISTS ${CMAKE_SOURCE_DIR}/data/KeloConfiguration.bundle)
  install(DIRECTORY data/KeloConfiguration.bundle
    DESTINATION ${CMAKE_INSTALL_DATADIR}/kelo)
endif()
