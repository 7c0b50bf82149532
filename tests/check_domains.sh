#!/bin/sh
# cmdbctl domain and verify as a user runs them, in a sandbox of their own:
# each step's exit status and the line it must print; then a damaged domain
# table, which verify names and exits 1 on.
set -u
cmdbctl=$1
src=$2
out=$("$cmdbctl" sandbox -- sh -c '
  C=$1 src=$2
  step() { want=$1; shift; printf "%s\n" "$ $*"; "$C" "$@"; printf "status %s want %s\n" $? "$want"; }
  "$C" create --schema "$src/examples/appliance.json" >/dev/null
  "$C" load "$src/examples/demo-config.json" >/dev/null
  step 0 domain add north --id 9
  step 0 domain rename north Nord
  step 1 domain add nord
  step 1 domain add global
  step 2 domain frob
  step 0 domain list
  step 0 domain remove Nord
  step 0 verify
  printf "\007\000\000\000" | dd of=/dev/cmdb/domain bs=1 seek=8 conv=notrunc 2>/dev/null
  step 1 verify
' sh "$cmdbctl" "$src" 2>&1)
fail=0
if printf '%s\n' "$out" | grep "^status" | grep -vq "^status \([0-9]*\) want \1$"; then fail=1; fi
while IFS= read -r line; do
  printf '%s\n' "$out" | grep -qxF -- "$line" || { echo "missing: $line"; fail=1; }
done <<'LINES'
added domain north (id 9)
renamed domain north to Nord
cmdbctl: domain name nord is taken
cmdbctl: 'global' names the global context, not a domain
cmdbctl: domain: 'frob' is not list, add, rename or remove
 9  Nord      0x00020004         0
removed domain Nord (id 9)
the region is sound: 8 tables, 12 entries, 2 domains, 26 blocks
fault: domain indexes: slot 2 names no record or one named before
LINES
if [ $fail -ne 0 ]; then
  printf '\n--- output ---\n%s\n' "$out"
  exit 1
fi
