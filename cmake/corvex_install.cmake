# Installation: libraries, public headers, a pkg-config file per library
# family and a CMake package (find_package(corvex) -> corvex::corvex).
include(CMakePackageConfigHelpers)

install(TARGETS corvex corvex_static corvex_cli corvex_module EXPORT corvexTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
file(GLOB corvex_public_headers ${PROJECT_SOURCE_DIR}/h/*.h ${PROJECT_SOURCE_DIR}/host/include/*.h)
install(FILES ${corvex_public_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/corvex)

set(corvex_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/corvex)
install(EXPORT corvexTargets NAMESPACE corvex:: DESTINATION ${corvex_cmake_dir})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/corvexConfig.cmake.in
  ${PROJECT_BINARY_DIR}/corvexConfig.cmake INSTALL_DESTINATION ${corvex_cmake_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/corvexConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/corvexConfig.cmake ${PROJECT_BINARY_DIR}/corvexConfigVersion.cmake
  DESTINATION ${corvex_cmake_dir})

set(corvex_host_libs "-lcorvex_cli -lcorvex_module")
file(RELATIVE_PATH corvex_pc_to_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
foreach(pc corvex corvex-host)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
