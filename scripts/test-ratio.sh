#!/usr/bin/env bash
# Code lines (cloc: no blanks, no comments) of src/ and tests/, and their ratio: tests are
# meant to stay at most half of the code they test.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
code_lines() { cloc --quiet --csv "$1" | awk -F, '$2 == "SUM" { print $NF }'; }
src=$(code_lines src)
tests=$(code_lines tests)
awk -v s="$src" -v t="$tests" 'BEGIN { printf "code lines: src %d, tests %d, tests/src %.2f\n", s, t, t / s }'
