#!/usr/bin/env bash
# The tool on real files: several at once (-j 2) gives the same bytes as one
# at a time; every --compression writes a PNG that Python's zlib reads whole
# (chunk CRCs, one zlib stream) and that holds the samples the library's own
# TIFF writer holds for the same run.
#   cli_batch_png.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
src=$1 tool=$2/mendaris
[ -x "$tool" ] || { echo "no tool built; skipped"; exit 0; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/in"
oiiotool "$src/examples/atlas.png" --resize 1537x1031 -o "$work/in/wide.png"
oiiotool "$src/examples/atlas.png" -d uint16 -o "$work/in/deep.png"
oiiotool "$src/examples/atlas.png" --ch R,A -o "$work/in/gray.png"
cp "$src/examples/atlas.png" "$work/in/atlas.png"

"$tool" -q -j 1 "$work"/in/*.png -o "$work/one"
"$tool" -q -j 2 "$work"/in/*.png -o "$work/two"
for f in "$work"/one/*.png; do cmp "$f" "$work/two/$(basename "$f")"; done

status=0
for name in wide deep gray; do
  "$tool" -q "$work/in/$name.png" "$work/$name.tif"
  for level in fast default 3 smallest; do
    out="$work/$name-$level.png"
    "$tool" -q --compression "$level" "$work/in/$name.png" "$out"
    python3 - "$out" <<'PY' || status=1
import struct, sys, zlib
data = open(sys.argv[1], 'rb').read()
at, idat, header = 8, b'', None
while at < len(data):
    size, kind = struct.unpack('>I4s', data[at:at + 8])
    body = data[at + 8:at + 8 + size]
    assert zlib.crc32(kind + body) == struct.unpack('>I', data[at + 8 + size:at + 12 + size])[0], kind
    header = header or body
    idat += body if kind == b'IDAT' else b''
    at += 12 + size
width, height, depth, colour = struct.unpack('>IIBB', header[:10])
channels = {0: 1, 2: 3, 4: 2, 6: 4}[colour]
assert len(zlib.decompress(idat)) == height * (1 + width * channels * depth // 8)
PY
    oiiotool --diff "$work/$name.tif" "$out" >/dev/null || { echo "FAIL: $name at $level differs from the TIFF"; status=1; }
  done
done
exit $status
