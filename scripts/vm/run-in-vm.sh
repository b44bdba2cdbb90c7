#!/bin/sh
# run-in-vm.sh PLAN: runs a test VM's tests (scripts/test-kernels.py writes
# PLAN) and prints one line per test on the console:
#   QUORVM-RESULT <name> <passed|failed|skipped> <seconds> <reason>
# PLAN holds one test a line: name, working folder, timeout in seconds and
# the command, separated by "|". A test that exits 77 is skipped (its "SKIP"
# line is the reason); a GoogleTest binary whose cases all skipped is skipped,
# one with some skipped passes and names the first skip. A failed test's
# output tail follows its line. Plain shell: the guest may have nothing but
# busybox.
plan=$1
logs=/tmp/quorvm-logs
mkdir -p "$logs"
# Scratch folders the tests expect.
mkdir -p /data /data/local/tmp 2>/dev/null

while IFS='|' read -r name dir limit command; do
  [ -n "$name" ] || continue
  log=$logs/$name.log
  start=$(date +%s)
  (cd "$dir" && timeout "$limit" sh -c "$command") >"$log" 2>&1 </dev/null
  code=$?
  seconds=$(($(date +%s) - start))
  # One line per case ends with its time; the summary lines do not.
  ran=$(grep -c '^\[       OK \] .* ([0-9]* ms)$' "$log")
  skipped=$(grep -c '^\[  SKIPPED \] .* ([0-9]* ms)$' "$log")
  # The line after GoogleTest's "Skipped" marker carries the reason.
  why=$(grep -A1 ': Skipped$' "$log" | grep -v ': Skipped$' | grep -v '^--$' | head -n 1)
  if [ "$code" -eq 77 ]; then
    status=skipped
    why=$(grep -m1 'SKIP' "$log")
  elif [ "$code" -eq 124 ] || [ "$code" -eq 143 ]; then
    status=failed
    why="timed out after ${limit}s"
  elif [ "$code" -ne 0 ]; then
    status=failed
    why="exit $code: $(grep '^\[  FAILED  \]' "$log" | grep -v 'listed below' | sed 's/^\[  FAILED  \] //; s/ (.*//' | sort -u | tr '\n' ' ')"
  elif [ "$skipped" -gt 0 ] && [ "$ran" -eq 0 ]; then
    status=skipped
  elif [ "$skipped" -gt 0 ]; then
    status=passed
    why="$skipped of $((ran + skipped)) cases skipped: $why"
  else
    status=passed
    why=""
  fi
  echo "QUORVM-RESULT $name $status $seconds $why"
  if [ "$status" = failed ]; then
    echo "QUORVM-LOG-BEGIN $name"
    tail -n 80 "$log"
    echo "QUORVM-LOG-END $name"
  fi
done <"$plan"
