# Read by cpack for each generator. libvel-dev depends on the Debian packages that hold the
# pkg-config modules in vel.pc's Requires.private (pkg-config fails on a module that is not
# installed, even without --static): pkg-config says where each module's file is, dpkg which
# package owns it.
if(CPACK_GENERATOR STREQUAL "DEB")
  set(packages "")
  foreach(module IN LISTS CPACK_VEL_PKGCONFIG_REQUIRES)
    execute_process(COMMAND pkg-config --variable=pcfiledir ${module}
        RESULT_VARIABLE status OUTPUT_VARIABLE dir OUTPUT_STRIP_TRAILING_WHITESPACE)
    set(owner "")
    if(status EQUAL 0)
      execute_process(COMMAND dpkg-query -S ${dir}/${module}.pc
          RESULT_VARIABLE status OUTPUT_VARIABLE owner ERROR_QUIET)
    endif()
    if(NOT status EQUAL 0 OR NOT owner MATCHES "^([^:, ]+)")
      message(FATAL_ERROR "cannot tell which Debian package holds the pkg-config module "
          "${module} that vel.pc requires: install it from its -dev package")
    endif()
    list(APPEND packages ${CMAKE_MATCH_1})
  endforeach()
  list(REMOVE_DUPLICATES packages)
  list(SORT packages)
  list(PREPEND packages ${CPACK_DEBIAN_DEV_PACKAGE_DEPENDS})
  list(JOIN packages ", " CPACK_DEBIAN_DEV_PACKAGE_DEPENDS)
endif()
