#!/bin/sh
# The library exports exactly the names its public header declares with GK_API.
set -eu
lib=$1 header=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
grep 'GK_API' "$header" | grep -v '#define' |
  sed -E 's/\(.*//; s/\[.*//; s/;.*//; s/.*[ *]([A-Za-z_][A-Za-z0-9_]*)[[:space:]]*$/\1/' |
  sort -u >"$tmp/expected"
nm -D --defined-only "$lib" | awk '{print $3}' |
  grep -vE '^(_init|_fini|__bss_start|_edata|_end)$' | sort -u >"$tmp/actual"
if ! diff -u "$tmp/expected" "$tmp/actual"; then
  echo "exported symbols differ from the header (- missing, + extra)" >&2
  exit 1
fi
echo "$(wc -l <"$tmp/actual") exported names match the header"
