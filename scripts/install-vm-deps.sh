#!/bin/sh
# Installs what `make test-kernels` needs besides the build's own packages:
# qemu's system emulators for amd64 and arm64 guests (Debian's qemu-system-arm
# carries qemu-system-aarch64). The guests' kernels and busybox are not
# installed: scripts/fetch-test-kernels.sh downloads and unpacks them.
#
# Idempotent: a second run costs one dpkg query per package and no network.
set -eu

PACKAGES="qemu-system-x86 qemu-system-arm python3"

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
# Other jobs may be running apt at the same time: wait for the lock.
APT="$SUDO apt-get -o DPkg::Lock::Timeout=600"

missing=""
for p in $PACKAGES; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing="$missing $p"
  fi
done
if [ -n "$missing" ]; then
  echo "install-vm-deps: installing:$missing"
  if ! $APT install -y --no-install-recommends $missing; then
    $APT update
    $APT install -y --no-install-recommends $missing
  fi
fi
