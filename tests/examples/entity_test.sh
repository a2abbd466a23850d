#!/bin/sh
# The framework's example: what its reactor and the access by name print. Usage: entity_test.sh PROGRAM
set -u
out=$("$1") || { echo "FAILED: it ends with $?"; exit 1; }
for line in "tomatoes is at 25 degrees" "tomatoes is at 35 degrees" "  above its limit!"; do
  [ "$(printf '%s\n' "$out" | grep -cxF -- "$line")" -eq 1 ] || {
    echo "FAILED: not once: $line"
    printf '%s\n' "$out"
    exit 1
  }
done
printf '%s\n' "$out" | grep -q '^degrees (.*): 35$' || {
  echo "FAILED: degrees are not read by name"
  printf '%s\n' "$out"
  exit 1
}
