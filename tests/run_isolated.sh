#!/bin/sh
# Runs one test command inside private mount and network namespaces, so that
# tests touching fixed system paths can run in parallel and leave nothing
# behind:
#   /data            a fresh tmpfs (the service's log directory lives there)
#   /sys/fs/bpf      a fresh bpffs (pins vanish with the namespace)
#   /sys/kernel/tracing  tracefs, for attaching tracepoints
#   abstract sockets a private namespace (they belong to the network namespace)
# Exits 77 (CTest's skip code) with a reason when the machine does not allow it.
set -eu

if [ "${1:-}" = "--inside" ]; then
  shift
  mount -t tmpfs -o mode=0755 tmpfs /data
  mount -t bpf -o mode=0700 bpf /sys/fs/bpf
  mount -t tracefs tracefs /sys/kernel/tracing 2>/dev/null || true
  exec "$@"
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "SKIP: $1 needs root to create private namespaces"
  exit 77
fi
# /data must exist to be a mount point; on a device it always does.
[ -d /data ] || mkdir -p /data
if ! unshare --mount --net --propagation private true 2>/dev/null; then
  echo "SKIP: this machine does not allow private mount and network namespaces"
  exit 77
fi
exec unshare --mount --net --propagation private -- "$0" --inside "$@"
