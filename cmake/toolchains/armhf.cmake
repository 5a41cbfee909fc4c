# 32-bit Arm with hardware floating point, Debian's cross compiler and Debian's own libraries:
#   cmake --preset armhf
# The libraries are in a folder that packaging/cross/sysroot.sh makes, once per machine; a device
# with another set of them names its own: -DPROXYMANAGER_SYSROOT=. Tests run under qemu's emulation
# of user programs. docs/decisions/0020 has the reasons.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)

set(triplet arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
# Debian's name for the folders of this architecture; without it CMake asks the build machine.
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})

# This file is read anew for each of CMake's own trials, which know the cache of none.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES PROXYMANAGER_SYSROOT)
if(NOT PROXYMANAGER_SYSROOT)
  execute_process(
    COMMAND "${CMAKE_CURRENT_LIST_DIR}/../../packaging/cross/sysroot.sh" armhf
    OUTPUT_VARIABLE sysroot OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE failed)
  if(failed)
    message(FATAL_ERROR "No headers and libraries for armhf; give them with "
                        "-DPROXYMANAGER_SYSROOT=")
  endif()
  set(PROXYMANAGER_SYSROOT "${sysroot}" CACHE PATH
      "Headers and libraries of the architecture that is built for")
endif()
set(CMAKE_SYSROOT "${PROXYMANAGER_SYSROOT}")

# Programs are the build machine's, everything else is the device's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${PROXYMANAGER_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${PROXYMANAGER_SYSROOT}/usr/lib/${triplet}/pkgconfig:${PROXYMANAGER_SYSROOT}/usr/share/pkgconfig")

# Files above 2 GiB, as the libraries are built. Their times are of 32 bits, and so are this tree's:
# where those have 64 (Debian 13 and later), -D_TIME_BITS=64 belongs here, too.
set(CMAKE_C_FLAGS_INIT -D_FILE_OFFSET_BITS=64)
set(CMAKE_CXX_FLAGS_INIT -D_FILE_OFFSET_BITS=64)

find_program(PROXYMANAGER_QEMU qemu-arm)
if(PROXYMANAGER_QEMU)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${PROXYMANAGER_QEMU};-L;${PROXYMANAGER_SYSROOT}")
endif()
