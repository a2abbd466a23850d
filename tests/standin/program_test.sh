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

# What holds requests is its owner's, whatever the umask, and goes through no stranger's link.
(
  umask 0
  exec "$program" --listen 127.0.0.1:0 --control 127.0.0.1:0 --log "$folder/log" >"$folder/out"
) &
pid=$!
{
  read -r _
  read -r line
} <"$folder/out"
control=${line##* }
(umask 0 && "$program" ctl "$control" dump "$folder/dump") || fail "no dump: $line"
[ "$(stat -c %a "$folder/log" "$folder/dump")" = "600
600" ] || fail "others may read $(ls -l "$folder/log" "$folder/dump")"
"$program" ctl "$control" dump /dev/stdout >"$folder/out2" || fail "no dump to /dev/stdout"
cmp "$folder/dump" "$folder/out2" || fail "another dump to /dev/stdout"
if [ "$(id -u)" -eq 0 ]; then
  for mode in 1777 777; do
    mkdir "$folder/common" && chmod "$mode" "$folder/common"
    echo "of importance" >"$folder/target"
    ln -s "$folder/target" "$folder/common/link" && chown -h 65534 "$folder/common/link"
    echo "of somebody" >"$folder/common/file" && chown 65534 "$folder/common/file"
    for name in link file; do
      "$program" ctl "$control" dump "$folder/common/$name" 2>"$folder/err" && fail "dumped into a $name of somebody"
      grep -q "$name is a $name that somebody else has put where everybody may write; remove it" "$folder/err" ||
        fail "no word about the $name: $(cat "$folder/err")"
      "$program" --listen 127.0.0.1:0 --log "$folder/common/$name" >/dev/null 2>"$folder/err" &&
        fail "logged into a $name of somebody"
      grep -q "$name is a $name that somebody else has put where everybody may write; remove it" "$folder/err" ||
        fail "no word about the $name: $(cat "$folder/err")"
    done
    [ "$(cat "$folder/target" "$folder/common/file")" = "of importance
of somebody" ] || fail "somebody's link or file was written through"
    rm -r "$folder/common"
  done
else
  echo "skipped what somebody else has put in the way: only root gives files away"
fi
kill -TERM "$pid"
wait "$pid" || fail "SIGTERM ends it with $?"
