#!/usr/bin/env bash
# Non-blank C/C++ lines: tests (tests/ and *_test*) against everything else.
cd "${1:-$(dirname "$0")/..}"
git ls-files -co --exclude-standard -- '*.c' '*.cc' '*.cpp' '*.h' '*.hpp' | grep -v '^build/' | while read -r f; do
  n=$(grep -cv '^[[:space:]]*$' "$f")
  case "$f" in tests/*|*_test*) echo "t $n";; *) echo "c $n";; esac
done | awk '{s[$1]+=$2} END {printf "tests %d, code %d, ratio %.2f\n", s["t"], s["c"], s["t"]/s["c"]}'
