# Installs the library, every public header under include/vel, a CMake package configuration
# (find_package(vel) gives the target vel::vel) and a pkg-config file (vel.pc).
#
# Users include <vel/vel.h> or <vel/VEL_TCPSocket.h>: only the include directory above vel/ is on
# their path, so that headers with generic names (Thread.h, Guard.h) never shadow theirs. The
# headers include each other by quoted file name, which finds the neighbour in the same folder.
#
# Install components, one per Debian package (cmake/VelPackage.cmake): runtime (the shared
# library), dev (headers, libvel.so link, CMake and pkg-config files), velcat (tools/).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

target_include_directories(vel PUBLIC $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)

install(TARGETS vel EXPORT velTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)

foreach(module IN LISTS VEL_MODULES)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/${module}/include/
      DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vel COMPONENT dev FILES_MATCHING PATTERN "*.h")
endforeach()
install(FILES ${PROJECT_SOURCE_DIR}/include/vel.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vel
    COMPONENT dev)

set(VEL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/vel)
install(EXPORT velTargets NAMESPACE vel:: DESTINATION ${VEL_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/velConfig.cmake.in
    ${PROJECT_BINARY_DIR}/velConfig.cmake INSTALL_DESTINATION ${VEL_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/velConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/velConfig.cmake ${PROJECT_BINARY_DIR}/velConfigVersion.cmake
    DESTINATION ${VEL_CMAKE_DIR} COMPONENT dev)

# vel.pc follows vel's link libraries. A private one is named in Requires.private by its
# pkg-config module, taken from this table; a public one becomes flags (Boost: its include
# directory when the compiler does not search it anyway; Threads: the thread flag). Linking vel
# with a library that neither covers stops the configuration here, so that vel.pc cannot fall
# behind the link line: add the library's module to the table.
set(VEL_PKGCONFIG_MODULES ZLIB::ZLIB=zlib OpenSSL::Crypto=libcrypto OpenSSL::SSL=libssl)

function(vel_pkgconfig_module target out)
  foreach(entry IN LISTS VEL_PKGCONFIG_MODULES)
    if(entry MATCHES "^(.+)=(.+)$" AND CMAKE_MATCH_1 STREQUAL target)
      set(${out} ${CMAKE_MATCH_2} PARENT_SCOPE)
      return()
    endif()
  endforeach()
  message(FATAL_ERROR "vel links ${target} privately, but cmake/VelInstall.cmake does not know "
      "its pkg-config module: add ${target}=<module> to VEL_PKGCONFIG_MODULES")
endfunction()

function(vel_pkgconfig_public target cflags_var libs_var)
  set(cflags ${${cflags_var}})
  set(libs ${${libs_var}})
  if(target STREQUAL "Boost::headers")
    get_target_property(dirs Boost::headers INTERFACE_INCLUDE_DIRECTORIES)
    foreach(dir IN LISTS dirs)
      if(NOT dir IN_LIST CMAKE_CXX_IMPLICIT_INCLUDE_DIRECTORIES)
        list(APPEND cflags -I${dir})
      endif()
    endforeach()
  elseif(target STREQUAL "Threads::Threads")
    if(CMAKE_THREAD_LIBS_INIT STREQUAL "-pthread")
      list(APPEND cflags -pthread)
    endif()
    list(APPEND libs ${CMAKE_THREAD_LIBS_INIT})
  else()
    message(FATAL_ERROR "vel links ${target} publicly, but cmake/VelInstall.cmake does not know "
        "which flags vel.pc must give for it: extend vel_pkgconfig_public")
  endif()
  set(${cflags_var} ${cflags} PARENT_SCOPE)
  set(${libs_var} ${libs} PARENT_SCOPE)
endfunction()

# Runs once every module has linked what it needs (deferred to the end of the top directory).
# A shared library's private dependencies are in LINK_LIBRARIES only, its public ones in both.
function(vel_write_pkgconfig_template)
  get_target_property(public vel INTERFACE_LINK_LIBRARIES)
  get_target_property(linked vel LINK_LIBRARIES)
  set(all ${public} ${linked})
  list(FILTER all EXCLUDE REGEX "-NOTFOUND$")
  list(REMOVE_DUPLICATES all)
  set(requires_private "")
  set(cflags "")
  set(libs "")
  foreach(item IN LISTS all)
    if(item MATCHES "^\\$<BUILD_INTERFACE:")
      continue()  # build-tree only (the warning flags)
    elseif(item IN_LIST public)
      vel_pkgconfig_public(${item} cflags libs)
    else()
      vel_pkgconfig_module(${item} module)
      list(APPEND requires_private ${module})
    endif()
  endforeach()
  list(REMOVE_DUPLICATES requires_private)
  set_property(GLOBAL PROPERTY VEL_PKGCONFIG_REQUIRES_PRIVATE ${requires_private})
  list(JOIN requires_private ", " VEL_PC_REQUIRES_PRIVATE)
  foreach(flag IN LISTS cflags)
    string(APPEND VEL_PC_CFLAGS " ${flag}")
  endforeach()
  foreach(flag IN LISTS libs)
    string(APPEND VEL_PC_LIBS " ${flag}")
  endforeach()
  foreach(dir LIBDIR INCLUDEDIR)
    if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
      set(VEL_PC_${dir} "${CMAKE_INSTALL_${dir}}")
    else()
      set(VEL_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
    endif()
  endforeach()
  set(VEL_PC_PREFIX "@VEL_PC_PREFIX@")  # filled in at install time
  configure_file(${PROJECT_SOURCE_DIR}/cmake/vel.pc.in ${PROJECT_BINARY_DIR}/vel.pc.in @ONLY)
endfunction()
cmake_language(DEFER DIRECTORY ${PROJECT_SOURCE_DIR} CALL vel_write_pkgconfig_template)

# The prefix is known only when installing: `cmake --install --prefix` and CPack choose it after
# the configuration.
install(CODE "set(VEL_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
configure_file(\"${PROJECT_BINARY_DIR}/vel.pc.in\" \"${PROJECT_BINARY_DIR}/vel.pc\" @ONLY)"
    COMPONENT dev)
install(FILES ${PROJECT_BINARY_DIR}/vel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    COMPONENT dev)
