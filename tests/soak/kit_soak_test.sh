#!/bin/sh
# kit_soak_test.sh KIT_SOAK: a soak of some seconds; it has met commands of every outcome, and what came of each is
# known.
set -eu
folder=$(mktemp -d "${TMPDIR:-/tmp}/norv-soak-XXXXXX")
trap 'rm -rf "$folder"' EXIT
status=0
"$1" 12 "$folder" >"$folder/figures" || status=$?
cat "$folder/figures"
[ "$status" -eq 0 ]
tail -n 1 "$folder/figures" | {
  read -r _ ok refused failed undecodable dropped _
  for count in "$ok" "$refused" "$failed" "$undecodable" "$dropped"; do [ "$count" -gt 0 ]; done
}
