# Installs the library built in VEL_BINARY_DIR, then builds the consumer program against that copy
# in each documented way, with CMake's find_package(vel) and with `pkg-config --cflags --libs vel`
# alone, and runs both builds.
#   MODE=install  `cmake --install` into a private prefix.
#   MODE=package  the Debian packages: cpack, lintian (no error allowed), each package's control
#                 fields, then every package extracted into a scratch root as dpkg would install
#                 it under /usr; velcat from that root must run.
# cmake -DMODE=... -DVEL_BINARY_DIR=... -DVERSION=... -DCONSUMER_SOURCE_DIR=... -DWORK_DIR=...
#       -DCXX_COMPILER=... [-DSANITIZE=...] -P RunConsumer.cmake
file(REMOVE_RECURSE ${WORK_DIR})

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed: ${ARGN}\n${out}\n${err}")
  endif()
  message(STATUS "${out}${err}")
endfunction()

function(require_program variable name package)
  find_program(${variable} ${name})
  if(NOT ${variable})
    message(FATAL_ERROR "${name} not found (Debian package ${package})")
  endif()
endfunction()

# The value of `field` in the control file of `deb`.
function(control_field deb field out)
  execute_process(COMMAND ${DPKG_DEB} -f ${deb} ${field} RESULT_VARIABLE result
      OUTPUT_VARIABLE value OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "dpkg-deb -f ${deb} ${field} failed")
  endif()
  set(${out} "${value}" PARENT_SCOPE)
endfunction()

function(expect_field deb field regex)
  control_field(${deb} ${field} value)
  if(NOT value MATCHES "${regex}")
    message(FATAL_ERROR "${deb}: ${field} is \"${value}\", expected to match ${regex}")
  endif()
endfunction()

require_program(PKG_CONFIG pkg-config pkgconf)
set(flags "")
if(SANITIZE)
  set(flags "-fsanitize=${SANITIZE}")
endif()

if(MODE STREQUAL "install")
  set(prefix ${WORK_DIR}/prefix)
  run(${CMAKE_COMMAND} --install ${VEL_BINARY_DIR} --prefix ${prefix})
elseif(MODE STREQUAL "package")
  require_program(DPKG_DEB dpkg-deb dpkg)
  require_program(LINTIAN lintian lintian)
  set(packages ${WORK_DIR}/packages)
  run(${CMAKE_CPACK_COMMAND} -G DEB --config ${VEL_BINARY_DIR}/CPackConfig.cmake -B ${packages})
  file(GLOB debs ${packages}/*.deb)
  run(${LINTIAN} --fail-on error ${debs})

  file(GLOB lib_deb ${packages}/libvel1_*.deb)
  file(GLOB dev_deb ${packages}/libvel-dev_*.deb)
  file(GLOB velcat_deb ${packages}/velcat_*.deb)
  if(NOT lib_deb OR NOT dev_deb OR NOT velcat_deb)
    message(FATAL_ERROR "expected libvel1, libvel-dev and velcat packages, got: ${debs}")
  endif()
  expect_field(${lib_deb} Depends "libc6.*zlib1g")
  expect_field(${dev_deb} Depends "^libvel1 \\(= ${VERSION}\\), libboost-dev")
  expect_field(${velcat_deb} Depends "^libvel1 \\(= ${VERSION}\\), libc6")
  file(MAKE_DIRECTORY ${WORK_DIR}/control)
  run(${DPKG_DEB} -e ${lib_deb} ${WORK_DIR}/control)
  file(READ ${WORK_DIR}/control/shlibs shlibs)
  if(NOT shlibs MATCHES "^libvel 1 libvel1 \\(>= ${VERSION}\\)")
    message(FATAL_ERROR "libvel1's shlibs file says: ${shlibs}")
  endif()

  set(root ${WORK_DIR}/root)
  foreach(deb IN LISTS debs)
    run(${DPKG_DEB} -x ${deb} ${root})
  endforeach()
  set(prefix ${root}/usr)
  if(NOT EXISTS ${prefix}/share/man/man1/velcat.1.gz)
    message(FATAL_ERROR "velcat's package has no share/man/man1/velcat.1.gz")
  endif()
else()
  message(FATAL_ERROR "MODE must be install or package")
endif()

# The library's folder, wherever GNUInstallDirs put it (lib or lib/<multiarch>).
file(GLOB_RECURSE sonames ${prefix}/lib*/libvel.so.1)
if(NOT sonames)
  message(FATAL_ERROR "no libvel.so.1 under ${prefix}/lib*")
endif()
list(GET sonames 0 soname)
get_filename_component(libdir ${soname} DIRECTORY)
if(MODE STREQUAL "package")
  execute_process(COMMAND ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${libdir}
      ${prefix}/bin/velcat --help RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT result EQUAL 0 OR NOT out MATCHES "^usage:")
    message(FATAL_ERROR "the packaged velcat does not run (status ${result}):\n${out}${err}")
  endif()
endif()

# find_package(vel) must find this copy, not one installed on the machine.
set(build ${WORK_DIR}/cmake-build)
run(${CMAKE_COMMAND} -S ${CONSUMER_SOURCE_DIR} -B ${build}
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX_COMPILER}
    "-DCMAKE_CXX_FLAGS=${flags}" "-DCMAKE_EXE_LINKER_FLAGS=${flags}")
file(STRINGS ${build}/CMakeCache.txt vel_dir REGEX "^vel_DIR:")
string(FIND "${vel_dir}" "=${prefix}/" at)
if(at EQUAL -1)
  message(FATAL_ERROR "find_package(vel) did not find the copy in ${prefix}: ${vel_dir}")
endif()
run(${CMAKE_COMMAND} --build ${build})
run(${build}/vel_consumer)

# pkg-config alone: the flags it gives are the whole command line. A package's vel.pc says
# prefix=/usr, which the sysroot maps into the scratch root.
file(GLOB_RECURSE pc_files ${prefix}/lib*/vel.pc)
if(NOT pc_files)
  message(FATAL_ERROR "no vel.pc under ${prefix}/lib*")
endif()
get_filename_component(pc_dir "${pc_files}" DIRECTORY)
set(pc_env PKG_CONFIG_PATH=${pc_dir})
if(MODE STREQUAL "package")
  list(APPEND pc_env PKG_CONFIG_SYSROOT_DIR=${root})
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E env ${pc_env} ${PKG_CONFIG} --cflags --libs vel
    RESULT_VARIABLE result OUTPUT_VARIABLE pc_flags ERROR_VARIABLE err
    OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "pkg-config --cflags --libs vel failed:\n${err}")
endif()
message(STATUS "pkg-config --cflags --libs vel: ${pc_flags}")
separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
separate_arguments(sanitize_flags UNIX_COMMAND "${flags}")
run(${CXX_COMPILER} -std=c++17 ${sanitize_flags} ${CONSUMER_SOURCE_DIR}/main.cpp
    ${CONSUMER_SOURCE_DIR}/tcp_socket.cpp ${pc_flags} -o ${WORK_DIR}/vel_consumer_pc)
run(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${libdir} ${WORK_DIR}/vel_consumer_pc)
