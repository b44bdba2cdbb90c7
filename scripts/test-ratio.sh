#!/bin/sh
# Prints the size of the tests against the code they test: non-blank lines of
# the C, C++, Python and shell files git tracks, tests/ on one side and
# everything outside tests/ and fuzz/ on the other.
set -eu
cd "$(git -C "$(dirname "$0")" rev-parse --show-toplevel)"

count() {
    git ls-files -z -- "$@" | xargs -0 -r cat | grep -cv '^[[:space:]]*$' || true
}

exts="*.cpp *.h *.c *.py *.sh"
tests=$(count $(for e in $exts; do printf 'tests/%s ' "$e"; done))
code=$(count $(for e in $exts; do printf ':(glob)**/%s ' "$e"; done) ':(exclude)tests/**' ':(exclude)fuzz/**')
awk -v t="$tests" -v c="$code" 'BEGIN { printf "tests: %d lines, code: %d lines, ratio: %.1f%%\n", t, c, 100 * t / c }'
