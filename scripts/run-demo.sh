#!/bin/sh
# The first thing a new user sees (`make run`): loads the BPF programmes,
# starts the daemon in the background (its log goes to a file in the build
# directory) and shows `quorbpfctl watch` in this terminal. Ctrl-C stops all
# of it, removes the pins, unmounts what the daemon mounted and checks that
# nothing is left behind.
#
#   scripts/run-demo.sh [DAEMON OPTIONS...]     (BUILD=build, WATCH="types")
set -u

BUILD=${BUILD:-build}
CTL=$BUILD/tools/quorbpfctl
DAEMON=$BUILD/tools/quorbpfd
LOADER=$BUILD/tools/loader/quorbpf-loader
LOG=$BUILD/quorbpfd.log
PIDFILE=${QUOR_PID_FILE:-/run/quorbpfd.pid}
PINS=/sys/fs/bpf/quor
# The memory types (kmem_rss_info, rss_change) are left out by default: a busy
# process makes hundreds of them a second and they would bury the rest.
WATCH=${WATCH:-"quor_task_init sched_task_create sched_task_exit dmabuf_size_info cgroup_attach_cpuset_info fd_update_info dmabuf_update task_new task_exit thread_change"}

say() { printf '%s\n' "run-demo: $*"; }

# quorbpfd processes that share this shell's mount and network namespaces:
# only those would clash with ours (pins, socket); a daemon inside a test's
# private namespaces does not.
our_daemons() {
  for pid in $(pgrep -x quorbpfd); do
    [ "$(readlink /proc/$pid/ns/mnt 2>/dev/null)" = "$(readlink /proc/self/ns/mnt)" ] || continue
    [ "$(readlink /proc/$pid/ns/net 2>/dev/null)" = "$(readlink /proc/self/ns/net)" ] || continue
    echo "$pid"
  done
}

if [ "$(id -u)" -ne 0 ]; then
  say "needs root: the daemon loads BPF programmes and mounts bpffs (try: sudo make run)"
  exit 1
fi
for f in "$CTL" "$DAEMON"; do
  [ -x "$f" ] || { say "$f is missing; build first (make build)"; exit 1; }
done
running=$(our_daemons)
if [ -n "$running" ]; then
  say "a quorbpfd is already running (pid $(echo $running)); stop it first"
  exit 1
fi

mounted() { mountpoint -q "$1" 2>/dev/null; }
bpffs_before=0; mounted /sys/fs/bpf && bpffs_before=1
tracefs_before=0
if mounted /sys/kernel/tracing || mounted /sys/kernel/debug/tracing; then tracefs_before=1; fi
pins_before=0; [ -d "$PINS" ] && pins_before=$(ls "$PINS" | wc -l)

DPID=""
cleaned=0
cleanup() {
  [ "$cleaned" -eq 1 ] && return
  cleaned=1
  echo
  if [ -n "$DPID" ] && kill -0 "$DPID" 2>/dev/null; then
    say "stopping the daemon (pid $DPID)"
    kill -TERM "$DPID" 2>/dev/null
    i=0
    while kill -0 "$DPID" 2>/dev/null && [ $i -lt 100 ]; do sleep 0.1; i=$((i + 1)); done
    if kill -0 "$DPID" 2>/dev/null; then
      say "the daemon did not stop in 10 s; killing it"
      kill -KILL "$DPID" 2>/dev/null
      sleep 0.2
      [ "$pins_before" -eq 0 ] && [ -x "$LOADER" ] && "$LOADER" unload >/dev/null 2>&1
    fi
    wait "$DPID" 2>/dev/null
    status=$?
    say "daemon exited with status $status; its log: $LOG"
  fi
  # What is left: pins, processes, the pid file, mounts made for the demo.
  left=""
  if [ "$pins_before" -eq 0 ] && [ -d "$PINS" ] && [ -n "$(ls -A "$PINS" 2>/dev/null)" ]; then
    left="$left pins in $PINS;"
  fi
  running=$(our_daemons)
  if [ -n "$running" ]; then left="$left quorbpfd processes $(echo $running);"; fi
  [ -e "$PIDFILE" ] && [ -n "$DPID" ] && grep -qx "$DPID" "$PIDFILE" 2>/dev/null && rm -f "$PIDFILE"
  if [ "$bpffs_before" -eq 0 ] && mounted /sys/fs/bpf; then
    # A fresh bpffs holds the kernel's maps.debug and progs.debug only.
    if [ -z "$(ls -A /sys/fs/bpf 2>/dev/null | grep -vx -e maps.debug -e progs.debug)" ]; then
      umount /sys/fs/bpf && say "unmounted bpffs from /sys/fs/bpf (it was not mounted before)"
    else
      left="$left bpffs on /sys/fs/bpf holds other pins, left mounted;"
    fi
  fi
  if [ "$tracefs_before" -eq 0 ] && mounted /sys/kernel/tracing; then
    umount /sys/kernel/tracing && say "unmounted tracefs from /sys/kernel/tracing (it was not mounted before)"
  fi
  if [ -z "$left" ]; then
    say "clean: no pins, daemon processes or demo mounts left"
  else
    say "left behind:$left"
  fi
}
trap 'cleanup; exit 0' INT TERM HUP

mkdir -p "$BUILD"
: >"$LOG"
# A background job of a non-interactive shell ignores SIGINT, so Ctrl-C
# reaches only watch; the trap stops the daemon in order.
"$DAEMON" --unpin-on-exit --pid-file "$PIDFILE" "$@" >>"$LOG" 2>&1 &
DPID=$!
say "daemon started (pid $DPID), log: $LOG; loading the BPF programmes..."

i=0
until grep -qx "$DPID" "$PIDFILE" 2>/dev/null; do
  if ! kill -0 "$DPID" 2>/dev/null; then
    wait "$DPID" 2>/dev/null
    say "the daemon ended at start (status $?); the end of its log:"
    tail -n 15 "$LOG"
    DPID=""
    cleanup
    exit 1
  fi
  i=$((i + 1))
  if [ $i -gt 600 ]; then say "the daemon did not start in 60 s; see $LOG"; cleanup; exit 1; fi
  sleep 0.1
done

cat <<INFO

  quorbpf is running. Below: quorbpfctl watch, one line per event
  (memory events left out: WATCH="rss_change" make run shows them).
  In another terminal, as root:
    $CTL top                           live memory view (q quits)
    $CTL tasks --normal --no-kernel    the task table
    $CTL stats --plot /tmp/quorbpf.svg events per second, and a chart
  Ctrl-C stops everything and removes the pins.

INFO
# shellcheck disable=SC2086
"$CTL" watch $WATCH --pid-file "$PIDFILE" --timeout 30
rc=$?
cleanup
exit $rc
