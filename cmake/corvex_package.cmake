# Debian packages of the installation's components, for the architecture
# built (cpack -G DEB in the build folder):
#   libcorvexN       the library                       (runtime)
#   libcorvex-dev    headers, static library, pkg-config and CMake files,
#                    and the host stand-ins for consumers (development, host)
#   corvex-programs  corvex-pe, corvex-shell, corvex-pe's configuration and
#                    sample capture                    (programs)
# Configure with -DCMAKE_INSTALL_PREFIX=/usr for Debian's multiarch library
# folder; any prefix works, since everything is found relative to itself.
set(CPACK_PACKAGE_NAME corvex)
set(CPACK_PACKAGE_VENDOR "libcorvex developers")
set(CPACK_PACKAGE_CONTACT "libcorvex developers <corvex@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY ${PROJECT_DESCRIPTION})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development host programs)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_COMPONENT_RUNTIME_GROUP library)
set(CPACK_COMPONENT_DEVELOPMENT_GROUP development)
set(CPACK_COMPONENT_HOST_GROUP development)
set(CPACK_COMPONENT_PROGRAMS_GROUP programs)

# What the packages depend on. The library's: its exact version.
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libcorvex${PROJECT_VERSION_MAJOR})
set(corvex_library_depends "${CPACK_DEBIAN_LIBRARY_PACKAGE_NAME} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS ${corvex_library_depends})
if(CORVEX_READLINE_LINKS)
  # The static CLI stand-in edits lines with readline: its consumers link it.
  string(APPEND CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS ", libreadline-dev")
endif()
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_DEPENDS ${corvex_library_depends})
# The system's libraries: as dpkg-shlibdeps finds them, natively. For i386
# it would name the multilib copies this machine builds with (libc6-i386,
# lib32stdc++6), which an i386 system does not have: there the C and C++
# runtimes are named as i386 Debian has them.
find_program(CORVEX_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE i386)
  set(CPACK_DEBIAN_LIBRARY_PACKAGE_DEPENDS "libc6 (>= 2.34), libgcc-s1")
  string(APPEND CPACK_DEBIAN_PROGRAMS_PACKAGE_DEPENDS ", ${CPACK_DEBIAN_LIBRARY_PACKAGE_DEPENDS}, libstdc++6")
elseif(CORVEX_DPKG_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
else()
  message(STATUS "Debian packages: no dpkg-shlibdeps (package dpkg-dev), so no dependencies on system libraries")
endif()

set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION "${PROJECT_DESCRIPTION}
 Heaps over caller-supplied memory, intrusive lists, indexed tables, packet
 pools with clones and fragment chains, E-tag and VLAN tag editing, and the
 diagnostic commands, for the control software of an IEEE 802.1BR port
 extender.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libcorvex-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "${PROJECT_DESCRIPTION} (development files)
 C headers, the static library, pkg-config files (corvex, corvex-host) and
 the CMake package (find_package(corvex)). The stand-ins for the host's CLI
 and module libraries are static, in a folder of their own.")
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_NAME corvex-programs)
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PROGRAMS_DESCRIPTION "Software 802.1BR port extender and diagnostic shell on libcorvex
 corvex-pe forwards frames as an IEEE 802.1BR port extender, from capture
 files or between live interfaces; corvex-shell runs the library's
 diagnostic commands on a demonstration host.")
include(CPack)
