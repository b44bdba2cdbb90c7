# Settings of the arm64 cross build (cmake/toolchain-aarch64-linux-gnu.cmake).
# Included before QuorDependencies; does nothing in a native build.
#
#   - The kernel programmes are built for the arm64 register layout and,
#     as this machine has no arm64 kernel BTF, against the hand-kept CO-RE
#     header kernel/core/vmlinux.h plus the arm64 UAPI headers
#     (linux-libc-dev:arm64). Passing -DQUOR_VMLINUX_BTF=<arm64 BTF> together
#     with -DQUOR_VMLINUX_HEADER= builds them from a real arm64 BTF instead.
#   - libbcc_bpf.so for arm64 is not a dpkg-installed file (see
#     scripts/install-arm64-deps.sh for why); it is searched where that
#     script unpacks it.
#   - Benchmarks are not cross built: they measure this machine.
if(NOT CMAKE_CROSSCOMPILING OR NOT CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  return()
endif()

set(QUOR_VMLINUX_HEADER ${PROJECT_SOURCE_DIR}/kernel/core/vmlinux.h CACHE FILEPATH "")
set(QUOR_BPF_UAPI_INCLUDE_DIR /usr/include/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH "")
if(NOT EXISTS ${QUOR_BPF_UAPI_INCLUDE_DIR}/asm/ptrace.h)
  message(FATAL_ERROR "arm64 UAPI headers missing in ${QUOR_BPF_UAPI_INCLUDE_DIR}: "
                      "run scripts/install-arm64-deps.sh (linux-libc-dev:arm64)")
endif()

set(QUOR_BCC_ARM64_DIR /usr/local/lib/${CMAKE_LIBRARY_ARCHITECTURE}/quor-bcc CACHE PATH
    "Where scripts/install-arm64-deps.sh unpacks libbcc_bpf.so for arm64")
list(APPEND CMAKE_LIBRARY_PATH ${QUOR_BCC_ARM64_DIR})

set(QUOR_BUILD_BENCHMARKS OFF CACHE BOOL "Build the benchmarks" FORCE)
