#!/usr/bin/env bash
# --keep-alpha on real files at 8 and 16 bits and float, with and without a
# selection: the output's alpha is the input's bit for bit, and its colour is
# the colour of the opaque run.
#   cli_keep_alpha.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
src=$1 bin=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
cd "$tmp"
# The atlas with its alpha faded left to right: 16-bit and float files get
# alpha values that the host's 16-bit range cannot hold.
fade() { oiiotool --no-autopremult "$src/examples/atlas.png" --pattern fill:left=1,1,1,0:right=1,1,1,1 512x512 4 --mul "$@"; }
cp "$src/examples/atlas.png" in8.png
fade -d uint16 -o in16.png
fade -d float -o infloat.tif
oiiotool --pattern fill:top=0:bottom=1 512x512 1 -d uint8 -o mask.png
same() {  # same FILE FILE CHANNELS: identical samples, straight colour
  oiiotool --no-autopremult "$1" --ch "$3" "$2" --ch "$3" --fail 0 --diff >/dev/null
}
status=0
for depth in 8 16 float; do
  for mask in "" "--mask=mask.png"; do
    label=$depth${mask:+ with a mask} bad=0
    ext=$([ $depth = float ] && echo tif || echo png)
    "$bin/mendaris" -q $mask "in$depth.$ext" "opaque.$ext"
    "$bin/mendaris" -q $mask --keep-alpha "in$depth.$ext" "kept.$ext"
    same "in$depth.$ext" "kept.$ext" A || { echo "FAIL ($label): the alpha changed"; bad=1; }
    same "opaque.$ext" "kept.$ext" R,G,B || { echo "FAIL ($label): the colour is not the opaque run's"; bad=1; }
    same "in$depth.$ext" "kept.$ext" R,G,B && { echo "FAIL ($label): no colour was filled"; bad=1; }
    [ $bad -eq 0 ] && echo "OK: $label" || status=1
  done
done
exit $status
