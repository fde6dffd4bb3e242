# The Debian packages: `rvusbpctl` with the tool, the checker and what belongs to them, `librvio-dev` with the
# engine. tools/package builds them as they are to be installed.
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_COMPONENTS_ALL Tool Development)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has its own, in the first line of its description
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/FinishPackages.cmake)

set(CPACK_PACKAGE_CONTACT "rvusbpctl maintainers <maintainers@rvusbpctl.invalid>" CACHE STRING
  "who is responsible for the packages: Name <address>")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME rvusbpctl)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOL_PACKAGE_SHLIBDEPS ON)
set(CPACK_COMPONENT_TOOL_DESCRIPTION "control tool of a USB sharing service
rvusbpctl talks to the daemon that owns the USB devices of this machine and
shares them over the network. It lists the devices and connections, prints,
loads, edits and tests the sharing rules, keeps preferences of devices, and
prints events as they happen.

rvusbprules-check tells whether a file of rules can be loaded.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME librvio-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libstdc++-12-dev | libstdc++-dev")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "event loop for sockets, pipes, timers and captured packets
librvio runs one I/O thread on a kernel event queue. TCP and Unix-domain
clients and servers, pairs of descriptors, timers and packet capture are
endpoints on it, each with a callback.

This package has the static library, the headers and what CMake and
pkg-config need to find them.")

include(CPack)
