# Another architecture, with Debian's cross compiler and Debian's own libraries. The file of an
# architecture sets `architecture` (Debian's name), `triplet` and `emulator`, and includes this file.
#
# The libraries are in a folder that packaging/cross/sysroot.sh makes once per machine. A device with
# other libraries names its own folder: -DPROXYMANAGER_SYSROOT=. Tests run under qemu's emulation of
# user programs. docs/decisions/0020 has the reasons.
set(CMAKE_SYSTEM_NAME Linux)

set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
# Debian's name for the folders of this architecture. If this variable is not set, CMake uses the
# name of the build machine.
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})

# CMake reads this file again for each of its test builds (try_compile), which cannot read the cache.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES PROXYMANAGER_SYSROOT)
if(NOT PROXYMANAGER_SYSROOT)
  execute_process(
    COMMAND "${CMAKE_CURRENT_LIST_DIR}/../../packaging/cross/sysroot.sh" ${architecture}
    OUTPUT_VARIABLE sysroot OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE failed)
  if(failed)
    message(FATAL_ERROR "No headers and libraries for ${architecture}; give them with "
                        "-DPROXYMANAGER_SYSROOT=")
  endif()
  set(PROXYMANAGER_SYSROOT "${sysroot}" CACHE PATH
      "Headers and libraries of the architecture that is built for")
endif()
set(CMAKE_SYSROOT "${PROXYMANAGER_SYSROOT}")

# CMake looks for programs on the build machine, and for everything else in the folder of the device.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${PROXYMANAGER_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${PROXYMANAGER_SYSROOT}/usr/lib/${triplet}/pkgconfig:${PROXYMANAGER_SYSROOT}/usr/share/pkgconfig")

find_program(PROXYMANAGER_QEMU ${emulator})
if(PROXYMANAGER_QEMU)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${PROXYMANAGER_QEMU};-L;${PROXYMANAGER_SYSROOT}")
endif()
