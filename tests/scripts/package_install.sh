#!/usr/bin/env bash
# What a packager sees: the tool installed into a staging root with DESTDIR,
# and the .deb of `make package` unpacked with dpkg-deb -x. In both the tool
# runs from there, finds the module and the image library installed beside
# it (no build path in it), gives the build's own result, and its man page
# renders.
#   package_install.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
src=$1 bin=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
status=0
fail() { echo "FAIL: $*"; status=1; }

"$bin/mendaris" -q --keep-alpha "$src/examples/atlas.png" "$tmp/expected.png"

check_tree() {  # check_tree WHAT PREFIX
  local what=$1 prefix=$2
  for f in bin/mendaris lib/mendaris/MendarisK.so lib/mendaris/mendaris_images.so share/man/man1/mendaris.1 share/doc/mendaris/copyright; do
    [ -f "$prefix/$f" ] || fail "$what: no $f"
  done
  grep -qF "$src" "$prefix/bin/mendaris" && fail "$what: the tool holds a build path"
  local help
  help=$("$prefix/bin/mendaris" --help)
  for module in MendarisK.so mendaris_images.so; do
    grep -qxF "  $prefix/lib/mendaris/$module" <<<"$help" || fail "$what: --help does not name the installed $module"
  done
  rm -f "$tmp/out.png"
  "$prefix/bin/mendaris" -q --keep-alpha "$src/examples/atlas.png" "$tmp/out.png" &&
    cmp -s "$tmp/expected.png" "$tmp/out.png" || fail "$what: the installed tool's output differs from the build's"
  "$prefix/bin/mendaris" -q "$src/examples/atlas.png" "$tmp/out.tif" || fail "$what: no TIFF through the image library"
  local page warnings
  page=$(MANWIDTH=80 man -l "$prefix/share/man/man1/mendaris.1" 2>"$tmp/man.err")
  warnings=$(cat "$tmp/man.err")
  grep -q "^SYNOPSIS" <<<"$page" && grep -q -- "--keep-alpha" <<<"$page" && [ -z "$warnings" ] ||
    fail "$what: the man page does not render: $warnings"
  [ $status -eq 0 ] && echo "OK: $what"
  return 0
}

DESTDIR="$tmp/staging" cmake --install "$bin" --prefix /opt/mendaris >/dev/null
check_tree "make install into a staging root" "$tmp/staging/opt/mendaris"

debs=("$src"/build/package/mendaris_*.deb)
if [ ! -f "${debs[0]}" ] || [ ${#debs[@]} -ne 1 ]; then
  echo "FAIL: no single build/package/mendaris_*.deb (make package makes it)"; exit 1
fi
deb=${debs[0]}
depends=$(dpkg-deb -f "$deb" Depends)
for lib in libopenimageio libc6 libstdc++6; do
  grep -q "$lib" <<<"$depends" || fail "the package does not depend on $lib: $depends"
done
grep -q libgimp <<<"$depends" && fail "the package depends on GIMP: $depends"
dpkg-deb -c "$deb" | awk '{print $6}' | grep -v '^\./usr/' | grep -v '^\./$' && fail "the package has files outside /usr"
dpkg-deb -c "$deb" | grep -q '/gimp/' && fail "the package holds the GIMP plug-in"
dpkg-deb -x "$deb" "$tmp/deb"
check_tree "the .deb unpacked" "$tmp/deb/usr"
exit $status
