#!/usr/bin/env bash
# Makes the man page mendaris(1) from the README's manual, its one source:
# the section "The command-line tool: mendaris(1)", with its headings raised
# one level, through go-md2man.
#   manpage.sh README.md VERSION OUT
set -euo pipefail
readme=$1 version=$2 out=$3
{
  printf '%% MENDARIS 1 "" "Mendaris K %s" "User Commands"\n\n' "$version"
  awk '/^## The command-line tool: mendaris\(1\)/{f=1;next} f&&/^## /{f=0} f' "$readme" | sed -E 's/^##(#+) /\1 /'
} > "$out.md"
go-md2man -in "$out.md" -out "$out.tmp"
# go-md2man 2.0.2 ends a table's text block on a line of its own, which
# tbl takes for a new row: join it to the cell after it.
perl -0pe 's/^T\}\n\t/T}\t/mg' "$out.tmp" > "$out"
rm -f "$out.md" "$out.tmp"
grep -q '^\.SH NAME' "$out" || { echo "manpage.sh: no manual found in $readme" >&2; rm -f "$out"; exit 1; }
