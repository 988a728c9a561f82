# `docs` target: the API reference of the public headers (PLEXA_PUBLIC_HEADER_FILES, set by
# PlexaInstall.cmake) into <build>/docs/html. A Doxygen warning fails the target.
find_program(PLEXA_DOXYGEN doxygen)
if(PLEXA_DOXYGEN)
  set(PLEXA_DOCS_DIR ${CMAKE_BINARY_DIR}/docs)
  list(JOIN PLEXA_PUBLIC_HEADER_FILES " " PLEXA_DOCS_INPUT)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/Doxyfile.in ${PLEXA_DOCS_DIR}/Doxyfile @ONLY)
  add_custom_target(docs
    COMMAND ${CMAKE_COMMAND} -E remove_directory ${PLEXA_DOCS_DIR}/html
    COMMAND ${PLEXA_DOXYGEN} ${PLEXA_DOCS_DIR}/Doxyfile
    DEPENDS ${PLEXA_PUBLIC_HEADER_FILES} ${PLEXA_DOCS_DIR}/Doxyfile
    WORKING_DIRECTORY ${PLEXA_DOCS_DIR}
    COMMENT "Building the API reference in ${PLEXA_DOCS_DIR}/html"
    VERBATIM)
endif()
