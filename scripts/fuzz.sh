#!/usr/bin/env bash
# Runs the libFuzzer targets (built in build/fuzz) for SECONDS each, from the
# seed corpora under tests/fuzz, after replaying every regression input.
# A crash leaves its input in build/fuzz/findings/; copy it to
# tests/fuzz/regressions/ (named filter_* or image_*) once it is fixed.
#   fuzz.sh SECONDS
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}
b=build/fuzz
mkdir -p "$b/findings" "$b/corpus_filter" "$b/corpus_image"
cp -n tests/fuzz/corpus_filter/* "$b/corpus_filter/" 2>/dev/null || true
cp -n tests/fuzz/corpus_image/* "$b/corpus_image/" 2>/dev/null || true
# The image reader's leaks would be OpenImageIO's own, not ours; and OpenEXR
# allocates by a damaged header's word before it finds the file short (2 GiB
# for one such 614-byte file, kept under regressions/), so that target gets
# more room.
image_options=(-detect_leaks=0 -rss_limit_mb=6144)
status=0
for input in tests/fuzz/regressions/*; do
  [ -f "$input" ] || continue
  case $(basename "$input") in
    filter_*) "$b/filter_fuzz" "$input" >/dev/null 2>&1 || { echo "FAIL: regression $input"; status=1; } ;;
    image_*) ASAN_OPTIONS=detect_leaks=0 "$b/image_read_fuzz" "${image_options[@]}" "$input" >/dev/null 2>&1 || { echo "FAIL: regression $input"; status=1; } ;;
  esac
done
run() {
  local target=$1 corpus=$2
  shift 2
  local log=$b/findings/$target.log
  local asan=detect_leaks=1
  [ "$target" = image_read_fuzz ] && asan=detect_leaks=0
  if (cd "$b/findings" && ASAN_OPTIONS=$asan "../$target" -max_total_time="$seconds" -print_final_stats=1 "$@" "../$corpus") >"$log" 2>&1; then
    echo "OK: $target ran $(grep -o 'Done [0-9]* runs' "$log" | head -1 | cut -d' ' -f2) inputs in ${seconds}s, no crash"
  else
    echo "FAIL: $target found a crash; see $log and build/fuzz/findings/"
    tail -20 "$log"
    status=1
  fi
}
run filter_fuzz corpus_filter -rss_limit_mb=4096
run image_read_fuzz corpus_image "${image_options[@]}"
exit $status
