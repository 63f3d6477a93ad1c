# Cross build for the controller: ARMv7 hard-float Linux, Debian's
# arm-linux-gnueabihf toolchain, and a sysroot holding Debian 12's armhf
# libraries (scripts/cross/sysroot.sh makes one).
#
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake \
#         -DTOKARD_ARMHF_SYSROOT=/path/to/sysroot
#
# The host's protoc generates the message code; it must be the version of the
# sysroot's libprotobuf (both Debian 12: 3.21). When qemu-arm is there, test
# programs run under it, so the tests are built and ctest runs them.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)

set(TOKARD_ARMHF_TRIPLE "arm-linux-gnueabihf" CACHE STRING "Prefix of the cross tools")
if(NOT TOKARD_ARMHF_SYSROOT AND DEFINED ENV{TOKARD_ARMHF_SYSROOT})
  set(TOKARD_ARMHF_SYSROOT "$ENV{TOKARD_ARMHF_SYSROOT}")
endif()
if(NOT TOKARD_ARMHF_SYSROOT OR NOT EXISTS "${TOKARD_ARMHF_SYSROOT}/usr/include")
  message(FATAL_ERROR "TOKARD_ARMHF_SYSROOT must name an armhf sysroot "
                      "(scripts/cross/sysroot.sh DIR makes one); got '${TOKARD_ARMHF_SYSROOT}'")
endif()
set(TOKARD_ARMHF_SYSROOT "${TOKARD_ARMHF_SYSROOT}" CACHE PATH "armhf sysroot")
# try_compile projects read the toolchain file again, without the cache.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TOKARD_ARMHF_SYSROOT TOKARD_ARMHF_TRIPLE)

set(CMAKE_C_COMPILER ${TOKARD_ARMHF_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${TOKARD_ARMHF_TRIPLE}-g++)
set(CMAKE_SYSROOT "${TOKARD_ARMHF_SYSROOT}")
# Everything here is built by one GCC 12: its notes that GCC 7.1 changed how
# some arguments are passed on ARM concern no code of ours.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")
set(CMAKE_LIBRARY_ARCHITECTURE ${TOKARD_ARMHF_TRIPLE})

# Libraries and headers from the sysroot only; programs (protoc) from the host.
set(CMAKE_FIND_ROOT_PATH "${TOKARD_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config (libmosquitto) reads the sysroot's .pc files and prefixes their paths.
set(ENV{PKG_CONFIG_DIR} "")
set(ENV{PKG_CONFIG_LIBDIR}
    "${TOKARD_ARMHF_SYSROOT}/usr/lib/${TOKARD_ARMHF_TRIPLE}/pkgconfig:${TOKARD_ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${TOKARD_ARMHF_SYSROOT}")

# Without binfmt the kernel cannot start an ARM program: every one that the
# build or ctest runs goes through qemu-arm, loading its libraries from the sysroot.
find_program(TOKARD_QEMU_ARM qemu-arm)
if(TOKARD_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${TOKARD_QEMU_ARM};-L;${TOKARD_ARMHF_SYSROOT}")
endif()
