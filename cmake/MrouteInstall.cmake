include(CMakePackageConfigHelpers)

get_property(mroute_libs GLOBAL PROPERTY MROUTE_LIBRARIES)

install(TARGETS mroute ${mroute_libs} EXPORT mrouteTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/src/mroute ${PROJECT_BINARY_DIR}/src/mroute
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")
install(EXPORT mrouteTargets NAMESPACE mroute:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/mroute)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/mrouteConfig.cmake.in
  ${PROJECT_BINARY_DIR}/mrouteConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/mroute)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/mrouteConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/mrouteConfig.cmake ${PROJECT_BINARY_DIR}/mrouteConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/mroute)
