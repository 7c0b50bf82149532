#!/usr/bin/env python3
"""A daemon that keeps a firewall in step with the policies of one domain:
it reads them all at start, then applies each change as it arrives."""
import sys

import gikraidrum

domain = sys.argv[1] if len(sys.argv) > 1 else "east"
with gikraidrum.Region() as region, region.watch("policy", "policy.rule", domain=domain) as changes:
    for policy in region.get("policy", domain):
        print("policy %s: action %s, %d rules" % (policy["name"], policy["action"], len(policy.get("rule", []))))
    print("watching the policies of %s" % domain, flush=True)
    for c in changes:
        if c["event"] == "delete":
            print("%s %s removed" % (c["object"], c["key"]), flush=True)
        else:
            changed = {k: v for k, v in c["new"].items() if c.get("old", {}).get(k) != v}
            print("%s %s %s: %s" % (c["object"], c["key"], c["event"], changed), flush=True)
