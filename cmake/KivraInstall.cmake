include(CMakePackageConfigHelpers)

install(TARGETS kivra basalt EXPORT kivraTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/kivra DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY basalt/include/basalt DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(_kivra_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/kivra)
install(EXPORT kivraTargets NAMESPACE kivra:: DESTINATION ${_kivra_cmake_dir})
configure_package_config_file(cmake/kivraConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/kivraConfig.cmake
  INSTALL_DESTINATION ${_kivra_cmake_dir})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/kivraConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kivraConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/kivraConfigVersion.cmake
        DESTINATION ${_kivra_cmake_dir})
