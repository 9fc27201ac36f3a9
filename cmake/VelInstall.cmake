# Installs the library, every public header under include/vel, and a package configuration so
# that an installed copy is found with find_package(vel) as the target vel::vel.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS vel EXPORT velTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

foreach(module IN LISTS VEL_MODULES)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/${module}/include/
      DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vel FILES_MATCHING PATTERN "*.h")
endforeach()
install(FILES ${PROJECT_SOURCE_DIR}/include/vel.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vel)

set(VEL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/vel)
install(EXPORT velTargets NAMESPACE vel:: DESTINATION ${VEL_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/velConfig.cmake.in
    ${PROJECT_BINARY_DIR}/velConfig.cmake INSTALL_DESTINATION ${VEL_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/velConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/velConfig.cmake ${PROJECT_BINARY_DIR}/velConfigVersion.cmake
    DESTINATION ${VEL_CMAKE_DIR})
