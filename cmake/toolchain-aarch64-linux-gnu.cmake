# Cross build for arm64 (aarch64) with Debian's cross toolchain
# (g++-aarch64-linux-gnu) against Debian's arm64 packages installed through
# multiarch (scripts/install-arm64-deps.sh). Test binaries run under qemu's
# user-mode emulator: CTest puts CMAKE_CROSSCOMPILING_EMULATOR in front of
# them, so `ctest` in the build folder runs them as it would natively.
#
#   cmake -S . -B build-arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-aarch64-linux-gnu.cmake
#
# Project settings for the target (BPF headers, where the extra libraries
# are) live in cmake/QuorArm64.cmake, not here.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(QUOR_CROSS_TRIPLET aarch64-linux-gnu)
set(CMAKE_C_COMPILER ${QUOR_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${QUOR_CROSS_TRIPLET}-g++)
# Multiarch: the arm64 libraries sit in /usr/lib/aarch64-linux-gnu of this
# machine's own root, so there is no separate sysroot.
set(CMAKE_LIBRARY_ARCHITECTURE ${QUOR_CROSS_TRIPLET})

# Programs (clang, bpftool, llvm-strip) are the build machine's; libraries,
# headers and CMake packages must be the target's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

# No -L / QEMU_LD_PREFIX: the arm64 C library is installed through
# multiarch (libc6:arm64, a dependency of every arm64 library package), so
# the binaries' interpreter /lib/ld-linux-aarch64.so.1 and every library
# resolve in this machine's own root as on the device. Pointing the emulator
# at the cross toolchain's root (/usr/aarch64-linux-gnu) instead mixes two
# glibc builds - that root's loader with the multiarch libc.so.6 found
# through the host's ld.so.cache - and the first pthread_create then spins
# for ever.
find_program(QUOR_QEMU_AARCH64 NAMES qemu-aarch64-static qemu-aarch64)
if(QUOR_QEMU_AARCH64)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${QUOR_QEMU_AARCH64})
endif()
