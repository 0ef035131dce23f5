#!/usr/bin/env bash
# The Windows archive of `make package`: what it holds, and its two modules
# (machine type, PluginMain the only export).
#   package_windows.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
src=$1 bin=$2
zips=("$src"/build/package/MendarisK-*-windows.zip)
if [ ! -f "${zips[0]}" ] || [ ${#zips[@]} -ne 1 ]; then
  echo "FAIL: no single build/package/MendarisK-*-windows.zip (make package makes it)"; exit 1
fi
zip=${zips[0]}
top=$(basename "$zip" -windows.zip)
expected=$(printf '%s\n' "$top/INSTALL.txt" "$top/LICENSE.txt" "$top/x64/MendarisK.8bf" "$top/x86/MendarisK.8bf")
listed=$(cmake -E tar tf "$zip" | grep -v '/$' | sort)
if [ "$listed" != "$expected" ]; then
  printf 'FAIL: the archive holds\n%s\nnot\n%s\n' "$listed" "$expected"; exit 1
fi
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
(cd "$tmp" && cmake -E tar xf "$zip")
grep -q 'Plug-ins' "$tmp/$top/INSTALL.txt" || { echo "FAIL: INSTALL.txt does not say where the file goes"; exit 1; }
bash "$src/tests/scripts/pe_exports.sh" "$src" "$bin" "$tmp/$top/x64/MendarisK.8bf" "$tmp/$top/x86/MendarisK.8bf"
