"""python3 -m gikraidrum get PATH [--domain D] | dump [--domain D]"""

import argparse
import json
import sys

from . import Error, Region


def main(argv=None) -> int:
    p = argparse.ArgumentParser(prog="python3 -m gikraidrum", description="Read the configuration database.")
    p.add_argument("--schema", help="schema file (default: the copy beside the region)")
    sub = p.add_subparsers(dest="command", required=True)
    g = sub.add_parser("get", help="what a path names, as JSON")
    g.add_argument("path")
    g.add_argument("--domain")
    d = sub.add_parser("dump", help="the whole configuration, or one domain's")
    d.add_argument("--domain")
    a = p.parse_args(argv)
    try:
        with Region(a.schema) as r:
            v = r.get(a.path, a.domain) if a.command == "get" else r.dump(a.domain)
    except Error as e:
        print("gikraidrum: %s" % e, file=sys.stderr)
        return 1
    print(v if isinstance(v, str) else json.dumps(v, indent=2))
    return 0


if __name__ == "__main__":
    sys.exit(main())
