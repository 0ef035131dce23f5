#!/usr/bin/env bash
# PNG in, PNG out never loads the image library, and keeps the input's colour,
# resolution and text chunks (its Software text becomes the tool's); a TIFF
# in, or a damaged PNG, goes through the library as before.
#   cli_png_road.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
src=$1 bin=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
cd "$tmp"
# The example with iCCP, gAMA, pHYs and tEXt chunks after its header, and
# with a byte of its pixel data changed.
python3 - "$src/examples/atlas.png" <<'PY'
import struct, sys, zlib
def chunk(t, d): return struct.pack(">I", len(d)) + t + d + struct.pack(">I", zlib.crc32(t + d))
png = open(sys.argv[1], "rb").read()
extra = (chunk(b"iCCP", b"made up\0\0" + zlib.compress(bytes(range(256)) * 4)) + chunk(b"gAMA", struct.pack(">I", 45455))
         + chunk(b"pHYs", struct.pack(">IIB", 11811, 11811, 1)) + chunk(b"tEXt", b"Title\0A test atlas")
         + chunk(b"tEXt", b"Software\0something else"))
open("meta.png", "wb").write(png[:33] + extra + png[33:])
damaged = bytearray(png); damaged[len(png) // 2] ^= 0xFF
open("damaged.png", "wb").write(bytes(damaged))
PY
# chunks FILE: its metadata chunks, one "TYPE hexdata" a line.
chunks() {
  python3 -c '
import struct, sys
d = open(sys.argv[1], "rb").read(); at = 8
while at < len(d):
    n, t = struct.unpack(">I4s", d[at:at + 8])
    if t in (b"iCCP", b"gAMA", b"pHYs", b"tEXt"): print(t.decode(), d[at + 8:at + 8 + n].hex())
    at += n + 12' "$1"
}
loaded() { grep -c "libOpenImageIO" "$1" || true; }
status=0
LD_DEBUG=files "$bin/mendaris" -q meta.png out.png 2>png.log
[ "$(loaded png.log)" = 0 ] && echo "OK: PNG to PNG without the library" || { echo "FAIL: the library was loaded"; status=1; }
hex() { printf "$1" | od -An -tx1 | tr -d ' \n'; }
expected=$(chunks meta.png | grep -v "^tEXt $(hex Software)"; echo "tEXt $(hex 'Software\0Mendaris K 1.0.0')")
[ "$(chunks out.png)" = "$expected" ] && echo "OK: the metadata came through" || {
  echo "FAIL: the metadata differs"; diff <(echo "$expected") <(chunks out.png) || true; status=1; }
oiiotool --no-autopremult meta.png -o meta.tif
LD_DEBUG=files "$bin/mendaris" -q meta.tif out.tif 2>tif.log
oiiotool --no-autopremult out.png out.tif --fail 0 --diff >/dev/null && [ "$(loaded tif.log)" != 0 ] &&
  echo "OK: a TIFF goes through the library" || { echo "FAIL: TIFF in"; status=1; }
if "$bin/mendaris" -q damaged.png bad.png 2>damaged.log || [ -e bad.png ] || [ "$(wc -l <damaged.log)" != 1 ] ||
  ! grep -q "^mendaris: damaged.png: " damaged.log; then
  echo "FAIL: a damaged PNG:"; cat damaged.log; status=1
else echo "OK: a damaged PNG: $(cat damaged.log)"; fi
exit $status
