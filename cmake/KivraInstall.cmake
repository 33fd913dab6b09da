include(CMakePackageConfigHelpers)

# The libraries find each other beside themselves, so an install works from any prefix.
set_target_properties(kivra basalt PROPERTIES INSTALL_RPATH "$ORIGIN")

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
  INSTALL_DESTINATION ${_kivra_cmake_dir}
  PATH_VARS CMAKE_INSTALL_BINDIR)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/kivraConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kivraConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/kivraConfigVersion.cmake
              cmake/KivraGenerate.cmake
        DESTINATION ${_kivra_cmake_dir})
# The generator of metaclasses from tables, for users' own metamodels.
install(PROGRAMS tools/metagen.py DESTINATION ${CMAKE_INSTALL_BINDIR} RENAME kivra-metagen)
