#!/bin/sh
# The program: bessd-standin's words, its end by signal, and its refusals. Usage:
# program_test.sh PROGRAM
set -u
program=$1
folder=$(mktemp -d) || exit 1
trap 'rm -rf "$folder"' EXIT
fail() { echo "FAILED: $*"; exit 1; }

"$program" --help | grep -q -- --listen || fail "--help does not name --listen"
"$program" --version | grep -q '^bessd-standin ' || fail "--version does not name the program"
"$program" --listen nowhere 2>"$folder/err" && fail "a bad address is taken"
[ "$(wc -l <"$folder/err")" -eq 1 ] || fail "not one line about a bad address: $(cat "$folder/err")"
"$program" --latency 5..x 2>"$folder/err" && fail "a latency that is none is taken"
grep -q "5..20" "$folder/err" || fail "no word about what a latency is: $(cat "$folder/err")"
"$program" --rate -1 2>/dev/null && fail "a negative rate is taken"
"$program" --fly 2>/dev/null && fail "an unknown option is taken"

# The first line comes through the pipe as soon as the daemon listens.
mkfifo "$folder/out" || exit 1
"$program" --listen 127.0.0.1:0 >"$folder/out" &
pid=$!
read -r line <"$folder/out"
case $line in
  "bessd-standin listening on 127.0.0.1:"[1-9]*) ;;
  *) fail "unexpected first line: $line" ;;
esac
"$program" --listen "${line##* }" 2>"$folder/err" && fail "an address in use is taken"
[ "$(wc -l <"$folder/err")" -eq 1 ] || fail "not one line about it: $(cat "$folder/err")"
grep -q "${line##* }" "$folder/err" || fail "no word about the address in use"
kill -TERM "$pid"
wait "$pid" || fail "SIGTERM ends it with $?"
