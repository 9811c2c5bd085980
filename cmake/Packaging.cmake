# Debian packages (`make package`): libvntrtagmanager0 (the shared library),
# libvntrtagmanager-dev (headers, static archive, CMake and pkg-config files) and vntr-tools
# (vntr, vntr-sandbox). Install them with `apt-get install ./*.deb`.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vntrtagmanager)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "VNTRTagManager developers <vntr@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# Dependencies of the binaries from dpkg-shlibdeps; the library gets a shlibs file and the
# ldconfig trigger.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libvntrtagmanager${PROJECT_VERSION_MAJOR})
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "Event-tagging library: shared library")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libvntrtagmanager-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DESCRIPTION
  "Event-tagging library: headers, static archive, CMake and pkg-config files")
# The headers include nlohmann/json; the static archive needs the library's own dependencies.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "libvntrtagmanager${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), nlohmann-json3-dev, libsqlite3-dev, libcurl4-openssl-dev | libcurl-dev, libplist-dev")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME vntr-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION devel)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
  "Event-tagging library: the vntr command line and the vntr-sandbox tag server")
include(CPack)
