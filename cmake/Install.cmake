include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/ZuNetwork)

set(libraries ZuUtils ZuNetwork zu)
install(TARGETS ${libraries} EXPORT ZuNetworkTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
foreach(library ${libraries}) # the folders below are the library's own
  file(GLOB headers CONFIGURE_DEPENDS ${library}/*.h)
  install(FILES ${headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${library})
endforeach()
install(EXPORT ZuNetworkTargets NAMESPACE ZuNetwork:: DESTINATION ${package_dir})
if(ZUNETWORK_BUILD_TOOLS)
  install(TARGETS zunet RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

configure_package_config_file(cmake/ZuNetworkConfig.cmake.in ZuNetworkConfig.cmake
                              INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(ZuNetworkConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ZuNetworkConfig.cmake
              ${PROJECT_BINARY_DIR}/ZuNetworkConfigVersion.cmake
              cmake/ZuNetworkHeaders.cmake DESTINATION ${package_dir})

file(RELATIVE_PATH prefix_from_pkgconfig ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig
     ${CMAKE_INSTALL_PREFIX})
if(library_kind STREQUAL STATIC)
  list(JOIN load_time_objects " " pc_load_time_objects)
  set(pc_private "Libs.private: -ldl -lstdc++ -lm")
else()
  set(pc_private "Requires.private: libcurl") # its headers: nothing of it is linked
endif()
foreach(package zunetwork zu)
  configure_file(cmake/${package}.pc.in ${package}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${package}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
