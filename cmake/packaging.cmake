# Debian packages from a build directory: `cpack -G DEB` makes one package per install component.
#   libvelmora4      the shared library
#   libvelmora-dev   headers (C and C++), static library, CMake package and pkg-config file
#   velmora-tools    velmora-collector and velmora-check, with their manual pages
#   python3-velmora  the Python package
#   velmora-doc      the HTML API reference
# dpkg-shlibdeps (dpkg-dev) works out what each package's binaries need. Each component's
# description starts with its one-line summary. Every package carries /usr/share/doc/<package>/
# with the copyright file and the changelog.
set(CPACK_PACKAGE_NAME velmora)
set(CPACK_PACKAGE_VENDOR "Velmora")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Velmora maintainers <maintainers@velmora.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)

set(CPACK_COMPONENTS_ALL runtime dev)
set(_velmora_runtime libvelmora${PROJECT_VERSION_MAJOR})
set(_velmora_packages runtime ${_velmora_runtime} dev libvelmora-dev)
if(VELMORA_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tools)
  list(APPEND _velmora_packages tools velmora-tools)
endif()
if(VELMORA_BUILD_PYTHON)
  list(APPEND CPACK_COMPONENTS_ALL python)
  list(APPEND _velmora_packages python python3-velmora)
endif()
if(VELMORA_BUILD_DOCS)
  list(APPEND CPACK_COMPONENTS_ALL doc)
  list(APPEND _velmora_packages doc velmora-doc)
endif()

# Compressed as Debian ships them: the changelog and the manual pages.
set(_velmora_packaging ${PROJECT_BINARY_DIR}/packaging)
set(_velmora_compressed)
function(velmora_gzip source output)
  add_custom_command(OUTPUT ${output} COMMAND sh -c "gzip -9nc \"$0\" >\"$1\"" ${source} ${output}
    DEPENDS ${source} VERBATIM)
  set(_velmora_compressed ${_velmora_compressed} ${output} PARENT_SCOPE)
endfunction()
velmora_gzip(${PROJECT_SOURCE_DIR}/packaging/changelog ${_velmora_packaging}/changelog.gz)
while(_velmora_packages)
  list(POP_FRONT _velmora_packages _component _package)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${_velmora_packaging}/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${_package} COMPONENT ${_component})
endwhile()
if(VELMORA_BUILD_TOOLS)
  foreach(_page tools/collector/velmora-collector tools/check/velmora-check)
    get_filename_component(_name ${_page} NAME)
    configure_file(${PROJECT_SOURCE_DIR}/${_page}.1.in ${_velmora_packaging}/${_name}.1 @ONLY)
    velmora_gzip(${_velmora_packaging}/${_name}.1 ${_velmora_packaging}/${_name}.1.gz)
    install(FILES ${_velmora_packaging}/${_name}.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
  endforeach()
endif()
add_custom_target(velmora_packaging_files ALL DEPENDS ${_velmora_compressed})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${_velmora_runtime})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# A shlibs file and the ldconfig trigger, so that packages built against it depend on it properly.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "Velmora in-app measurement library
Tracks states, actions, lifecycle, location, media, offers and audience signals of a Linux
application and sends them to its collection server, keeping them in a persistent queue while
the device is offline.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libvelmora-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# The static library and the CMake package need the dependencies' development files.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "${_velmora_runtime} (= ${PROJECT_VERSION}), libcurl4-openssl-dev | libcurl-dev, libssl-dev, libsqlite3-dev, libpugixml-dev")
set(CPACK_DEBIAN_DEV_DESCRIPTION "Velmora in-app measurement library (development files)
Headers, the static library, the CMake package (find_package(velmora)) and the pkg-config
file (velmora.pc).")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME velmora-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "Velmora development tools
velmora-collector, a collection server for loopback use that shows every hit it receives, and
velmora-check, which explains what the library makes of a VelmoraConfig.json.")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-velmora)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "${_velmora_runtime} (= ${PROJECT_VERSION}), python3")
set(CPACK_DEBIAN_PYTHON_DESCRIPTION "Velmora in-app measurement library (Python 3)
The velmora package: every operation of the library for Python applications, over its C
interface with ctypes.")

set(CPACK_DEBIAN_DOC_PACKAGE_NAME velmora-doc)
set(CPACK_DEBIAN_DOC_PACKAGE_SECTION doc)
set(CPACK_DEBIAN_DOC_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DOC_DESCRIPTION "Velmora in-app measurement library (API reference)
The HTML reference of the C and C++ interfaces with the integration and configuration guides,
in /usr/share/doc/velmora-doc/html.")

include(CPack)
