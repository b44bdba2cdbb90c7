#!/bin/sh
# Prints the size of the tests against the code they test: non-blank lines of
# the C and C++ files git tracks, tests and fuzzers (tests/, fuzz/) on one
# side, the shipped code on the other (benchmarks and the generated-style
# kernel type header left out). Scripts count on neither side.
set -eu
cd "$(git -C "$(dirname "$0")" rev-parse --show-toplevel)"

sources=$(git ls-files | grep -E '\.(c|cc|cpp|h|hpp)$')
count() { xargs -r cat | grep -cv '^[[:space:]]*$' || true; }
tests=$(echo "$sources" | grep -E '^(tests|fuzz)/' | count)
code=$(echo "$sources" | grep -vE '^(tests|fuzz|bench)/|vmlinux\.h$' | count)
awk -v t="$tests" -v c="$code" 'BEGIN { printf "tests: %d lines, code: %d lines, ratio: %.1f%%\n", t, c, 100 * t / c }'
