# Installation, in components a package maps onto:
#   runtime      libcorvex.so.N
#   development  headers, libcorvex.so and libcorvex.a, pkg-config file
#                corvex.pc, CMake package (find_package(corvex))
#   programs     corvex-pe and corvex-shell, corvex-pe's configuration and
#                sample capture (apps/CMakeLists.txt)
#   host         the stand-ins for the host's CLI and module libraries, for
#                consumers that have no host of their own: static, in a
#                folder of their own (corvex-host.pc, corvex::corvex_cli,
#                corvex::corvex_module). Not installed unless asked for
#                (cmake --install BUILD --component host): a real host
#                brings its own libraries of those names.
include(CMakePackageConfigHelpers)

install(TARGETS corvex corvex_static EXPORT corvexTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
file(GLOB corvex_public_headers ${PROJECT_SOURCE_DIR}/h/*.h)
install(FILES ${corvex_public_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/corvex COMPONENT development)

set(corvex_host_libdir ${CMAKE_INSTALL_LIBDIR}/corvex-host)
install(TARGETS corvex_cli_static corvex_module_static corvex_cli_whole corvex_module_whole EXPORT corvexHostTargets
  ARCHIVE DESTINATION ${corvex_host_libdir} COMPONENT host EXCLUDE_FROM_ALL)
file(GLOB corvex_host_headers ${PROJECT_SOURCE_DIR}/host/include/*.h)
install(FILES ${corvex_host_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/corvex COMPONENT host EXCLUDE_FROM_ALL)

set(corvex_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/corvex)
install(EXPORT corvexTargets NAMESPACE corvex:: DESTINATION ${corvex_cmake_dir} COMPONENT development)
install(EXPORT corvexHostTargets NAMESPACE corvex:: DESTINATION ${corvex_cmake_dir}
  COMPONENT host EXCLUDE_FROM_ALL)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/corvexConfig.cmake.in
  ${PROJECT_BINARY_DIR}/corvexConfig.cmake INSTALL_DESTINATION ${corvex_cmake_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/corvexConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/corvexConfig.cmake ${PROJECT_BINARY_DIR}/corvexConfigVersion.cmake
  DESTINATION ${corvex_cmake_dir} COMPONENT development)

# The stand-ins are static: what they link is listed for the consumer.
set(corvex_host_libs "-lcorvex_cli -lcorvex_module")
set(corvex_host_deps "")
if(CORVEX_READLINE_LINKS)
  set(corvex_host_deps "-lreadline")
endif()
file(RELATIVE_PATH corvex_pc_to_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
foreach(pc corvex corvex-host)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
endforeach()
install(FILES ${PROJECT_BINARY_DIR}/corvex.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
install(FILES ${PROJECT_BINARY_DIR}/corvex-host.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT host EXCLUDE_FROM_ALL)
