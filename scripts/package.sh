#!/usr/bin/env bash
# make package: the Debian package of the tool and module (CPack, from the
# native build) and the Windows archive of both .8bf files, into build/package.
#   package.sh SOURCE_DIR
set -euo pipefail
src=$(cd "$1" && pwd)
out=$src/build/package
version=$(sed -n 's/^project(MendarisK VERSION \([0-9.]*\).*/\1/p' "$src/CMakeLists.txt")
mkdir -p "$out"
rm -f "$out"/mendaris_*.deb "$out"/MendarisK-*-windows.zip

(cd "$src/build/native" && cpack -G DEB >/dev/null)

stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
root="$stage/MendarisK-$version"
mkdir -p "$root/x64" "$root/x86"
cp "$src/build/win64/MendarisK.8bf" "$root/x64/"
cp "$src/build/win32/MendarisK.8bf" "$root/x86/"
cp "$src/LICENSE" "$root/LICENSE.txt"
# Notepad reads either line ending; CRLF also suits the older ones.
sed 's/$/\r/' > "$root/INSTALL.txt" <<NOTE
Mendaris K $version - Tawny Quince
The filter "Fills in transparent areas" of a layer.

Which file
  x64\\MendarisK.8bf   for 64-bit hosts: today's Photoshop and most others
  x86\\MendarisK.8bf   for 32-bit hosts only
A host loads only the file built for it; the other is skipped.

Where to put it
  Photoshop: its Plug-ins folder, for instance
    C:\\Program Files\\Adobe\\Adobe Photoshop <version>\\Plug-ins
  (a subfolder of it is fine). Other hosts of Photoshop filter plug-ins
  have a plug-in folder of their own, or let you name one in their
  preferences; put the file there.

Start the host again. The filter is under Filter > Tawny Quince > Mendaris K.
It works on a layer with transparency, at 8 or 16 bits or 32-bit float.

See LICENSE.txt for the terms.
NOTE
(cd "$stage" && cmake -E tar cf "$out/MendarisK-$version-windows.zip" --format=zip "MendarisK-$version")
ls "$out"/mendaris_*.deb "$out/MendarisK-$version-windows.zip"
