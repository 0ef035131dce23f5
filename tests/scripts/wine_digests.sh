#!/usr/bin/env bash
# The same scenarios through the native module, the 32-bit native build and
# the Windows x64 module under Wine: every output digest must agree.
#   wine_digests.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
src=$(cd "$1" && pwd)
build=$(cd "$2" && pwd)
win64=$src/build/win64
native32=$src/build/native32
export WINEPREFIX=$build/wineprefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
if [ ! -d "$WINEPREFIX" ]; then
  wineboot -i >/dev/null 2>&1 || true
fi
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
"$build/scenario_digests" "$build/MendarisK.so" >"$out/native.txt"
wine "$win64/scenario_digests.exe" "$win64/MendarisK.8bf" 2>/dev/null | tr -d '\r' >"$out/win64-all.txt" || true
# The Windows run first reads the module's PiPL through the resource calls.
grep '^pipl:' "$out/win64-all.txt" || true
grep -q '^pipl: ok' "$out/win64-all.txt" || { echo "FAIL: the Windows module's PiPL does not read back"; exit 1; }
grep -v '^pipl:' "$out/win64-all.txt" >"$out/win64.txt"
"$native32/scenario_digests" "$native32/MendarisK.so" >"$out/native32.txt"
status=0
for other in win64 native32; do
  if ! diff -u "$out/native.txt" "$out/$other.txt"; then
    echo "FAIL: $other digests differ from the native build"
    status=1
  fi
done
lines=$(wc -l <"$out/native.txt")
[ "$lines" -gt 0 ] || { echo "FAIL: no scenario ran"; status=1; }
[ $status -eq 0 ] && echo "OK: $lines scenarios agree across native, native32 and win64 (wine)"
exit $status
