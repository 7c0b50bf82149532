#!/bin/sh
# What the library is for, in a few seconds: an owner creates the region, two
# daemons listen for changes, a writer loads and changes configuration, a
# command-line reader looks entries up. Runs inside a private sandbox:
#   cmdbctl sandbox -- sh examples/demo.sh path/to/cmdbctl
set -eu
C=${1:-build/cmdbctl}
here=$(cd "$(dirname "$0")" && pwd)
logs=$(mktemp -d)

if [ -t 1 ]; then bold=$(printf '\033[1m') plain=$(printf '\033[0m'); else bold='' plain=''; fi
step() { printf '\n%s== %s%s\n' "$bold" "$*" "$plain"; }
run() { printf '$ cmdbctl %s\n' "$*"; "$C" "$@"; }

# Prints what the daemons logged since the last call, once they have been
# quiet for a moment (events travel asynchronously).
shown_fw=0
shown_sys=0
show_events() {
  prev=-1 quiet=0 i=0
  while [ $i -lt 50 ] && [ $quiet -lt 3 ]; do
    cur=$(cat "$logs/firewalld" "$logs/sysd" | wc -l)
    if [ "$cur" -eq "$prev" ]; then quiet=$((quiet + 1)); else quiet=0; fi
    prev=$cur i=$((i + 1))
    sleep 0.1
  done
  tail -n +$((shown_fw + 1)) "$logs/firewalld"
  tail -n +$((shown_sys + 1)) "$logs/sysd"
  shown_fw=$(wc -l <"$logs/firewalld")
  shown_sys=$(wc -l <"$logs/sysd")
}

step "The owner creates the region from examples/appliance.json"
run create --schema "$here/appliance.json"

step "Two daemons register for changes and poll their event sockets"
"$C" watch --name firewalld policy address policy.rule >"$logs/firewalld" &
fw=$!
"$C" watch --name sysd system interface >"$logs/sysd" &
sys=$!
trap 'kill -TERM $fw $sys 2>/dev/null || true' EXIT
i=0
until grep -q watching "$logs/firewalld" 2>/dev/null && grep -q watching "$logs/sysd" 2>/dev/null; do
  i=$((i + 1))
  [ $i -lt 100 ] || { echo "demo: the daemons did not start" >&2; exit 1; }
  sleep 0.05
done
show_events

step "A writer loads a configuration: the global context and the domains east and west"
run load "$here/demo-config.json"
show_events

step "The writer changes a few entries; the daemons hear of each change"
run set system hostname=fw-demo-02
run set --domain east 'policy[allow-web]' action=0 'comment=paused for the audit'
run set --domain east 'policy[allow-web].rule[30]' destination=10.1.0.0 port=8443
run set --domain west 'address[lab]' subnet=10.20.0.0
run set 'interface[3]' name=eth2 address=203.0.113.1
run delete --domain west 'policy[lab-out]'
show_events

step "A command-line process reads entries by key and by domain"
run get system.hostname
run get 'interface[2].mtu'
run get --domain west 'address[lab].subnet'
run get --domain east policy
run get --domain east 'policy[allow-web]'

step "What the region looks like now"
run info
run pages
run locks
run events

step "The daemons stop on SIGTERM and leave the registration table"
kill -TERM $fw $sys
wait $fw $sys
trap - EXIT
run events
rm -rf "$logs"
