# 64-bit ARM (arm64-v8a phones).
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(TPA_CROSS_TRIPLET aarch64-linux-gnu)
set(TPA_CROSS_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
