# Debian packages from a build directory: `cpack -G DEB` makes one package per install component.
#   libvelmora4      the shared library
#   libvelmora-dev   headers, static library, CMake package and pkg-config file
#   velmora-tools    velmora-collector and velmora-check
# dpkg-shlibdeps (dpkg-dev) works out what each package's binaries need. Each component's
# description starts with its one-line summary.
set(CPACK_PACKAGE_NAME velmora)
set(CPACK_PACKAGE_VENDOR "Velmora")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Velmora maintainers <maintainers@velmora.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)

set(CPACK_COMPONENTS_ALL runtime dev)
if(VELMORA_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)

set(_velmora_runtime libvelmora${PROJECT_VERSION_MAJOR})
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

include(CPack)
