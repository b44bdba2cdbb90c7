#!/bin/sh
# Fuzzes every target of a fuzz build for a while and prints what each did.
#   scripts/run-fuzzers.sh BUILD_DIR SECONDS
# Each target starts from its seeds (fuzz/corpus/<target>/) and keeps what it
# finds in BUILD_DIR/fuzz/corpus/<target>/; a crash, leak or hang is written
# as BUILD_DIR/fuzz/<kind>-<hash> and fails the run. Targets run inside
# private namespaces (tests/run_isolated.sh), like the tests.
set -eu
build=${1:?usage: run-fuzzers.sh BUILD_DIR SECONDS}
seconds=${2:-60}
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "$build" && pwd)
summary=""
status=0
for target in service_receive_fuzzer procfs_readers_fuzzer compat_rule_fuzzer event_views_fuzzer; do
  mkdir -p "$build/fuzz/corpus/$target"
  log="$build/fuzz/$target.log"
  echo "fuzz: $target for ${seconds}s"
  if (cd "$build/fuzz" && "$root/tests/run_isolated.sh" "./$target" \
        -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
        "corpus/$target" "$root/fuzz/corpus/$target") >"$log" 2>&1; then
    result=ok
  else
    result=FAILED
    status=1
    tail -40 "$log"
  fi
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)
  cov=$(grep -o 'cov: [0-9]*' "$log" | tail -1)
  summary="$summary$(printf '%-24s %-6s %10s executions %6s/s  %s' "$target" "$result" \
    "${execs:-?}" "${rate:-?}" "${cov:-}")
"
done
printf '\nfuzz summary (%ss each):\n%s' "$seconds" "$summary"
exit $status
