#!/bin/sh
# What the library is for, in a few seconds: the owner daemon cmdbd creates the
# region, two daemons listen for changes, configuration is loaded and changed
# through cmdbd, a command-line reader looks entries up, and cmdbd is killed and
# started again with nothing lost. Runs inside a private sandbox:
#   cmdbctl sandbox -- sh examples/demo.sh path/to/cmdbctl [path/to/cmdbd]
set -eu
C=${1:-build/cmdbctl}
D=${2:-$(dirname "$C")/cmdbd}
D=$(cd "$(dirname "$D")" && pwd)/$(basename "$D")
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

# cmdbd runs in the background; its log lines show when it has one.
start_cmdbd() {
  (cd "$here" && exec "$D" --schema appliance.json --write-group 0 ${DEMO_CMDBD_OPTIONS:-} 2>>"$logs/cmdbd") &
  cmdbd=$!
  i=0
  until "$C" status >/dev/null 2>&1; do
    i=$((i + 1))
    [ $i -lt 100 ] || { cat "$logs/cmdbd" >&2; echo "demo: cmdbd did not start" >&2; exit 1; }
    sleep 0.05
  done
  tail -n +$((shown_cmdbd + 1)) "$logs/cmdbd"
  shown_cmdbd=$(wc -l <"$logs/cmdbd")
}
shown_cmdbd=0

step "The owner daemon cmdbd creates the region from examples/appliance.json"
printf '$ cmdbd --schema examples/appliance.json &\n'
start_cmdbd
run status

step "Two daemons register for changes and poll their event sockets"
"$C" watch --name firewalld policy address policy.rule >"$logs/firewalld" &
fw=$!
"$C" watch --name sysd system interface >"$logs/sysd" &
sys=$!
trap 'kill -TERM $fw $sys $cmdbd 2>/dev/null || true' EXIT
i=0
until grep -q watching "$logs/firewalld" 2>/dev/null && grep -q watching "$logs/sysd" 2>/dev/null; do
  i=$((i + 1))
  [ $i -lt 100 ] || { echo "demo: the daemons did not start" >&2; exit 1; }
  sleep 0.05
done
show_events

step "A writer loads a configuration through cmdbd: the global context and the domains east and west"
run load "$here/demo-config.json"
show_events

step "The writer changes a few entries; each is a revision, and the daemons hear of it"
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

step "cmdbd is killed with SIGKILL: writes are refused until it is back"
kill -KILL $cmdbd
wait $cmdbd 2>/dev/null || true
run set system hostname=lost || true

step "cmdbd starts again: the configuration is intact, the daemons still attached"
printf '$ cmdbd --schema examples/appliance.json &\n'
start_cmdbd
run get system.hostname
run get --domain east 'policy[allow-web].comment'
run set system timezone=UTC
show_events

step "The revisions in cmdbd's store"
printf '$ sqlite3 /var/lib/cmdb/cmdb.sqlite "SELECT rev, uid, command, changes ... FROM revisions"\n'
sqlite3 /var/lib/cmdb/cmdb.sqlite "SELECT rev, uid, replace(replace(command, '$C ', 'cmdbctl '), '$here/', 'examples/'),
  json_array_length(changes) || ' changes' FROM revisions ORDER BY rev"

step "What the region looks like now"
run info
run pages
run locks
run events

step "The daemons and cmdbd stop on SIGTERM; the daemons leave the registration table"
kill -TERM $fw $sys
wait $fw $sys
kill -TERM $cmdbd
wait $cmdbd
trap - EXIT
tail -n +$((shown_cmdbd + 1)) "$logs/cmdbd"
run events
rm -rf "$logs"
