# Debian packages through CPack: `cpack -G DEB` in a build directory gives
#   libvek-dns1     the two shared libraries (runtime component)
#   libvek-dns-dev  headers, CMake package, pkg-config file (dev component)
#   vekdns          the command-line tool (tool component)
set(CPACK_PACKAGE_NAME vek-dns)
set(CPACK_PACKAGE_VENDOR "vek_dns developers")
set(VEK_DEB_MAINTAINER "vek_dns developers <vek-dns@localhost>" CACHE STRING
  "Maintainer field of the Debian packages")
set(CPACK_PACKAGE_CONTACT "${VEK_DEB_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "stub DNS resolver library")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
if(TARGET vekdns)
  list(APPEND CPACK_COMPONENTS_ALL tool)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Our own libraries are not known to dpkg-shlibdeps yet; the dependency on
# them is spelled out below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
# ldconfig runs through dpkg's trigger when the libraries come or go.
file(WRITE ${PROJECT_BINARY_DIR}/deb/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/deb/triggers)
set(vek_runtime_dep "libvek-dns1 (= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libvek-dns1)
string(CONCAT CPACK_DEBIAN_RUNTIME_DESCRIPTION
  "stub DNS resolver library (runtime)\n"
  "libvek_dns resolves host names to IPv4/IPv6 addresses and services to SRV\n"
  "records over UDP, with memory and file caches, and masks addresses in logs.")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libvek-dns-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS ${vek_runtime_dep})
string(CONCAT CPACK_DEBIAN_DEV_DESCRIPTION
  "stub DNS resolver library (development files)\n"
  "Headers, CMake package and pkg-config file of libvek_dns.")
set(CPACK_DEBIAN_TOOL_PACKAGE_NAME vekdns)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS ${vek_runtime_dep})
string(CONCAT CPACK_DEBIAN_TOOL_DESCRIPTION
  "command-line DNS look-ups through libvek_dns\n"
  "vekdns looks up names and services, shows and sets the name servers and\n"
  "cache limits, reads and writes the cache files and masks addresses.")
include(CPack)
