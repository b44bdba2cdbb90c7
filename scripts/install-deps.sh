#!/bin/sh
# Installs every build and test dependency from Debian's packages.
# Idempotent: packages already present are left alone, so a second run
# costs one dpkg query per package and no network.
set -eu

PACKAGES="
  build-essential cmake make pkg-config git
  clang llvm lld bpftool
  libclang-rt-14-dev
  libbpf-dev libbpfcc-dev libelf-dev zlib1g-dev linux-libc-dev
  android-libbase-dev android-liblog-dev android-libcutils-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  util-linux iproute2 procps tmux clang-format python3
"

missing=""
for p in $PACKAGES; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing="$missing $p"
  fi
done

if [ -z "$missing" ]; then
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi

echo "install-deps: installing:$missing"
export DEBIAN_FRONTEND=noninteractive
if ! $SUDO apt-get install -y --no-install-recommends $missing; then
  $SUDO apt-get update
  $SUDO apt-get install -y --no-install-recommends $missing
fi
