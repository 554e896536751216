# The API reference of the three libraries: the target `docs` writes it to
# <build>/docs/html. scripts/api-reference.sh runs doxygen and fails on any
# public name without documentation; tests/docs runs the same check in the
# test suite.
find_program(ORVIKM_DOXYGEN doxygen)
set(ORVIKM_DOCS_OUTPUT ${PROJECT_BINARY_DIR}/docs)
configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
if(ORVIKM_DOXYGEN)
    add_custom_target(docs
        COMMAND ${PROJECT_SOURCE_DIR}/scripts/api-reference.sh
            ${PROJECT_BINARY_DIR}/Doxyfile ${ORVIKM_DOCS_OUTPUT}
        COMMENT "Writing the API reference with doxygen"
        VERBATIM)
else()
    add_custom_target(docs
        COMMAND ${CMAKE_COMMAND} -E echo "doxygen is not installed (apt-get install doxygen)"
        COMMAND ${CMAKE_COMMAND} -E false
        VERBATIM)
endif()
