#!/bin/sh
# Installs what the arm64 cross build and its emulated tests need, all from
# Debian's packages: the aarch64 cross toolchain, qemu's user-mode emulator,
# and the arm64 builds of the platform libraries through multiarch.
#
# Idempotent: a second run costs one dpkg query per package and no network.
#
# One library cannot be installed the ordinary way. BCC's libbpf layer
# (libbcc_bpf.so) ships in libbpfcc together with libbcc.so, which links
# LLVM; libbpfcc:arm64 therefore depends on libclang-cpp14:arm64, and that
# package is not Multi-Arch: same, so installing it would remove the amd64
# clang that builds the BPF objects. libbcc_bpf.so itself needs only libbpf,
# libelf and the C/C++ runtimes. So the Debian package libbpfcc:arm64 is
# fetched with `apt-get download` (apt checks it against the signed index)
# and only libbcc_bpf.so.0 is unpacked into $BCC_ARM64_DIR. Its headers are
# the native libbpfcc-dev's: that package is Multi-Arch: same, so its headers
# are byte for byte the same on every architecture.
set -eu

BCC_ARM64_DIR=${BCC_ARM64_DIR:-/usr/local/lib/aarch64-linux-gnu/quor-bcc}

# Native (amd64) tools.
TOOLS="
  g++-aarch64-linux-gnu gcc-aarch64-linux-gnu binutils-aarch64-linux-gnu
  qemu-user-static
"
# arm64 libraries; each must be the version of the amd64 one installed
# beside it (Multi-Arch: same), which apt arranges. libc6:arm64 gives qemu
# the loader and C library the binaries run with; linux-libc-dev:arm64 the
# UAPI headers (asm/ptrace.h) the arm64 BPF objects are built with.
LIBS="
  libc6:arm64 linux-libc-dev:arm64
  android-libbase-dev:arm64 android-liblog-dev:arm64 android-libcutils-dev:arm64
  libbpf-dev:arm64 libelf-dev:arm64 zlib1g-dev:arm64
  libgtest-dev:arm64 libmicrohttpd-dev:arm64
"

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive

# The native packages first: the arm64 set joins them (scripts/install-deps.sh).
"$(dirname "$0")/install-deps.sh"

updated=0
apt_update() {
  if [ "$updated" -eq 0 ]; then
    $SUDO apt-get update
    updated=1
  fi
}

if ! dpkg --print-foreign-architectures | grep -qx arm64; then
  echo "install-arm64-deps: adding the arm64 architecture"
  $SUDO dpkg --add-architecture arm64
  apt_update
fi

missing=""
for p in $TOOLS $LIBS; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing="$missing $p"
  fi
done

if [ -n "$missing" ]; then
  echo "install-arm64-deps: installing:$missing"
  # The arm64 index may be missing (architecture just added) or stale.
  if ! $SUDO apt-get install -y --no-install-recommends $missing; then
    apt_update
    $SUDO apt-get install -y --no-install-recommends $missing
  fi
fi

# libbcc_bpf.so.0 for arm64, at the version of the native libbpfcc.
version=$(dpkg-query -W -f='${Version}' libbpfcc)
stamp="$BCC_ARM64_DIR/.libbpfcc-version"
if [ "$(cat "$stamp" 2>/dev/null || true)" != "$version" ]; then
  echo "install-arm64-deps: unpacking libbcc_bpf.so from libbpfcc:arm64 $version into $BCC_ARM64_DIR"
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
  # apt fetches as its own unprivileged user when it can write the folder.
  if [ "$(id -u)" -eq 0 ] && id _apt >/dev/null 2>&1; then chown _apt "$work"; fi
  if ! (cd "$work" && apt-get download "libbpfcc:arm64=$version"); then
    apt_update
    (cd "$work" && apt-get download "libbpfcc:arm64=$version")
  fi
  dpkg-deb -x "$work"/libbpfcc_*_arm64.deb "$work/root"
  lib=$(find "$work/root" -name 'libbcc_bpf.so.0.*' -type f)
  if [ -z "$lib" ]; then
    echo "install-arm64-deps: libbcc_bpf.so.0 not found in libbpfcc:arm64" >&2
    exit 1
  fi
  $SUDO mkdir -p "$BCC_ARM64_DIR"
  $SUDO install -m 0644 "$lib" "$BCC_ARM64_DIR/"
  $SUDO ln -sf "$(basename "$lib")" "$BCC_ARM64_DIR/libbcc_bpf.so.0"
  $SUDO ln -sf libbcc_bpf.so.0 "$BCC_ARM64_DIR/libbcc_bpf.so"
  echo "$version" | $SUDO tee "$stamp" >/dev/null
fi
