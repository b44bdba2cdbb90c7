#!/bin/sh
# Runs the benchmark suite and prints its table: each figure, the baseline
# measured in the same run, their ratio, the target and whether it is met.
# Usage: bench/run_suite.sh BUILD_DIR [programme...]
# Run it as root through tests/run_isolated.sh (`make bench` does): the
# programmes load BPF programmes, start the daemon and bind its socket name,
# all inside private namespaces. Each programme's own output goes to
# BUILD_DIR/bench-logs/<programme>.log.
set -u

build=$(cd "${1:?usage: run_suite.sh BUILD_DIR [programme...]}" && pwd)
shift
programmes=${*:-"pipeline_bench storm_bench startup_scan_bench memory_bench"}

logs=$build/bench-logs
mkdir -p "$logs"
table=$logs/table.tsv
: > "$table"
export QUOR_BENCH_TABLE="$table"
export QUOR_BENCH_LOG_DIR="$logs"
export QUOR_BENCH_DAEMON="$build/tools/quorbpfd"

load() { cut -d' ' -f1-3 /proc/loadavg; }

model=$(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -n 1)
machine="machine: $(nproc) CPUs (${model:-unknown model}), kernel $(uname -r) $(uname -m)"
echo "$machine"
echo "benchmarks on $(nproc) CPUs, load average $(load) at start"
for programme in $programmes; do
  printf '  %-16s ' "$programme"
  start=$(date +%s)
  "$build/bench/$programme" > "$logs/$programme.log" 2>&1
  rc=$?
  case $rc in
    0) status=done ;;
    77) status="skipped (see log)" ;;
    *) status="failed, exit $rc (see log)" ;;
  esac
  echo "$status in $(( $(date +%s) - start )) s, load average $(load)"
done

echo
echo "$machine; load average $(load) at the end"
awk -F '\t' '
  BEGIN { printf "%-58s %-26s %-22s %6s  %-24s %s\n", "figure", "value", "baseline", "ratio", "target", "";
          printf "%-58s %-26s %-22s %6s  %-24s %s\n", "------", "-----", "--------", "-----", "------", "" }
  { printf "%-58s %-26s %-22s %6s  %-24s %s\n", $1, $2, $3, $4, $5, $6 }
' "$table"
echo
echo "Figures are medians over repetitions; ratios are taken within a repetition."
echo "Logs: $logs"
