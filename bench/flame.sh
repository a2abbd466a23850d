#!/bin/sh
# flame.sh BUILD SVG: samples the road of a command without the RPC, and draws where its time goes.
set -eu
samples=$(mktemp -d "${TMPDIR:-/tmp}/norv-flame-XXXXXX")
trap 'rm -rf "$samples"' EXIT
perf record --quiet --event cpu-clock:u --freq 1999 --call-graph dwarf,16384 --output "$samples/perf" \
  "$1/bin/road_bench" --benchmark_filter=RoadWithoutTheRpc/100 --benchmark_min_time=2
perf script --input "$samples/perf" --fields ip,sym --no-inline >"$samples/stacks" 2>"$samples/said" || {
  cat "$samples/said" >&2
  exit 1
}
python3 bench/flame RoadWithoutTheRpc <"$samples/stacks" >"$2.new" || {
  rm -f "$2.new"
  exit 1
}
mv "$2.new" "$2"
echo "wrote $2"
