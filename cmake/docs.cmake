# The API reference: `cmake --build <dir> --target docs` writes <dir>/docs/html. Doxygen fails on
# any warning, an undocumented public member included; the docs test runs the same file.
find_program(VELMORA_DOXYGEN doxygen)
set(VELMORA_DOCS_DIR ${PROJECT_BINARY_DIR}/docs)
set(VELMORA_DOXYFILE ${VELMORA_DOCS_DIR}/Doxyfile)
configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${VELMORA_DOXYFILE} @ONLY)
if(VELMORA_DOXYGEN)
  add_custom_target(docs COMMAND ${VELMORA_DOXYGEN} ${VELMORA_DOXYFILE}
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    COMMENT "API reference in ${VELMORA_DOCS_DIR}/html" VERBATIM)
else()
  add_custom_target(docs COMMAND ${CMAKE_COMMAND} -E echo "doxygen is missing: bash scripts/install-deps.sh"
    COMMAND ${CMAKE_COMMAND} -E false VERBATIM)
endif()
