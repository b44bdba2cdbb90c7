#!/bin/bash
# Counts what a storm of fork / thread / exit costs the scheduler, without
# the daemon and with it in each reading mode: context switches, wake-ups,
# CPU migrations and CPU time of the storm (the process and its children)
# and of the daemon, per storm, and the storm's top symbols. Uses perf
# (linux-perf).
# Usage: tests/run_isolated.sh bench/profile_storm.sh BUILD_DIR [STORMS]
set -u

build=$(cd "${1:?usage: profile_storm.sh BUILD_DIR [STORMS]}" && pwd)
storms=${2:-2000}
bench=$build/bench/storm_bench
export QUOR_BENCH_DAEMON="$build/tools/quorbpfd"
export QUOR_BENCH_LOG_DIR="$build/bench-logs"
mkdir -p "$QUOR_BENCH_LOG_DIR"
events=context-switches,cpu-migrations,sched:sched_wakeup,task-clock
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# perf's CSV line: value,unit,event,...; prints "event value-per-storm".
per_storm() {
  awk -F, -v n="$storms" -v who="$2" '$3 != "" && $1 ~ /^[0-9.]+$/ {
      if ($2 == "msec") printf "  %-8s %-20s %10.1f us per storm\n", who, $3, $1 * 1000 / n
      else printf "  %-8s %-20s %10.2f per storm\n", who, $3, $1 / n }' "$1"
}

echo "$storms storms per mode; load average $(cut -d' ' -f1-3 /proc/loadavg)"
for mode in off default low_latency; do
  mkfifo "$work/in"
  "$bench" --serve "$mode" < "$work/in" > "$work/pid" &
  server=$!
  exec 3> "$work/in"
  for _ in $(seq 600); do [ -s "$work/pid" ] && break; sleep 0.1; done
  daemon=$(cat "$work/pid")
  if [ -z "$daemon" ]; then
    echo "$mode: the daemon did not start (see $QUOR_BENCH_LOG_DIR)"; exec 3>&-; wait $server; exit 1
  fi
  echo "$mode:"
  if [ "$daemon" != 0 ]; then
    perf stat -x, -e "$events" -p "$daemon" -o "$work/daemon" &
    watcher=$!
  fi
  start=$(date +%s%N)
  perf stat -x, -e "$events" -o "$work/storm" -- "$bench" --storms "$storms"
  echo "  storm    wall-clock $(( ($(date +%s%N) - start) / storms / 1000 )) us per storm"
  per_storm "$work/storm" storm
  if [ "$daemon" != 0 ]; then
    kill -INT $watcher; wait $watcher
    per_storm "$work/daemon" daemon
  fi
  # Where the storm's CPU time goes: its top symbols, kernel ones included.
  perf record -q -o "$work/rec" -- "$bench" --storms "$storms" 2>/dev/null
  perf report -i "$work/rec" --stdio --sort sym 2>/dev/null |
    grep -v '^#' | grep -v '^$' | head -n "${TOP:-12}" | sed 's/^/    /'
  exec 3>&-
  wait $server
  rm -f "$work/in" "$work/pid"
done
