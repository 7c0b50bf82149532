"""The Python module and the C reads under it, against cmdbctl and cmdbd.

Run inside a sandbox (a private region), with CMDBCTL, CMDBD, GK_SOURCE_DIR
and GIKRAIDRUM_CLIENT_LIB set, as ctest does."""

import ctypes
import json
import os
import subprocess
import time
import unittest

import gikraidrum

CMDBCTL, CMDBD, SRC = os.environ["CMDBCTL"], os.environ["CMDBD"], os.environ["GK_SOURCE_DIR"]
SCHEMA = SRC + "/examples/appliance.json"


def ctl(*args: str) -> str:
    return subprocess.run([CMDBCTL, *args], check=True, capture_output=True, text=True).stdout


def paths(element: dict, at: str):
    """Every object, entry, table and attribute path under a dumped element."""
    for name, v in element.items():
        p = at + name
        if isinstance(v, list):
            yield p
            for entry in v:
                key = next(iter(entry.values()))  # the key comes first in schema order
                yield from paths(entry, "%s[%s]." % (p, key))
                yield "%s[%s]" % (p, key)
        elif isinstance(v, dict):
            yield p
            yield from paths(v, p + ".")
        else:
            yield p


class ReadTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls) -> None:
        ctl("create", "--schema", SCHEMA)
        ctl("load", "--direct", SRC + "/examples/demo-config.json")
        cls.region = gikraidrum.Region()

    @classmethod
    def tearDownClass(cls) -> None:
        cls.region.close()
        ctl("destroy")

    def test_every_path_reads_as_cmdbctl_shows_it(self) -> None:
        doc = json.loads(ctl("dump"))
        self.assertEqual(doc, self.region.dump())
        contexts = [(None, doc["global"])] + [(d["name"], d["config"]) for d in doc["domains"]]
        n = 0
        for domain, config in contexts:
            self.assertEqual(json.loads(ctl("dump", "--domain", domain or "global"))["global" if domain is None else "domains"],
                             self.region.dump(domain or "global")["global" if domain is None else "domains"])
            for p in paths(config, ""):
                args = ["get", "--json", p] + (["--domain", domain] if domain else [])
                self.assertEqual(json.loads(ctl(*args)), self.region.get(p, domain), p)
                n += 1
        self.assertGreater(n, 50)
        # An object never written shows its defaults, marked as such.
        self.assertEqual(json.loads(ctl("get", "--json", "dns")), self.region.get("dns"))

    def test_refusals_name_the_fault(self) -> None:
        with self.assertRaises(gikraidrum.NotFound) as e:
            self.region.get("interface[99]")
        self.assertEqual("interface[99]: no entry 'interface[99]'", str(e.exception))
        with self.assertRaises(gikraidrum.NotFound):
            self.region.get("policy", "nowhere")
        with self.assertRaises(gikraidrum.Error) as e:
            self.region.get("interface[2].colour")
        self.assertEqual(22, e.exception.errno)  # EINVAL

    def test_typed_reads(self) -> None:
        lib = ctypes.CDLL(os.environ["GIKRAIDRUM_CLIENT_LIB"], use_errno=True)
        lib.gk_read_open.restype = ctypes.c_void_p
        lib.gk_read_error.restype = ctypes.c_char_p
        lib.gk_read_error.argtypes = [ctypes.c_void_p]
        r = ctypes.c_void_p(lib.gk_read_open(None))
        self.assertTrue(r)
        u32, buf = ctypes.c_uint32(), ctypes.create_string_buffer(16)
        self.assertEqual(0, lib.gk_read_u32(r, None, b"interface[2].mtu", ctypes.byref(u32)))
        self.assertEqual(self.region.get("interface[2].mtu"), u32.value)
        self.assertEqual(0, lib.gk_read_string(r, b"east", b"policy[allow-web].rule[10].destination", buf, 16))
        self.assertEqual(b"10.1.0.0", buf.value)
        self.assertEqual(-1, lib.gk_read_string(r, b"east", b"policy[allow-web].rule[10].destination", buf, 8))
        self.assertEqual(34, ctypes.get_errno())  # ERANGE: no room for the NUL
        self.assertEqual(-1, lib.gk_read_u32(r, None, b"system.hostname", ctypes.byref(u32)))
        self.assertEqual(33, ctypes.get_errno())  # EDOM
        self.assertEqual(-1, lib.gk_read_u32(r, None, b"system", ctypes.byref(u32)))
        self.assertIn(b"names no attribute", lib.gk_read_error(r))
        lib.gk_read_close(r)

    def test_watch_decodes_changes_of_its_domain(self) -> None:
        with self.region.watch("policy", "policy.rule", domain="east", timeout=5) as w:
            ctl("set", "--direct", "--domain", "west", "policy[lab-out]", "priority=3")
            ctl("set", "--direct", "--domain", "east", "policy[allow-web].rule[10]", "port=8443")
            change = next(w)
        self.assertEqual({"event": "update", "object": "policy.rule", "domain": "east", "key": 10},
                         {k: change[k] for k in ("event", "object", "domain", "key")})
        self.assertEqual((443, 8443), (change["old"]["port"], change["new"]["port"]))
        with self.assertRaises(gikraidrum.Error):
            self.region.watch("nothing")


class ClientTest(unittest.TestCase):
    def setUp(self) -> None:
        self.cmdbd = subprocess.Popen([CMDBD, "--schema", SCHEMA, "--write-group", "0"], stderr=subprocess.DEVNULL)
        for _ in range(200):
            if os.path.exists("/run/cmdb/cmdbd.sock"):
                break
            time.sleep(0.05)
        self.addCleanup(lambda: (self.cmdbd.terminate(), self.cmdbd.wait(), ctl("destroy")))

    def test_changes_and_refusals(self) -> None:
        with gikraidrum.Client() as c:
            rev = c.set("interface[4]", {"name": "eth4", "mtu": 9000}, comment="jumbo")
            self.assertEqual(rev, c.status()["revision"])
            with self.assertRaises(gikraidrum.CmdbdError) as e:
                c.commit([{"op": "delete", "path": "interface[4]"}, {"op": "delete", "path": "interface[5]"}])
            self.assertEqual((1, "interface[5]"), (e.exception.index, e.exception.path))
            self.assertIn("no entry 'interface[5]'", str(e.exception))
            with gikraidrum.Region() as r:
                self.assertEqual(9000, r.get("interface[4].mtu"))
            self.assertEqual(rev + 1, c.delete("interface[4]"))
            # The revisions as the wrappers decode them, back to the set.
            self.assertEqual([rev + 1, rev], [h["revision"] for h in c.history(2)])
            self.assertEqual("jumbo", c.history(2)[1]["comment"])
            self.assertEqual(9000, c.show(rev, "interface[4].mtu"))
            self.assertEqual(["delete"], [d["op"] for d in c.diff()])
            self.assertEqual(rev + 2, c.rollback(rev))
            self.assertEqual(c.show(rev), c.show(rev + 2))
            self.assertEqual(["delete"], [d["op"] for d in c.dry_run([{"op": "delete", "path": "interface[4]"}])])
            self.assertEqual(rev + 3, c.delete("interface[4]", confirm=600))
            self.assertEqual(rev + 3, c.status()["confirm"]["revision"])
            self.assertEqual(rev + 3, c.confirm())
            with self.assertRaises(gikraidrum.CmdbdError):
                c.confirm()


if __name__ == "__main__":
    unittest.main()
