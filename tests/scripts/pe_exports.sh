#!/usr/bin/env bash
# The Windows modules: right machine type, PluginMain exported undecorated and
# nothing else, and no runtime DLL beside the system's.
#   pe_exports.sh SOURCE_DIR BUILD_DIR [X64_FILE X86_FILE]
set -euo pipefail
src=$1
status=0
check() {
  local file=$1 objdump=$2 machine=$3
  local dump
  dump=$("$objdump" -p "$file")
  if ! grep -q "^architecture: *$machine\|file format $machine" <<<"$($objdump -f "$file")"; then
    echo "FAIL: $file is not $machine"; status=1
  fi
  local names
  names=$(awk '/\[Ordinal\/Name Pointer\] Table/{f=1;next} f&&/^[ \t]*\[/{print $NF;next} f{f=0}' <<<"$dump")
  if [ "$names" != "PluginMain" ]; then
    echo "FAIL: $file exports: $names"; status=1
  fi
  local dlls
  dlls=$(grep "DLL Name:" <<<"$dump" | awk '{print tolower($3)}' | sort | tr '\n' ' ')
  for dll in $dlls; do
    case $dll in
      kernel32.dll|user32.dll|gdi32.dll|shell32.dll|msvcrt.dll|advapi32.dll|comctl32.dll) ;;
      *) echo "FAIL: $file needs $dll at load time"; status=1 ;;
    esac
  done
  [ $status -eq 0 ] && echo "OK: $file ($machine) exports PluginMain only; imports: $dlls"
}
check "${3:-$src/build/win64/MendarisK.8bf}" x86_64-w64-mingw32-objdump pei-x86-64
check "${4:-$src/build/win32/MendarisK.8bf}" i686-w64-mingw32-objdump pei-i386
exit $status
