#!/usr/bin/env bash
# Benchmarks: the whole filter on generated atlases (one process per case, so
# that peak memory is the run's own), then the kernel benchmarks.
set -euo pipefail
cd "$(dirname "$0")/.."
b=build/native/bench
echo "== end to end (stand-in host, $(nproc) processors) =="
"$b/end_to_end_timing" 1024 8 3
"$b/end_to_end_timing" 4096 8
"$b/end_to_end_timing" 4096 16
"$b/end_to_end_timing" 4096 32
for program in "$b"/*_bench; do
  [ -x "$program" ] || continue
  echo "== $(basename "$program") =="
  "$program" --benchmark_min_time=0.2 2>/dev/null || "$program"
done
