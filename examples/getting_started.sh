#!/bin/sh
# The steps of docs/getting-started.md in order, inside a private sandbox:
#   cmdbctl sandbox -- sh examples/getting_started.sh BUILD_DIR/examples
set -eu
bin=$1
here=$(cd "$(dirname "$0")" && pwd)
"$bin/owner" create "$here/appliance.json"
"$bin/receiver" 1 >/tmp/receiver.out &
receiver=$!
i=0
until grep -q listening /tmp/receiver.out; do i=$((i + 1)); [ $i -lt 200 ] || exit 1; sleep 0.05; done
"$bin/owner" insert 1 eth0
wait $receiver
cat /tmp/receiver.out
"$bin/reader" 1
