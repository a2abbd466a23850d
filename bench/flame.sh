#!/bin/sh
# flame.sh BUILD SVG: samples the road of a command without the RPC, and draws where its time goes.
set -eu
samples=$(mktemp "${TMPDIR:-/tmp}/norv-flame-XXXXXX")
trap 'rm -f "$samples" "$samples.txt"' EXIT
perf record --quiet --event cpu-clock:u --freq 1999 --call-graph dwarf,16384 --output "$samples" \
  "$1/bin/road_bench" --benchmark_filter=RoadWithoutTheRpc/100 --benchmark_min_time=2
perf script --input "$samples" --fields ip,sym --no-inline 2>"$samples.txt" |
  python3 bench/flame RoadWithoutTheRpc >"$2.new" || {
  rm -f "$2.new"
  cat "$samples.txt" >&2
  exit 1
}
mv "$2.new" "$2"
echo "wrote $2"
