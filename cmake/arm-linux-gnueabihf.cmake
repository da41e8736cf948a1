# 32-bit ARM (armeabi-v7a phones): 32-bit long and pointers, unsigned char.
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(TPA_CROSS_TRIPLET arm-linux-gnueabihf)
set(TPA_CROSS_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
