# Debian packages: `cpack -G DEB` in a build tree configured with
#   -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_SYSCONFDIR=/etc
# (scripts/cross.sh builds them for amd64 natively and for armhf with
# cmake/toolchain-armhf.cmake). Package `tokard` holds what `cmake --install`
# puts in place: the programs, the systemd unit, and the example configuration
# and signal definitions under /etc/kesto as conffiles, so that an edited file
# survives upgrades. Files installed with COMPONENT dev (the client library,
# its header and pkg-config file) go to a second package, `tokard-dev`, and
# the Python package (COMPONENT python) to `python3-tokard`.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tokard)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(TOKARD_DEB_MAINTAINER "tokard maintainers <tokard@example.org>" CACHE STRING
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
set(TOKARD_DEB_DEPENDS "libc6 (>= 2.34), libgcc-s1 (>= 3.5), libmosquitto1 (>= 1.6)")
if(NOT TOKARD_STATIC_PROTOBUF)
  string(APPEND TOKARD_DEB_DEPENDS ", libprotobuf32 (>= 3.21.12)")
endif()
string(APPEND TOKARD_DEB_DEPENDS ", libstdc++6 (>= 12)")
if(TOKARD_SYSTEMD)
  string(APPEND TOKARD_DEB_DEPENDS ", libsystemd0 (>= 252)")
endif()
# postinst creates the system user with adduser.
find_program(TOKARD_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(CMAKE_CROSSCOMPILING OR NOT TOKARD_DPKG_SHLIBDEPS)
  set(${main}_PACKAGE_DEPENDS "adduser, ${TOKARD_DEB_DEPENDS}")
else()
  set(${main}_PACKAGE_DEPENDS "adduser")
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

# What Debian wants beside the programs, in each package: the copyright
# file, the changelog (gzip -9n, as for a native package) and, in tokard, the
# manual pages.
set(deb_docs ${CMAKE_CURRENT_BINARY_DIR}/deb/doc)
file(STRINGS ${PROJECT_SOURCE_DIR}/packaging/deb/changelog changelog_head LIMIT_COUNT 1)
if(NOT changelog_head MATCHES "^tokard \\(${PROJECT_VERSION}\\) ")
  message(FATAL_ERROR "packaging/deb/changelog has no entry for ${PROJECT_VERSION} on top")
endif()
find_program(TOKARD_GZIP gzip REQUIRED)
set(compressed_docs)
foreach(doc packaging/deb/changelog docs/man/tokard.8 docs/man/tokctl.1)
  get_filename_component(name ${doc} NAME)
  add_custom_command(OUTPUT ${deb_docs}/${name}.gz
    COMMAND ${CMAKE_COMMAND} -E copy ${PROJECT_SOURCE_DIR}/${doc} ${deb_docs}/${name}
    COMMAND ${TOKARD_GZIP} -9nf ${deb_docs}/${name}
    DEPENDS ${PROJECT_SOURCE_DIR}/${doc} VERBATIM)
  list(APPEND compressed_docs ${deb_docs}/${name}.gz)
endforeach()
add_custom_target(tokard_docs ALL DEPENDS ${compressed_docs})
install(FILES ${deb_docs}/tokard.8.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES ${deb_docs}/tokctl.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
foreach(component Unspecified dev python)
  set(package tokard)
  if(component STREQUAL dev)
    set(package tokard-dev)
  elseif(component STREQUAL python)
    set(package python3-tokard)
  endif()
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/deb/copyright
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component})
  install(FILES ${deb_docs}/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component})
endforeach()

# `cmake --install --strip` (CPACK_STRIP_FILES) strips the programs' symbols
# and debug information only. What Debian's dh_strip removes besides: the
# compiler's .comment notes, and from the archive also the link-time
# optimisation code of its fat objects (its users link the plain code).
set(dh_strip_extra --remove-section=.comment --remove-section=.note)
set(lto_sections --remove-section=.gnu.lto_* --remove-section=.gnu.debuglto_*
  --strip-symbol=__gnu_lto_slim --strip-symbol=__gnu_lto_v1)
function(tokard_install_strip component file)
  string(REPLACE ";" " " options "${ARGN}")
  install(CODE "
    if(CMAKE_INSTALL_DO_STRIP)
      execute_process(COMMAND \"${CMAKE_STRIP}\" ${options}
        \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${file}\" COMMAND_ERROR_IS_FATAL ANY)
    endif()" COMPONENT ${component})
endfunction()
foreach(program tokard tokctl)
  tokard_install_strip(Unspecified ${CMAKE_INSTALL_BINDIR}/${program} ${dh_strip_extra})
endforeach()
tokard_install_strip(dev ${CMAKE_INSTALL_LIBDIR}/$<TARGET_FILE_NAME:tokard_client>
  --strip-debug ${dh_strip_extra} ${lto_sections} --enable-deterministic-archives)

# Informational lintian tags that stay, each with its reason.
install(FILES ${PROJECT_SOURCE_DIR}/packaging/deb/lintian-overrides
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides RENAME tokard)

# The client library is a static archive: its users link libmosquitto and
# libprotobuf themselves.
set(CPACK_DEBIAN_DEV_PACKAGE_NAME tokard-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libmosquitto-dev, libprotobuf-dev")
set(CPACK_DEBIAN_DEV_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEV_DESCRIPTION "client library of tokard, the ECU token arbiter\n\
Static library, header and pkg-config file (tokard-client) for applications\n\
that hold ECU tokens through tokard.")

# The Python client is pure Python on Debian's python3 packages; postinst and
# prerm byte-compile and clean up as dh_python3 would.
set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-tokard)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
# Modules made by protoc 3.21 need the protobuf runtime 3.20 or later.
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
  "python3:any (>= 3.11~), python3-paho-mqtt (>= 1.6), python3-protobuf (>= 3.20)")
set(CPACK_DEBIAN_PYTHON_PACKAGE_RECOMMENDS tokard)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
  ${PROJECT_SOURCE_DIR}/python/debian/postinst ${PROJECT_SOURCE_DIR}/python/debian/prerm)
set(CPACK_DEBIAN_PYTHON_DESCRIPTION "Python client of tokard, the ECU token arbiter\n\
The Python 3 module tokard acquires, holds and releases ECU tokens from\n\
tokard for diagnostic and test scripts, with a context manager, the wait\n\
line, and tokard's state as it keeps it on the broker.")

include(CPack)
