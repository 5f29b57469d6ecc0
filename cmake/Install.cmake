include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/ZuNetwork)

install(TARGETS ZuUtils ZuNetwork zu EXPORT ZuNetworkTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ZuUtils ZuNetwork zu DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.h" PATTERN internal EXCLUDE)
install(EXPORT ZuNetworkTargets NAMESPACE ZuNetwork:: DESTINATION ${package_dir})
if(ZUNETWORK_BUILD_TOOLS)
  install(TARGETS zunet RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

configure_package_config_file(cmake/ZuNetworkConfig.cmake.in ZuNetworkConfig.cmake
                              INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(ZuNetworkConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ZuNetworkConfig.cmake
              ${PROJECT_BINARY_DIR}/ZuNetworkConfigVersion.cmake DESTINATION ${package_dir})

file(RELATIVE_PATH prefix_from_pkgconfig ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig
     ${CMAKE_INSTALL_PREFIX})
foreach(package zunetwork zu)
  configure_file(cmake/${package}.pc.in ${package}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${package}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
