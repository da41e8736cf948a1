# Cross-compiling for Linux with one of Debian's cross toolchains
# (g++-<triplet>), the target's libraries (liblog, GoogleTest) coming from
# Debian's multiarch packages under /usr/lib/<triplet>. Tests and GoogleTest
# discovery run the target binaries under qemu-user, which finds the target's
# C and C++ runtimes there too. (Not with qemu's -L sysroot prefix: a process
# that forks under it hangs in the child.) Included by the per-architecture
# files, which set TPA_CROSS_TRIPLET, TPA_CROSS_QEMU and CMAKE_SYSTEM_PROCESSOR.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${TPA_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${TPA_CROSS_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${TPA_CROSS_TRIPLET})
set(CMAKE_CROSSCOMPILING_EMULATOR ${TPA_CROSS_QEMU})
