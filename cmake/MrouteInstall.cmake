include(CMakePackageConfigHelpers)

get_property(mroute_libs GLOBAL PROPERTY MROUTE_LIBRARIES)

install(TARGETS mroute ${mroute_libs} EXPORT mrouteTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(CODE "set(SRC_ROOT \"${PROJECT_SOURCE_DIR}/src\")
  set(BIN_ROOT \"${PROJECT_BINARY_DIR}/src\")
  set(DEST \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_INCLUDEDIR}\")")
install(SCRIPT ${PROJECT_SOURCE_DIR}/cmake/MrouteInstallHeaders.cmake)
install(EXPORT mrouteTargets NAMESPACE mroute:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/mroute)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/mrouteConfig.cmake.in
  ${PROJECT_BINARY_DIR}/mrouteConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/mroute)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/mrouteConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/mrouteConfig.cmake ${PROJECT_BINARY_DIR}/mrouteConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/mroute)

# The same library for builds without CMake: one archive per subsystem, in a
# group because their order does not matter to the linker then, and the
# anchors that keep every type registration (see src/mroute/CMakeLists.txt).
get_property(mroute_anchors GLOBAL PROPERTY MROUTE_TYPE_ANCHORS)
set(MROUTE_PC_LIBS "")
foreach(lib ${mroute_libs})
  get_target_property(type ${lib} TYPE)
  if(NOT type STREQUAL "INTERFACE_LIBRARY")
    string(APPEND MROUTE_PC_LIBS " -l${lib}")
  endif()
endforeach()
set(MROUTE_PC_ANCHORS "")
foreach(anchor ${mroute_anchors})
  string(APPEND MROUTE_PC_ANCHORS " -Wl,--undefined=${anchor}")
endforeach()
# Relative to the .pc file, so that an installed tree can be moved.
file(RELATIVE_PATH MROUTE_PC_TO_PREFIX "/p/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/p")
configure_file(${PROJECT_SOURCE_DIR}/cmake/mroute.pc.in ${PROJECT_BINARY_DIR}/mroute.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/mroute.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
