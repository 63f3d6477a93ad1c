# Debian packages: `cpack -G DEB` in a build tree configured with
#   -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_SYSCONFDIR=/etc
# (scripts/cross.sh builds them for amd64 natively and for armhf with
# cmake/toolchain-armhf.cmake). Package `tokard` holds what `cmake --install`
# puts in place: the programs, the systemd unit, and the example configuration
# and signal definitions under /etc/kesto as conffiles, so that an edited file
# survives upgrades. Files installed with COMPONENT dev (the client library,
# its header and pkg-config file) go to a second package, `tokard-dev`.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tokard)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(TOKARD_DEB_MAINTAINER "tokard maintainers <tokard@localhost>" CACHE STRING
  "Maintainer field of the Debian packages")
set(CPACK_PACKAGE_CONTACT "${TOKARD_DEB_MAINTAINER}")
# First line the summary; each package has its own.
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "ECU token arbitration on the internal MQTT broker\n\
tokard gives each ECU's token to one client application at a time,\n\
on request over the controller's internal MQTT broker, and follows the\n\
ECU's real-time signal group.")
# The unit and the program name absolute paths made from the prefix.
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

if(CMAKE_CROSSCOMPILING)
  # CPack would ask dpkg, which names the host's architecture.
  if(CMAKE_LIBRARY_ARCHITECTURE STREQUAL "arm-linux-gnueabihf")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
  elseif(CMAKE_LIBRARY_ARCHITECTURE STREQUAL "aarch64-linux-gnu")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
  else()
    message(WARNING "No Debian architecture known for '${CMAKE_LIBRARY_ARCHITECTURE}'")
  endif()
endif()

# The daemon's package. Install rules without a component are in "Unspecified".
get_cmake_property(components COMPONENTS)
if(dev IN_LIST components)
  set(CPACK_DEB_COMPONENT_INSTALL ON)
  set(CPACK_DEBIAN_UNSPECIFIED_PACKAGE_NAME tokard)
  set(main CPACK_DEBIAN_UNSPECIFIED)
else()
  set(main CPACK_DEBIAN)
endif()
set(${main}_PACKAGE_RECOMMENDS mosquitto)

# dpkg-shlibdeps only knows the libraries of the host's own architecture: a
# cross build declares what its programs need (scripts/cross.sh checks the
# names against their NEEDED entries). The versions are those of Debian 12,
# which the controller runs and the sysroot is made of.
# With the protobuf runtime linked in statically, the package needs no protobuf library.
if(TOKARD_STATIC_PROTOBUF)
  set(TOKARD_DEB_DEPENDS "libc6 (>= 2.34), libgcc-s1 (>= 3.5), libmosquitto1 (>= 1.6), libstdc++6 (>= 12)")
else()
  set(TOKARD_DEB_DEPENDS
    "libc6 (>= 2.34), libgcc-s1 (>= 3.5), libmosquitto1 (>= 1.6), libprotobuf32 (>= 3.21.12), libstdc++6 (>= 12)")
endif()
find_program(TOKARD_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(CMAKE_CROSSCOMPILING OR NOT TOKARD_DPKG_SHLIBDEPS)
  set(${main}_PACKAGE_DEPENDS "${TOKARD_DEB_DEPENDS}")
else()
  set(${main}_PACKAGE_SHLIBDEPS ON)
endif()

set(conffiles ${CMAKE_CURRENT_BINARY_DIR}/deb/conffiles)
set(conffile_list "${CMAKE_INSTALL_FULL_SYSCONFDIR}/kesto/tokard.conf\n")
if(EXISTS ${PROJECT_SOURCE_DIR}/packaging/rt_signals.json)
  string(APPEND conffile_list "${CMAKE_INSTALL_FULL_SYSCONFDIR}/kesto/rt_signals.json\n")
endif()
file(WRITE ${conffiles} "${conffile_list}")
set(${main}_PACKAGE_CONTROL_EXTRA
  ${conffiles}
  ${PROJECT_SOURCE_DIR}/packaging/deb/postinst
  ${PROJECT_SOURCE_DIR}/packaging/deb/prerm
  ${PROJECT_SOURCE_DIR}/packaging/deb/postrm)

# The client library is a static archive: its users link libmosquitto and
# libprotobuf themselves.
set(CPACK_DEBIAN_DEV_PACKAGE_NAME tokard-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libmosquitto-dev, libprotobuf-dev")
set(CPACK_DEBIAN_DEV_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEV_DESCRIPTION "client library of tokard, the ECU token arbiter\n\
Static library, header and pkg-config file (tokard-client) for applications\n\
that hold ECU tokens through tokard.")

include(CPack)
