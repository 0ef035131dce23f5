#!/usr/bin/env bash
# The filter on the bundled sample atlas: writes build/demo/atlas_padded.png
# and a before/after picture, build/demo/before_after.png (the atlas over a
# checkerboard on the left, the padded result on the right), and prints both
# paths. `make demo` builds build/native first and then runs this.
#
#   bash scripts/demo.sh [BUILD_DIR]     the tool of another build folder
set -euo pipefail
cd "$(dirname "$0")/.."

tool=${1:-build/native}/mendaris
input=examples/atlas.png
output=build/demo/atlas_padded.png
picture=build/demo/before_after.png

if [ ! -x "$tool" ]; then
  echo "demo: $tool is not built; run 'make demo'" >&2
  exit 1
fi
mkdir -p build/demo
rm -f "$output" "$picture"

"$tool" "$input" "$output"

if ! command -v oiiotool >/dev/null 2>&1; then
  echo "demo: oiiotool (Debian package openimageio-tools) is missing: no before/after picture" >&2
  echo "result: $output"
  exit 0
fi

# Panels as large as the atlas, each under a caption strip.
read -r width height < <(oiiotool --info "$input" | sed -n 's/.*: *\([0-9]*\) x *\([0-9]*\),.*/\1 \2/p')
strip=40
panel="${width}x$((height + strip))"
ground="0.13,0.13,0.15"
checker=(--pattern "checker:width=16:height=16:color1=0.86,0.86,0.86,1:color2=0.66,0.66,0.66,1" "${width}x${height}" 4)
# Transparent parts are seen over the checkerboard, on both sides.
# (--paste lays the image below the top of the stack onto the top one.)
before=("$input" "${checker[@]}" --over --ch "R,G,B" --pattern "constant:color=$ground" "$panel" 3 --paste "+0+$strip")
after=("$output" "${checker[@]}" --over --ch "R,G,B" --pattern "constant:color=$ground" "$panel" 3 --paste "+0+$strip")

font=""
for f in /usr/share/fonts/truetype/dejavu/DejaVuSans-Bold.ttf /usr/share/fonts/truetype/dejavu/DejaVuSans.ttf; do
  if [ -f "$f" ]; then font=$f; break; fi
done
if [ -n "$font" ]; then
  text="--text:x=12:y=28:size=20:color=0.95,0.95,0.95:font=$font"
  oiiotool "${before[@]}" "$text" "before" "${after[@]}" "$text" "after" \
    --mosaic:pad=12 2x1 -o "$picture" 2>/dev/null || font=""
fi
if [ -z "$font" ]; then
  # No usable font: the same picture without the captions.
  oiiotool "${before[@]}" "${after[@]}" --mosaic:pad=12 2x1 -o "$picture"
fi

# Inside the filter: a generated layer's fill and its distance field.
fields=""
if [ -x "$(dirname "$tool")/dump_fill" ]; then
  "$(dirname "$tool")/dump_fill" 512 512 3 build/demo/inside >/dev/null
  oiiotool build/demo/inside_layer.ppm build/demo/inside_filled.ppm build/demo/inside_distance.ppm \
    --mosaic:pad=12 3x1 -o build/demo/inside_fill.png
  rm -f build/demo/inside_*.ppm
  fields=build/demo/inside_fill.png
fi

echo "input:          $input"
echo "result:         $output"
echo "before / after: $picture"
[ -n "$fields" ] && echo "layer, filled level 0, distance field: $fields"
exit 0
