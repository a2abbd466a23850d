#!/bin/sh
# listing_test.sh PROGRAM STANDIN FAULT LINE...: runs the program with the port of a stand-in that has the
# fault, if one is given; its output has the lines, in this order, each at the beginning of one.
set -eu
program=$1
standin=$2
fault=$3
shift 3
folder=$(mktemp -d "${TMPDIR:-/tmp}/norv-listing-XXXXXX")
"$standin" --listen 127.0.0.1:0 ${fault:+--fault "$fault"} >"$folder/address" &
daemon=$!
trap 'kill $daemon; rm -rf "$folder"' EXIT
until [ -s "$folder/address" ]; do kill -0 $daemon; done
"$program" "$(sed 's/.*://' "$folder/address")" >"$folder/output"
cat "$folder/output"
from=1
for line in "$@"; do
  at=$(tail -n "+$from" "$folder/output" | grep -n -F -- "$line" | grep -m 1 "^[0-9]*:$line" | cut -d : -f 1) || true
  [ -n "$at" ] || {
    echo "no line begins with: $line" >&2
    exit 1
  }
  from=$((from + at))
done
