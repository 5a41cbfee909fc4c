# 32-bit Arm with hardware floating point: cmake --preset armhf
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(architecture armhf)
set(triplet arm-linux-gnueabihf)
set(emulator qemu-arm)

# This option allows files above 2 GiB, as in the build of the libraries. The libraries use 32-bit
# times, so this tree uses them, too. If the libraries use 64-bit times (Debian 13 and later), add
# -D_TIME_BITS=64 here.
set(CMAKE_C_FLAGS_INIT -D_FILE_OFFSET_BITS=64)
set(CMAKE_CXX_FLAGS_INIT -D_FILE_OFFSET_BITS=64)

include("${CMAKE_CURRENT_LIST_DIR}/debian_cross.cmake")
