# 32-bit Arm with hardware floating point: cmake --preset armhf
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(architecture armhf)
set(triplet arm-linux-gnueabihf)
set(emulator qemu-arm)

# Files above 2 GiB, as the libraries are built. Their times have 32 bits, and so have this tree's. If
# theirs have 64 (Debian 13 and later), -D_TIME_BITS=64 belongs here, too.
set(CMAKE_C_FLAGS_INIT -D_FILE_OFFSET_BITS=64)
set(CMAKE_CXX_FLAGS_INIT -D_FILE_OFFSET_BITS=64)

include("${CMAKE_CURRENT_LIST_DIR}/debian_cross.cmake")
