#!/bin/sh
# The library's example against a stand-in for the daemon. Usage: embed_test.sh PROGRAM STANDIN
set -u
program=$1
standin=$2
folder=$(mktemp -d) || exit 1
pid=
trap '[ -n "$pid" ] && kill "$pid"; rm -rf "$folder"' EXIT
fail() { echo "FAILED: $*"; exit 1; }

# The first line comes through the pipe as soon as the daemon listens.
mkfifo "$folder/ready" || exit 1
"$standin" --listen 127.0.0.1:0 >"$folder/ready" &
pid=$!
read -r line <"$folder/ready" || fail "the stand-in does not start"
"$program" "${line##*:}" >"$folder/out" 2>"$folder/err" || fail "it ends with $?: $(cat "$folder/err")"
grep -q '^the daemon says: .' "$folder/out" || fail "unexpected output: $(cat "$folder/out")"
[ -s "$folder/err" ] && fail "a word on standard error: $(cat "$folder/err")"
exit 0
