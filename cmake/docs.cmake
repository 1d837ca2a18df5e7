# The API reference: `cmake --build <dir> --target docs` writes <dir>/docs/html, and so does every
# build while VELMORA_BUILD_DOCS is on, for the velmora-doc package. Doxygen fails on any warning,
# an undocumented public member included; the docs test runs the same file.
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

# Sanitizer builds leave it out: they never package.
if(VELMORA_SANITIZE)
  set(_velmora_docs_default OFF)
else()
  set(_velmora_docs_default ON)
endif()
option(VELMORA_BUILD_DOCS "Build the HTML API reference with every build and install it (velmora-doc)"
  ${_velmora_docs_default})
if(VELMORA_BUILD_DOCS AND NOT VELMORA_DOXYGEN)
  message(STATUS "doxygen is missing: no HTML API reference (bash scripts/install-deps.sh)")
  set(VELMORA_BUILD_DOCS OFF)
endif()
if(VELMORA_BUILD_DOCS)
  file(GLOB _velmora_doc_sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/*.md ${PROJECT_SOURCE_DIR}/docs/*.md
    ${PROJECT_SOURCE_DIR}/bench/README.md ${PROJECT_SOURCE_DIR}/include/*.h ${PROJECT_SOURCE_DIR}/include/velmora/*.h)
  # Warnings do not stop a build: the docs test fails on them.
  add_custom_command(OUTPUT ${VELMORA_DOCS_DIR}/html/index.html
    COMMAND sh -c "{ cat \"$0\"; echo WARN_AS_ERROR=NO; echo WARNINGS=NO; } | \"$1\" -" ${VELMORA_DOXYFILE} ${VELMORA_DOXYGEN}
    DEPENDS ${_velmora_doc_sources} ${VELMORA_DOXYFILE} ${VELMORA_GENERATED_INCLUDE}/velmora/Version.h
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} COMMENT "API reference in ${VELMORA_DOCS_DIR}/html" VERBATIM)
  add_custom_target(docs_html ALL DEPENDS ${VELMORA_DOCS_DIR}/html/index.html)
  install(DIRECTORY ${VELMORA_DOCS_DIR}/html DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/velmora-doc COMPONENT doc)
endif()
