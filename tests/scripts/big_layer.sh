#!/bin/bash
# The tool on layers at the 16-bit edge: a layer 32,700 pixels wide and 6 high,
# bands of 700 pixels opaque and bare, comes back whole (every opaque pixel
# unchanged, none left transparent); one past the filter's limit is refused in
# one line, with no output.
set -u
source_dir=$1
binary_dir=$2
tool=$binary_dir/mendaris
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# A colour ramp that climbs across each 700-pixel band, under an alpha of
# bands, opaque and bare in turn. The filter keeps a ramp within one step.
awk 'BEGIN { printf "P3\n32700 6\n255\n";
  for (y = 0; y < 6; ++y) for (x = 0; x < 32700; ++x) { r = int((x % 700) * 255 / 700); print r, 255 - r, int(x / 700) * 5 } }' \
  > "$work/ramp.ppm"
oiiotool "$work/ramp.ppm" --pattern checker:width=700:height=6:color1=1:color2=0 32700x6 1 --chnames A --chappend \
  -d uint8 -o "$work/in.png" || exit 1
"$tool" -q "$work/in.png" "$work/out.png" || { echo "the 32700 by 6 layer was not done"; exit 1; }
# Opaque pixels kept: |out - in| weighted by the input's alpha is at most the
# one step (1/255) that the filter's sampling may move a colour.
oiiotool "$work/out.png" "$work/in.png" --absdiff "$work/in.png" --ch A,A,A,A --mul -o "$work/changed.exr" || exit 1
changed=$(oiiotool --stats "$work/changed.exr" | awk '/Stats Max/ {print $3, $4, $5, $6; exit}')
if ! echo "$changed" | awk '{ exit !($1 < 0.004 && $2 < 0.004 && $3 < 0.004 && $4 < 0.004) }'; then
  echo "opaque pixels changed: max $changed"; exit 1
fi
oiiotool "$work/out.png" --ch A -d float -o "$work/alpha.exr" || exit 1
alpha=$(oiiotool --stats "$work/alpha.exr" | awk '/Stats Min/ {print $3; exit}')
if [ "$alpha" != "1.000000" ]; then echo "pixels left transparent: alpha min $alpha"; exit 1; fi

oiiotool --pattern checker:width=700:height=6 32767x6 2 -d uint8 -o "$work/wide.png" || exit 1
"$tool" -q "$work/wide.png" "$work/wide_out.png" 2> "$work/err"
status=$?
if [ $status -ne 1 ] || [ "$(wc -l < "$work/err")" -ne 1 ] || [ -e "$work/wide_out.png" ]; then
  echo "a 32767-wide layer: status $status, $(cat "$work/err")"; exit 1
fi
echo "big layers: ok"
