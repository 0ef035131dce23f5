#!/usr/bin/env bash
# Benchmarks, in one run:
#  1. file to file, side by side on the same generated images (atlas and noisy
#     islands, 8 and 16 bits, 1K and 4K): `mendaris IN OUT`, ImageMagick's
#     alpha-weighted pull-push (a resize pyramid laid back up under the image) and
#     libvips' fill_nearest; the best of RUNS runs (default 3), wall seconds,
#     and the tool's peak memory;
#  2. the tool's reading and writing alone (bench/file_io_times);
#  3. the filter alone through the stand-in host, with its phases; then the
#     kernel benchmarks.
# Images are made once into build/bench-images. RUNS=1 SIZES=1024 for a quick look.
set -euo pipefail
cd "$(dirname "$0")/.."
b=build/native/bench
runs=${RUNS:-3}
sizes=${SIZES:-1024 4096}
images=build/bench-images
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$images"

# Seconds and peak KiB of the fastest of $runs runs of a command.
best_of() {
  local best="" peak=""
  for _ in $(seq "$runs"); do
    /usr/bin/time -f "%e %M" -o "$work/time" "$@" >/dev/null 2>&1 || { echo "failed"; return; }
    read -r seconds kib <"$work/time"
    if [ -z "$best" ] || awk "BEGIN{exit !($seconds < $best)}"; then best=$seconds; peak=$kib; fi
  done
  echo "$best $peak"
}

# IN OUT SIZE: halve the image (resize weighs colour by alpha) down to one
# pixel, then from the smallest level up enlarge each and lay the next larger
# level over it. One convert a step keeps ImageMagick within its memory policy.
pull_push() {
  local dir level=0 size=$3
  dir=$(mktemp -d)
  convert "$1" -alpha set "$dir/0.miff"
  while [ "$size" -gt 1 ]; do
    convert "$dir/$level.miff" -resize 50% "$dir/$((level + 1)).miff"
    level=$((level + 1)) size=$((size / 2))
  done
  while [ "$level" -gt 0 ]; do
    level=$((level - 1)) size=$(($3 >> level))
    convert "$dir/$((level + 1)).miff" -filter Gaussian -resize "${size}x${size}!" "$dir/$level.miff" \
      -compose over -composite "$dir/$level.miff"
  done
  convert "$dir/0.miff" -alpha off "$2"
  rm -rf "$dir"
}
export -f pull_push

echo "== file to file, $(nproc) processors, best of $runs (seconds; the tool's peak memory) =="
printf "%-22s %20s %18s %18s\n" "image" "mendaris" "ImageMagick" "vips fill_nearest"
for size in $sizes; do
  for kind in atlas islands; do
    for depth in 8 16; do
      in="$images/${kind}_${size}_${depth}.png"
      [ -s "$in" ] || "$b/make_bench_images" "$kind" "$size" "$depth" "$in"
      read -r ours peak < <(best_of build/native/mendaris --quiet "$in" "$work/ours.png")
      read -r magick _ < <(best_of bash -c 'pull_push "$0" "$1" "$2"' "$in" "$work/magick.png" "$size")
      read -r vips _ < <(best_of vips fill_nearest "$in" "$work/vips.png")
      peak=${peak:-0}
      printf "%-22s %9s s %5.0f MiB %16s s %16s s\n" "$(basename "$in" .png)" "$ours" "$((peak / 1024))" "$magick" "$vips"
    done
  done
done

echo
echo "== reading and writing alone (filled islands 4096, 8 and 16 bits) =="
for depth in 8 16; do
  [ -s "$images/islands_4096_$depth.png" ] || "$b/make_bench_images" islands 4096 "$depth" "$images/islands_4096_$depth.png"
  build/native/mendaris --quiet "$images/islands_4096_$depth.png" "$work/filled.png"
  "$b/file_io_times" "$work/filled.png" "$runs"
done

echo
echo "== many files: 24 textures of 1024 (atlas and islands, 8 and 16 bits), best of $runs =="
mkdir -p "$work/many"
for i in $(seq 6); do
  for f in "$images"/*_1024_*.png; do cp "$f" "$work/many/${i}_$(basename "$f")"; done
done
for jobs in 1 $(nproc); do
  read -r seconds _ < <(best_of build/native/mendaris --quiet -j "$jobs" "$work"/many/*.png -o "$work/many-out")
  echo "  -j $jobs: $seconds s"
done

echo
echo "== the filter alone (stand-in host, $(nproc) processors) =="
"$b/end_to_end_timing" 1024 8 3
"$b/end_to_end_timing" 4096 8
"$b/end_to_end_timing" 4096 16
"$b/end_to_end_timing" 4096 32
for program in "$b"/*_bench; do
  [ -x "$program" ] || continue
  echo "== $(basename "$program") =="
  "$program" --benchmark_min_time=0.2 2>/dev/null || "$program"
done
