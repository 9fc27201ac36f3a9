# The `docs` target: the API reference in HTML (build/docs/html/index.html), made by Doxygen from
# the public headers. It fails on a Doxygen warning, an undocumented public declaration
# included, so that the reference cannot fall behind the headers (ctest runs it too).
find_package(Doxygen QUIET)
set(VEL_DOCS_INPUT "")
foreach(module IN LISTS VEL_MODULES)
  list(APPEND VEL_DOCS_INPUT ${PROJECT_SOURCE_DIR}/${module}/include)
endforeach()
list(APPEND VEL_DOCS_INPUT ${PROJECT_SOURCE_DIR}/include)
list(JOIN VEL_DOCS_INPUT " " VEL_DOCS_INPUT)
set(VEL_DOCS_OUTPUT ${PROJECT_BINARY_DIR}/docs)
configure_file(${PROJECT_SOURCE_DIR}/cmake/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)

if(DOXYGEN_FOUND)
  set(VEL_DOCS_COMMAND Doxygen::doxygen ${PROJECT_BINARY_DIR}/Doxyfile)
else()
  set(VEL_DOCS_COMMAND ${CMAKE_COMMAND} -E echo "Doxygen not found: apt-get install doxygen"
      COMMAND ${CMAKE_COMMAND} -E false)
endif()
add_custom_target(docs COMMAND ${VEL_DOCS_COMMAND} WORKING_DIRECTORY ${PROJECT_BINARY_DIR}
    COMMENT "API reference in ${VEL_DOCS_OUTPUT}/html" VERBATIM)
