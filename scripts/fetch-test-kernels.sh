#!/bin/sh
# fetch-test-kernels.sh DEST [SERIES...]
#
# Fetches Debian's kernel packages (6.1 and 6.12 by default, amd64 and arm64)
# and busybox-static for both architectures with `apt-get download`, and
# unpacks each with `dpkg-deb -x` into DEST: nothing is installed, nothing
# goes into /boot. DEST/<series>-<arch>/ holds the unpacked kernel (boot/ and
# lib/modules/<release>/) and a file "release" with its release string;
# DEST/busybox-<arch>/bin/busybox the shell of that architecture's VMs.
#
# The host's sources may not carry every suite a kernel comes from (6.12 is in
# bookworm-backports), so the downloads use apt configuration of their own
# under DEST/apt: the host's Debian release and its signed archive keyring,
# both architectures, its own package lists. apt checks every package against
# the signed index as usual.
set -eu

if [ $# -lt 1 ]; then
  echo "usage: $0 DEST [SERIES...]" >&2
  exit 2
fi
dest=$(mkdir -p "$1" && cd "$1" && pwd)
shift
series=${*:-6.1 6.12}
archs="amd64 arm64"

. /etc/os-release
codename=${VERSION_CODENAME:?unknown Debian release}
mirror=${DEBIAN_MIRROR:-http://deb.debian.org/debian}
security=${DEBIAN_SECURITY_MIRROR:-http://deb.debian.org/debian-security}
keyring=/usr/share/keyrings/debian-archive-keyring.gpg

apt_dir=$dest/apt
mkdir -p "$apt_dir/lists/partial" "$apt_dir/cache/archives/partial" "$apt_dir/downloads"
cat >"$apt_dir/sources.list" <<SOURCES
deb [signed-by=$keyring] $mirror $codename main
deb [signed-by=$keyring] $mirror $codename-updates main
deb [signed-by=$keyring] $mirror $codename-backports main
deb [signed-by=$keyring] $security $codename-security main
SOURCES
APT_OPTS="-o Dir::State::Lists=$apt_dir/lists -o Dir::Etc::SourceList=$apt_dir/sources.list
  -o Dir::Etc::SourceParts=/nonexistent -o Dir::Cache=$apt_dir/cache
  -o Dir::State::status=/dev/null -o APT::Architectures::=amd64 -o APT::Architectures::=arm64"

# The lists are refreshed once a day at most.
stamp=$apt_dir/lists/.updated
if [ -z "$(find "$stamp" -mmin -1440 2>/dev/null)" ]; then
  echo "fetch-test-kernels: updating the package lists of $codename (+updates, backports, security)"
  # shellcheck disable=SC2086
  apt-get $APT_OPTS -q update >"$apt_dir/update.log" 2>&1 || {
    cat "$apt_dir/update.log" >&2
    exit 1
  }
  touch "$stamp"
fi

# apt fetches as its own unprivileged user when it can write the folder.
if [ "$(id -u)" -eq 0 ] && id _apt >/dev/null 2>&1; then chown _apt "$apt_dir/downloads"; fi

# fetch PACKAGE:ARCH VERSION OUTDIR: downloads and unpacks, unless OUTDIR
# already holds that version.
fetch() {
  if [ "$(cat "$3/.version" 2>/dev/null || true)" = "$1=$2" ]; then return 0; fi
  echo "fetch-test-kernels: $1 $2"
  rm -rf "$3" "$apt_dir/downloads"/*.deb
  # shellcheck disable=SC2086
  (cd "$apt_dir/downloads" && apt-get $APT_OPTS -q download "$1=$2" >/dev/null)
  mkdir -p "$3"
  dpkg-deb -x "$apt_dir/downloads"/*.deb "$3"
  rm -f "$apt_dir/downloads"/*.deb
  echo "$1=$2" >"$3/.version"
}

for arch in $archs; do
  # shellcheck disable=SC2086
  version=$(apt-cache $APT_OPTS madison "busybox-static:$arch" | awk -F'|' 'NR == 1 { gsub(/ /, "", $2); print $2 }')
  fetch "busybox-static:$arch" "$version" "$dest/busybox-$arch"
  for s in $series; do
    # The newest linux-image-<arch> of that series, and the image it depends on.
    # shellcheck disable=SC2086
    version=$(apt-cache $APT_OPTS madison "linux-image-$arch:$arch" |
      awk -F'|' -v s="$s" '{ gsub(/ /, "", $2) } index($2, s ".") == 1 { print $2; exit }')
    if [ -z "$version" ]; then
      echo "fetch-test-kernels: no $s kernel for $arch in $codename's suites" >&2
      exit 1
    fi
    # shellcheck disable=SC2086
    image=$(apt-cache $APT_OPTS show "linux-image-$arch:$arch=$version" |
      sed -n 's/^Depends: \(linux-image-[^ ,]*\).*/\1/p' | head -n 1)
    fetch "$image:$arch" "$version" "$dest/$s-$arch"
    ls "$dest/$s-$arch/lib/modules" | head -n 1 >"$dest/$s-$arch/release"
  done
done
echo "fetch-test-kernels: kernels in $dest"
