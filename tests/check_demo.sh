#!/bin/sh
# Runs the demo scenario in its own sandbox and checks the lines that show each
# role at work: creation by cmdbd, the daemons' events with old and new values,
# reads by key and by domain, writes refused while cmdbd is down and the
# configuration intact after it was killed, the store's revisions, and the
# registration table before and after the daemons.
set -u
cmdbctl=$1
demo=$2
out=$("$cmdbctl" sandbox -- sh "$demo" "$cmdbctl" 2>&1)
status=$?
fail=0
if [ $status -ne 0 ]; then
  echo "the demo exited with $status"
  fail=1
fi
while IFS= read -r line; do
  [ -z "$line" ] && continue
  if ! printf '%s\n' "$out" | grep -qxF -- "$line"; then
    echo "missing: $line"
    fail=1
  fi
done <<'LINES'
cmdbd: created the region in /dev/cmdb/ from appliance.json: total_node=53 <= 1605, 748,492, node_size=2192, sql=85, ds=164, max_gid=1861
[firewalld] watching policy, address, policy.rule
[sysd] watching system, interface
[firewalld] insert address[dns-servers] in global: name=dns-servers subnet=192.0.2.53 mask=255.255.255.255 comment=shared by all domains
[firewalld] insert policy.rule[20] in east: seq=20 source=0.0.0.0 destination=10.1.0.0 port=80 protocol=6 action=1 address_object=0
[firewalld] insert policy[lab-out] in west: name=lab-out action=1 enabled=1 priority=20 schedule=0 comment=
[sysd] update system in global: hostname appliance -> fw-demo, timezone UTC -> Europe/Paris
[sysd] insert interface[2] in global: index=2 name=eth1 mtu=9000 enabled=1 address=198.51.100.1 netmask=255.255.255.0 description=storage
[firewalld] update policy[allow-web] in east: action 1 -> 0, comment clients to the web farm -> paused for the audit
[firewalld] update address[lab] in west: subnet 10.2.0.0 -> 10.20.0.0
[firewalld] delete policy[lab-out] in west: name=lab-out action=1 enabled=1 priority=20 schedule=0 comment=
[sysd] update system in global: hostname fw-demo -> fw-demo-02
[sysd] insert interface[3] in global: index=3 name=eth2 mtu=1500 enabled=1 address=203.0.113.1 netmask=255.255.255.0 description=
fw-demo-02
9000
10.20.0.0
allow-web       0        1        10         0  paused for the audit  3 entries
version       8
cmdbctl: cmdbd is not running: start it, or write with --direct, which is not saved
set system (revision 8)
[sysd] update system in global: timezone Europe/Paris -> UTC
1|0|cmdbctl load examples/demo-config.json|16 changes
7|0|cmdbctl delete --domain west policy[lab-out]|1 changes
cmdbd: stopping at revision 8
events on, 5 objects registered
events on, 0 objects registered
LINES
if [ $fail -ne 0 ]; then
  printf '\n--- demo output ---\n%s\n' "$out"
  exit 1
fi
