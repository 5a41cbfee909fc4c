# 64-bit Arm: cmake --preset arm64
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(architecture arm64)
set(triplet aarch64-linux-gnu)
set(emulator qemu-aarch64)

include("${CMAKE_CURRENT_LIST_DIR}/debian_cross.cmake")
