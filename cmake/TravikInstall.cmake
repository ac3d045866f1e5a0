include(CMakePackageConfigHelpers)

install(TARGETS travik EXPORT travikTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/travik
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(TRAVIK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/travik)
install(EXPORT travikTargets NAMESPACE travik:: DESTINATION ${TRAVIK_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/travikConfig.cmake.in
  ${PROJECT_BINARY_DIR}/travikConfig.cmake
  INSTALL_DESTINATION ${TRAVIK_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/travikConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/travikConfig.cmake
  ${PROJECT_BINARY_DIR}/travikConfigVersion.cmake
  ${PROJECT_SOURCE_DIR}/cmake/TravikPlugin.cmake
  DESTINATION ${TRAVIK_CMAKE_DIR})

file(RELATIVE_PATH TRAVIK_PC_TO_PREFIX
  /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(${PROJECT_SOURCE_DIR}/cmake/travik.pc.in ${PROJECT_BINARY_DIR}/travik.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/travik.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
