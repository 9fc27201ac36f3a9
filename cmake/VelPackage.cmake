# Debian packages from the install components (cmake/VelInstall.cmake), built with
# `cpack -G DEB --config <build>/CPackConfig.cmake`:
#   libvel1     runtime  the shared library (SONAME libvel.so.1)
#   libvel-dev  dev      headers, the libvel.so link, the CMake package and vel.pc
#   velcat      velcat   the tool and its manual page
# Dependencies on system libraries come from dpkg-shlibdeps; those between the packages are exact
# versions; libvel-dev also depends on the development packages that vel.pc requires
# (cmake/VelCPackProject.cmake finds them when the packages are made).
#
# The library goes where GNUInstallDirs puts it: configured with -DCMAKE_INSTALL_PREFIX=/usr it
# is Debian's multiarch directory (lib/<triplet>), otherwise lib.
set(VEL_PACKAGE_MAINTAINER "vel developers <vel-devel@example.org>" CACHE STRING
    "Maintainer field of the Debian packages, and of their changelog")

# Each package carries its copyright file and changelog in /usr/share/doc/<package>, as Debian
# requires; they are left out of a plain `cmake --install`.
configure_file(${PROJECT_SOURCE_DIR}/cmake/debian/changelog.in
    ${PROJECT_BINARY_DIR}/debian/source/changelog @ONLY)
add_custom_command(OUTPUT debian/changelog.gz
    COMMAND ${CMAKE_COMMAND} -E copy source/changelog changelog
    COMMAND gzip -9nf changelog
    DEPENDS ${PROJECT_BINARY_DIR}/debian/source/changelog
    WORKING_DIRECTORY ${PROJECT_BINARY_DIR}/debian VERBATIM)
add_custom_target(vel_package_changelog ALL DEPENDS debian/changelog.gz)
set(packages libvel1 libvel-dev velcat)
set(components runtime dev velcat)
foreach(package component IN ZIP_LISTS packages components)
  install(FILES ${PROJECT_SOURCE_DIR}/cmake/debian/copyright
      ${PROJECT_BINARY_DIR}/debian/changelog.gz
      DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package}
      COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vel)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${VEL_PACKAGE_MAINTAINER}")
# CPack's default summary, which it does not put before each package's own description.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_NAME} built using CMake")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev velcat)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# velcat links libvel.so.1, which is not installed on the build machine: dpkg-shlibdeps finds it
# in the build tree, and velcat depends on libvel1 by name below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
# A shlibs file for the package that holds a shared library (libvel1): "libvel 1 libvel1 (>= V)".
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_SOURCE_DIR}/cmake/VelCPackProject.cmake)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libvel1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/cmake/debian/triggers)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "communication framework library for C++17 (shared library)
vel gives server and client applications sockets with time-outs, framed
message protocols (OXLv1, OXLv2 with compression, OXLv5, HOLM with
compression and encrypted sessions, TN3270), a reactor, timers, bounded work
queues, a thread pool, and pipes that fail over between servers.
.
This package holds the shared library.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libvel-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libboost-dev (>= 1.67)")
set(CPACK_COMPONENT_DEV_DESCRIPTION
    "communication framework library for C++17 (development files)
vel gives server and client applications sockets with time-outs, framed
message protocols, a reactor, timers, work queues, a thread pool and
failover pipes.
.
This package holds the headers (<vel/vel.h>), the libvel.so link, the CMake
package (find_package(vel), target vel::vel) and the pkg-config file (vel).")

set(CPACK_DEBIAN_VELCAT_PACKAGE_NAME velcat)
set(CPACK_DEBIAN_VELCAT_PACKAGE_SECTION net)
set(CPACK_COMPONENT_VELCAT_DEPENDS runtime)
set(CPACK_COMPONENT_VELCAT_DESCRIPTION
    "send and receive framed vel messages from a shell, or serve them
velcat is a client and a server for the framed message protocols of the vel
library (OXLv1, OXLv2, OXLv5, HOLM, TN3270): it sends lines of its input as
messages and prints the messages it receives, over one connection or a pipe
across several servers, or serves any number of clients, echoing their
messages if asked.")

# vel.pc's Requires.private is known once every module has linked what it needs
# (cmake/VelInstall.cmake), so the CPack configuration is written after it.
function(vel_write_cpack_config)
  get_property(CPACK_VEL_PKGCONFIG_REQUIRES GLOBAL PROPERTY VEL_PKGCONFIG_REQUIRES_PRIVATE)
  include(CPack)
endfunction()
cmake_language(DEFER DIRECTORY ${PROJECT_SOURCE_DIR} CALL vel_write_cpack_config)
