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
  libmicrohttpd-dev
  util-linux iproute2 procps clang-format python3 python3-prometheus-client
  linux-perf
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
# Other builds on the machine may hold dpkg's lock: wait for it.
APT="apt-get -o DPkg::Lock::Timeout=600"
if ! $SUDO $APT install -y --no-install-recommends $missing; then
  $SUDO $APT update
  $SUDO $APT install -y --no-install-recommends $missing
fi
