#!/usr/bin/env bash
# Opens the 64-bit module's About box under Wine on a virtual display, checks
# where it stands and what it shows, saves a picture of it to
# build/about_box.png, and closes it. Then shows REFUSAL1 through the module's
# own dialog code, and checks that asking for REFUSAL3 (which does not exist)
# opens nothing and returns at once.
#
#   tests/scripts/wine_about_box.sh SOURCE_DIR BUILD_DIR
#
# Needs build/win64/MendarisK.8bf (the Windows build), the x86-64 MinGW
# compiler and resource compiler, wine and xvfb-run. The helper programs are
# cross-built into BUILD_DIR/wine_dialogs; the Wine prefix lives in
# BUILD_DIR/wineprefix and is made on the first run. The pictures are taken by
# the helpers themselves (a GDI screen grab written as PNG), so no screenshot
# tool is needed. Exit status 0 only if every dialog opened (or stayed shut)
# as expected and closed again.
set -u

src=$(cd "${1:?source dir}" && pwd)
build=$(mkdir -p "${2:?build dir}" && cd "$2" && pwd)
module="$src/build/win64/MendarisK.8bf"
work="$build/wine_dialogs"
picture="$src/build/about_box.png"

fail() {
  echo "wine_about_box: $*" >&2
  exit 1
}

[ -f "$module" ] || fail "$module is missing: build the Windows module first"
for tool in x86_64-w64-mingw32-g++-posix x86_64-w64-mingw32-windres wine wineboot wineserver xvfb-run; do
  command -v "$tool" >/dev/null 2>&1 || fail "$tool is not installed"
done

mkdir -p "$work" "$src/build" || fail "cannot make $work"
rm -f "$picture" "$work"/*.png

# The maker's page as the build set it (one setting, in CMakeLists.txt).
page=$(sed -n 's/^MENDARIS_MAKER_PAGE:STRING=//p' "$2/CMakeCache.txt" 2>/dev/null)
[ -n "$page" ] || fail "no MENDARIS_MAKER_PAGE in $2/CMakeCache.txt"
cxx=(x86_64-w64-mingw32-g++-posix -std=c++17 -O2 -Wall -Wextra -I"$src" -DMENDARIS_MAKER_PAGE="\"$page\""
     -static -static-libgcc -static-libstdc++)
"${cxx[@]}" -o "$work/show_about.exe" "$src/tools/show_about.cpp" "$src/host/dialog_layout.cpp" -luser32 -lgdi32 ||
  fail "cannot build show_about.exe"
x86_64-w64-mingw32-windres -DMENDARIS_WIN64=1 "$src/resources/mendaris_k.rc" -O coff -o "$work/resources64.o" ||
  fail "cannot compile the resource script"
"${cxx[@]}" -o "$work/show_refusal.exe" "$src/tools/show_refusal.cpp" "$src/platform/dialogs_win32.cpp" \
  "$src/host/dialog_layout.cpp" "$work/resources64.o" -luser32 -lgdi32 -lshell32 ||
  fail "cannot build show_refusal.exe"

export WINEPREFIX="$build/wineprefix"
export WINEARCH=win64
export WINEDEBUG=-all
# No Mono or Gecko installers: nothing here needs them, and they would ask.
export WINEDLLOVERRIDES="mscoree,mshtml="

# Windows programs see the Unix file system as drive Z:.
winpath() { printf 'Z:%s' "$1"; }

cat >"$work/run.sh" <<EOF
set -u
status=0
if [ ! -f "$WINEPREFIX/system.reg" ]; then
  echo "making the Wine prefix $WINEPREFIX"
  timeout 300 wineboot -i >/dev/null 2>&1
  timeout 120 wineserver -w
fi
echo "--- About box of $module"
timeout 120 wine "$work/show_about.exe" "$(winpath "$module")" "$(winpath "$picture")" || status=1
echo "--- REFUSAL1"
timeout 120 wine "$work/show_refusal.exe" REFUSAL1 "Needs Transparency" "$(winpath "$work/refusal1.png")" || status=1
echo "--- REFUSAL3"
timeout 120 wine "$work/show_refusal.exe" REFUSAL3 - || status=1
wineserver -k >/dev/null 2>&1
exit \$status
EOF

# A loaded machine can keep a window from appearing in time: a real fault
# fails twice.
for attempt in 1 2; do
  xvfb-run -a -s "-screen 0 1280x1024x24" bash "$work/run.sh" 2>&1 | tr -d '\r'
  status=${PIPESTATUS[0]}
  [ "$status" -eq 0 ] && break
  echo "wine_about_box: attempt $attempt failed"
done
if [ "$status" -ne 0 ]; then
  echo "wine_about_box: FAILED" >&2
  exit 1
fi
[ -s "$picture" ] || fail "no picture at $picture"
echo "wine_about_box: passed; picture of the About box at $picture"
exit 0
