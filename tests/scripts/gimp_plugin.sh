#!/usr/bin/env bash
# The GIMP plug-in in a real GIMP 2.10, headless. It is installed as `make
# install` installs it, found by GIMP, and run from Script-Fu over PNG and
# TIFF files at 8 and 16 bits and float, gray and RGB, with and without a
# partial selection; every export must equal `mendaris` on the same file and
# mask, sample for sample. A layer without alpha is refused in the filter's
# own words and stays as it was.
#
#   bash gimp_plugin.sh SOURCE_DIR BINARY_DIR
set -euo pipefail
src=$1
bin=$(cd "$2" && pwd)
for needed in gimp-console-2.10 gimptool-2.0 oiiotool "$bin/mendaris-k" "$bin/mendaris"; do
  command -v "$needed" >/dev/null || { echo "skipped: $needed is missing"; exit 0; }
done
t=$(mktemp -d)
trap 'rm -rf "$t"' EXIT
mkdir -p "$t/in" "$t/out/plain" "$t/out/masked" "$t/ref"

# Colour noise under an alpha of transparent squares and partial cover (the
# colour under transparent pixels is kept), in every kind of file the test
# opens. The selection is a ramp: nothing, then in part, then all; mendaris
# reads its gray, GIMP selects by its alpha.
cd "$t/in"
oiiotool --pattern noise:type=uniform:min=0:max=1:seed=3 97x61 3 \
  --pattern checker:width=12:height=12:color1=0:color2=1 97x61 1 \
  --pattern fill:topleft=0.2:topright=1:bottomleft=1:bottomright=0.4 97x61 1 --mul \
  --chappend --chnames R,G,B,A -attrib oiio:UnassociatedAlpha 1 \
  -d uint8 -o rgba8.png -d uint16 -o rgba16.png -o rgba16.tif -d float -o rgbaf.tif \
  --dup --ch Y=R,A -d uint8 -o ga8.tif -d float -o gaf.tif --pop --ch R,G,B -d uint8 -o rgb8.png \
  --pattern fill:left=-0.6:right=1.6 97x61 1 --clamp:min=0:max=1 --dup --chappend --chnames Y,A \
  -attrib oiio:UnassociatedAlpha 1 -d uint8 -o mask.png
plain=(rgba8.png rgba16.tif gaf.tif)
masked=(ga8.tif rgba16.png rgbaf.tif)
"$bin/mendaris" -q -o "$t/ref/plain" "${plain[@]}"
"$bin/mendaris" -q -o "$t/ref/masked" --mask mask.png "${masked[@]}"

# Installed under a stand-in root; the plug-in finds its module beside itself.
DESTDIR="$t/root" cmake --install "$bin" --component gimp >/dev/null
installed=$(dirname "$(find "$t/root" -type f -name mendaris-k)")

# GIMP with a home of its own and only the plug-ins the test needs (Script-Fu
# without its scripts, PNG, TIFF, ours): each start takes about a second.
mkdir -p "$t/home/.config/GIMP/2.10" "$t/plug-ins" "$t/scripts"
for p in script-fu file-png file-tiff; do ln -s "$(gimptool-2.0 --gimpplugindir)/plug-ins/$p" "$t/plug-ins/$p"; done
ln -s "$installed" "$t/plug-ins/mendaris-k"
cp "$(gimptool-2.0 --gimpdatadir)"/scripts/*.init "$src/tests/scripts/gimp_filter.scm" "$t/scripts/"
cat > "$t/home/.config/GIMP/2.10/gimprc" <<RC
(plug-in-path "$t/plug-ins")
(script-fu-path "$t/scripts")
RC
list() { printf ' "%s"' "$@"; }
HOME="$t/home" gimp-console-2.10 -i -d -f \
  -b '(let ((q (gimp-plugins-query "Mendaris K"))) (gimp-message (string-append (car (list-ref q 11)) " in " (car (list-ref q 1)))))' \
  -b "(begin
    (mendaris-files \"$t/in\" \"$t/out/plain\" \"\" (list $(list "${plain[@]}" rgb8.png)))
    (mendaris-files \"$t/in\" \"$t/out/masked\" \"$t/in/mask.png\" (list $(list "${masked[@]}"))))" \
  -b '(gimp-quit 0)' >"$t/gimp.log" 2>&1 || true

# Each file's samples as stored (alpha not applied) and their type, as one
# line "FILE: CHANNELS TYPE FORMAT SHA-1: HASH".
cd "$t"
pairs=(in/rgb8.png out/plain/rgb8.png)
for f in "${plain[@]}"; do pairs+=("ref/plain/$f" "out/plain/$f"); done
for f in "${masked[@]}"; do pairs+=("ref/masked/$f" "out/masked/$f"); done
existing=()
for f in "${pairs[@]}"; do [ -f "$f" ] && existing+=("$f"); done
oiiotool --iconfig oiio:UnassociatedAlpha 1 --hash --info "${existing[@]}" 2>&1 |
  awk '/ : / { name = $1; sub(/^[^,]*, */, ""); line[name] = $0 } /SHA-1/ { line[name] = line[name] " " $2 }
       END { for (n in line) print n ": " line[n] }' >pixels.txt || true
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
for ((i = 0; i < ${#pairs[@]}; i += 2)); do
  expected=$(sed -n "s|^${pairs[i]}: ||p" pixels.txt)
  actual=$(sed -n "s|^${pairs[i + 1]}: ||p" pixels.txt)
  [ -n "$actual" ] && [ "$expected" = "$actual" ] || fail "${pairs[i + 1]} (${actual:-missing}) is not ${pairs[i]} ($expected)"
done
! grep -F "FAIL:" gimp.log || fail "GIMP's side of the test failed"
grep -qxF "script-fu-Warning: plug-in-mendaris-k in <Image>/Filters/Tawny Quince/Mendaris K" gimp.log ||
  fail "the plug-in is not in GIMP's menu as Filters/Tawny Quince/Mendaris K"
refusal="This filter cannot operate on the image's background. Use it on a layer with transparent regions."
[ "$(grep -cxF "Mendaris K-Warning: $refusal" gimp.log)" = 1 ] ||
  fail "the refusal of the layer without alpha is not a GIMP message, once"
if [ "$failures" -ne 0 ]; then
  echo "--- GIMP's output:"; cat gimp.log
  exit 1
fi
echo "GIMP plug-in: ${#plain[@]} layers without and ${#masked[@]} with a selection equal mendaris; the layer without alpha is refused"
