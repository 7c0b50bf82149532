#!/bin/sh
# The library exports exactly the names its public header declares with GK_API,
# and every platform interface (the header's last section) as a weak definition
# that a host can replace.
set -eu
lib=$1 header=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
names() {  # the declared name of each GK_API line on standard input
  grep 'GK_API' | grep -v '#define' |
    sed -E 's/\(.*//; s/\[.*//; s/;.*//; s/.*[ *]([A-Za-z_][A-Za-z0-9_]*)[[:space:]]*$/\1/' | sort -u
}
names <"$header" >"$tmp/expected"
sed -n '/Platform interfaces/,$p' "$header" | names >"$tmp/platform"
[ -s "$tmp/platform" ] || { echo "no platform section found in $header" >&2; exit 1; }
nm -D --defined-only "$lib" | awk 'NF == 3 {print $3, $2}' |
  grep -vE '^(_init|_fini|__bss_start|_edata|_end) ' | sort -u >"$tmp/nm"
cut -d' ' -f1 "$tmp/nm" | sort -u >"$tmp/actual"
status=0
if ! diff -u "$tmp/expected" "$tmp/actual"; then
  echo "exported symbols differ from the header (- missing, + extra)" >&2
  status=1
fi
while read -r name; do
  type=$(awk -v n="$name" '$1 == n {print $2}' "$tmp/nm")
  if [ "$type" != W ]; then
    echo "platform interface $name is exported as '${type:-nothing}', not as a weak definition" >&2
    status=1
  fi
done <"$tmp/platform"
[ $status -eq 0 ] || exit 1
echo "$(wc -l <"$tmp/actual") exported names match the header; $(wc -l <"$tmp/platform") platform defaults are weak"
