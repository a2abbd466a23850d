#!/bin/sh
# kit_soak.sh BUILD HOURS: a soak of the kit; its figures, a chart and what the recorder kept are in BUILD/soak.
set -eu
folder=$1/soak
mkdir -p "$folder"
status=0
{
  "$1/tests/bin/kit_soak" "$(awk "BEGIN { print $2 * 3600 }")" "$folder" || echo $? >"$folder/status"
} | tee "$folder/figures"
[ ! -f "$folder/status" ] || {
  status=$(cat "$folder/status")
  rm "$folder/status"
}
python3 -B tests/soak/chart <"$folder/figures" >"$folder/chart.svg"
echo "figures and chart are in $folder"
exit "$status"
