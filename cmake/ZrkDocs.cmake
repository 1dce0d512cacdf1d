# zrkapi_docs: HTML reference of the public headers, in <build>/docs/html.
# Only when Doxygen is installed; not part of "all".
find_package(Doxygen QUIET)
if(DOXYGEN_FOUND)
  set(ZRK_DOCS_OUTPUT ${PROJECT_BINARY_DIR}/docs)
  set(ZRK_DOXYGEN_FILTER ${PROJECT_SOURCE_DIR}/cmake/doxygen-filter.awk)
  configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${ZRK_DOCS_OUTPUT}/Doxyfile @ONLY)
  add_custom_target(zrkapi_docs
    COMMAND ${DOXYGEN_EXECUTABLE} ${ZRK_DOCS_OUTPUT}/Doxyfile
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    COMMENT "Generating the API reference in ${ZRK_DOCS_OUTPUT}/html"
    VERBATIM)
endif()
