#!/bin/sh
# manual_test.sh PROGRAM PAGE [COMMAND...]: the manual page of a program has the options that the program and its
# commands tell of themselves, and no others; and it is well-formed where groff is there to say so.
set -eu
program=$1
page=$2
shift 2
folder=$(mktemp -d "${TMPDIR:-/tmp}/norv-manual-XXXXXX")
trap 'rm -rf "$folder"' EXIT

options() { grep -oE -- '(^|[ ,])--[a-z][a-z-]*' | tr -d ' ,' | sort -u; }
for command in '' "$@"; do
  "$program" ${command:+"$command"} --help
done >"$folder/said"
# The options' own lines alone.
sed -n 's/^  \(-.*\)/\1/p' "$folder/said" | options >"$folder/program"
grep -A1 '^\.TP' "$page" | sed 's/\\-/-/g; s/"//g' | grep -E '^\.B[RI]? -' | options >"$folder/page"
[ -s "$folder/program" ] || {
  echo "$program tells of no option" >&2
  exit 1
}
diff "$folder/program" "$folder/page" || {
  echo "the lines with < are told by $program alone, those with > by $page" >&2
  exit 1
}
for command in "$@"; do
  sed 's/\\-/-/g' "$page" | grep -q "^\.B ${program##*/} $command" || {
    echo "$page does not show how to use ${program##*/} $command" >&2
    exit 1
  }
done
if command -v groff >"$folder/log"; then
  groff -man -Tutf8 -ww "$page" 2>&1 >"$folder/shown" | tee "$folder/warnings" >&2
  [ ! -s "$folder/warnings" ]
fi
