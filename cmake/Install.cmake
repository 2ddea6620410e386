include(CMakePackageConfigHelpers)

install(TARGETS Corvix EXPORT CorvixTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
foreach(_p system json crypto compress)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/${_p}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    FILES_MATCHING PATTERN "*.h")
endforeach()

set(_cmakedir ${CMAKE_INSTALL_LIBDIR}/cmake/Corvix)
install(EXPORT CorvixTargets NAMESPACE Corvix:: DESTINATION ${_cmakedir})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/CorvixConfig.cmake.in
  ${CMAKE_BINARY_DIR}/CorvixConfig.cmake INSTALL_DESTINATION ${_cmakedir})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/CorvixConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/CorvixConfig.cmake ${CMAKE_BINARY_DIR}/CorvixConfigVersion.cmake
  DESTINATION ${_cmakedir})

configure_file(${PROJECT_SOURCE_DIR}/cmake/corvix.pc.in ${CMAKE_BINARY_DIR}/corvix.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/corvix.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
