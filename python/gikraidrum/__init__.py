"""The appliance's configuration database from Python.

Reads go straight to the shared-memory region (no daemon needed); changes go
through cmdbd, which applies each transaction whole or not at all and answers
once it is on disk.

    import gikraidrum
    with gikraidrum.Region() as r:
        print(r.get("system.hostname"))
        with r.watch("policy", domain="east") as changes:
            for change in changes:
                print(change["event"], change["key"], change.get("new"))

    with gikraidrum.Client() as c:
        rev = c.set("system", {"hostname": "fw-02"}, comment="rename")

Paths are the ones cmdbctl takes: OBJECT, TABLE[KEY], TABLE[KEY].CHILD[KEY],
each optionally ending in .ATTRIBUTE. A domain of None is the global context.
"""

import ctypes
import json
import os
from typing import Any, Dict, List, Optional

__all__ = ["Error", "NotFound", "CmdbdError", "Region", "Watch", "Client"]

_LIB_NAME = "libgikraidrum-client.so.1"


class Error(Exception):
    """A read or a watch failed; `errno` says how, the text says why."""

    def __init__(self, message: str, errno: int = 0) -> None:
        super().__init__(message)
        self.errno = errno


class NotFound(Error, KeyError):
    """No such entry or domain."""

    def __str__(self) -> str:  # KeyError would quote the text
        return self.args[0]


class CmdbdError(Error):
    """cmdbd refused a request (nothing changed) or could not be reached.

    `index` and `path` name the operation that failed, when one did."""

    def __init__(self, message: str, errno: int = 0, index: int = -1, path: str = "") -> None:
        super().__init__(message, errno)
        self.index = index
        self.path = path


_lib = None


def _load() -> ctypes.CDLL:
    """The client library: $GIKRAIDRUM_CLIENT_LIB, or the installed one."""
    global _lib
    if _lib is not None:
        return _lib
    lib = ctypes.CDLL(os.environ.get("GIKRAIDRUM_CLIENT_LIB", _LIB_NAME), use_errno=True)
    p, c, i, sz = ctypes.c_void_p, ctypes.c_char_p, ctypes.c_int, ctypes.c_size_t
    out = ctypes.POINTER(ctypes.c_void_p)  # a malloc'd text, freed with free()
    for name, res, args in [
        ("gk_read_open", p, [c]),
        ("gk_read_close", None, [p]),
        ("gk_read_error", c, [p]),
        ("gk_read_json", i, [p, c, c, out]),
        ("gk_watch_open", p, [p, c, ctypes.POINTER(c), sz, c]),
        ("gk_watch_next", i, [p, i, out]),
        ("gk_watch_fd", i, [p]),
        ("gk_watch_close", None, [p]),
        ("gk_client_open", p, [c]),
        ("gk_client_close", None, [p]),
        ("gk_client_request", i, [p, c, out]),
    ]:
        f = getattr(lib, name)
        f.restype, f.argtypes = res, args
    libc = ctypes.CDLL(None)
    libc.free.argtypes = [p]
    lib.free = libc.free
    _lib = lib
    return lib


def _take_text(lib: ctypes.CDLL, ptr: ctypes.c_void_p) -> str:
    try:
        return ctypes.string_at(ptr).decode()
    finally:
        lib.free(ptr)


def _enc(s: Optional[str]) -> Optional[bytes]:
    return None if s is None else s.encode()


class Region:
    """The region attached read-only, and the schema that names its contents.

    `schema` is the schema file; None takes the copy kept beside the region."""

    # Set before __init__ can fail, so that __del__ finds them.
    _h: Optional[int] = None
    _watch: Optional["Watch"] = None

    def __init__(self, schema: Optional[str] = None) -> None:
        self._lib = _load()
        self._watch: Optional[Watch] = None
        self._h = self._lib.gk_read_open(_enc(schema))
        if not self._h:
            e = ctypes.get_errno()
            raise Error("cannot open the region: " + os.strerror(e), e)

    def close(self) -> None:
        """Detaches; a watch still open is closed first (it lives on the reader)."""
        if self._watch is not None:
            self._watch.close()
        if self._h:
            self._lib.gk_read_close(self._h)
            self._h = None

    def __enter__(self) -> "Region":
        return self

    def __exit__(self, *exc: Any) -> None:
        self.close()

    def __del__(self) -> None:
        self.close()

    def _fail(self) -> Error:
        e = ctypes.get_errno()
        text = self._lib.gk_read_error(self._h).decode()
        return NotFound(text, e) if e == 2 else Error(text, e)  # ENOENT

    def get(self, path: str, domain: Optional[str] = None) -> Any:
        """What `cmdbctl get --json PATH` shows: an attribute's value, an
        object's or entry's attributes (and child tables), a table's entries."""
        if not path:
            raise ValueError("get() takes a path; dump() gives everything")
        return json.loads(self._json(domain, path))

    def dump(self, domain: Optional[str] = None) -> Dict[str, Any]:
        """The configuration as `cmdbctl dump` prints it: every context, or
        only `domain` ("global" for the global context)."""
        return json.loads(self._json(domain, None))

    def _json(self, domain: Optional[str], path: Optional[str]) -> str:
        if not self._h:
            raise Error("the region is closed")
        text = ctypes.c_void_p()
        if self._lib.gk_read_json(self._h, _enc(domain), _enc(path), ctypes.byref(text)) != 0:
            raise self._fail()
        return _take_text(self._lib, text)

    def watch(self, *tables: str, domain: Optional[str] = None, process: Optional[str] = None,
              timeout: Optional[float] = None) -> "Watch":
        """Registers for the changes of the tables and objects named (schema
        paths such as "policy" or "policy.rule") and returns an iterator of
        them, each a dict: event, gid, object, domain, and key, old and new
        where the change carries them. With a `timeout` (seconds) the iteration
        ends when none comes for that long. One watch per process at a time;
        close it (or use it in a with block) to take the registrations back."""
        if not self._h:
            raise Error("the region is closed")
        names = (ctypes.c_char_p * max(len(tables), 1))(*[t.encode() for t in tables])
        w = self._lib.gk_watch_open(self._h, _enc(process), names, len(tables), _enc(domain))
        if not w:
            raise self._fail()
        self._watch = Watch(self, w, timeout)
        return self._watch


class Watch:
    """Changes as they arrive; see Region.watch()."""

    _h: Optional[int] = None

    def __init__(self, region: Region, handle: int, timeout: Optional[float]) -> None:
        self._lib, self._h = region._lib, handle
        self._wait = -1 if timeout is None else int(timeout * 1000)

    def fileno(self) -> int:
        """Readable when changes are waiting, for select() and event loops."""
        return self._lib.gk_watch_fd(self._h)

    def __iter__(self) -> "Watch":
        return self

    def __next__(self) -> Dict[str, Any]:
        if not self._h:
            raise StopIteration
        while True:
            text = ctypes.c_void_p()
            r = self._lib.gk_watch_next(self._h, self._wait, ctypes.byref(text))
            if r > 0:
                return json.loads(_take_text(self._lib, text))
            if r == 0:
                raise StopIteration
            e = ctypes.get_errno()
            if e != 4:  # EINTR: Python has run its signal handlers; wait on
                raise Error("watch: " + os.strerror(e), e)

    def close(self) -> None:
        if self._h:
            self._lib.gk_watch_close(self._h)
            self._h = None

    def __enter__(self) -> "Watch":
        return self

    def __exit__(self, *exc: Any) -> None:
        self.close()

    def __del__(self) -> None:
        self.close()


class Client:
    """A connection to cmdbd. Each call is one request; a change is applied
    whole or not at all and its revision returned once it is durable."""

    _h: Optional[int] = None

    def __init__(self, socket: Optional[str] = None) -> None:
        self._lib = _load()
        self._h = self._lib.gk_client_open(_enc(socket))
        if not self._h:
            e = ctypes.get_errno()
            raise CmdbdError("cannot reach cmdbd: " + os.strerror(e), e)
        self._id = 0

    def close(self) -> None:
        if self._h:
            self._lib.gk_client_close(self._h)
            self._h = None

    def __enter__(self) -> "Client":
        return self

    def __exit__(self, *exc: Any) -> None:
        self.close()

    def __del__(self) -> None:
        self.close()

    def request(self, req: Dict[str, Any]) -> Dict[str, Any]:
        """Sends any request of cmdbd's protocol; its answer, or CmdbdError
        carrying cmdbd's text when it says no."""
        if not self._h:
            raise CmdbdError("the connection is closed")
        self._id += 1
        req = dict(req, id=self._id)
        answer = ctypes.c_void_p()
        if self._lib.gk_client_request(self._h, json.dumps(req).encode(), ctypes.byref(answer)) != 0:
            e = ctypes.get_errno()
            raise CmdbdError("cmdbd: " + os.strerror(e), e)
        a = json.loads(_take_text(self._lib, answer))
        if not a.get("ok", False):
            raise CmdbdError(a.get("error", "refused"), 0, a.get("index", -1), a.get("path", ""))
        return a

    def commit(self, operations: List[Dict[str, Any]], comment: Optional[str] = None,
               confirm: Optional[int] = None) -> int:
        """Applies the operations (the protocol's array) as one revision; its
        number. With `confirm`, cmdbd rolls the change back by itself unless
        confirm() (or another confirmed commit) follows within that many seconds."""
        req: Dict[str, Any] = {"request": "commit", "operations": operations}
        return int(self.request(_writing(req, comment, confirm))["revision"])

    def set(self, path: str, values: Dict[str, Any], domain: Optional[str] = None,
            comment: Optional[str] = None, confirm: Optional[int] = None) -> int:
        """Sets attributes of the object or entry at `path` (a missing entry is
        made from its defaults); the revision."""
        return self.commit([_op("set", path, domain, values=values)], comment, confirm)

    def delete(self, path: str, domain: Optional[str] = None, comment: Optional[str] = None,
               confirm: Optional[int] = None) -> int:
        """Deletes the entry at `path` and everything below it; the revision."""
        return self.commit([_op("delete", path, domain)], comment, confirm)

    def load(self, config: Dict[str, Any], merge: bool = False, comment: Optional[str] = None,
             confirm: Optional[int] = None) -> int:
        """Makes every context `config` (a dump document) names equal to it,
        or with `merge` changes only what it names; the revision."""
        return self.commit([{"op": "load", "config": config, "merge": merge}], comment, confirm)

    def dry_run(self, operations: List[Dict[str, Any]]) -> List[Dict[str, Any]]:
        """What the operations would change, as diff() lists differences;
        nothing is applied. A refusal raises CmdbdError as commit() would."""
        req = {"request": "commit", "operations": operations, "dry_run": True}
        return list(self.request(req)["differences"])

    def confirm(self) -> int:
        """Confirms the commit that awaits confirmation, so that cmdbd keeps
        it; its revision. CmdbdError when none awaits (or its deadline passed)."""
        return int(self.request({"request": "confirm"})["revision"])

    def status(self) -> Dict[str, Any]:
        """What cmdbd says of itself: revision, schema, store, pending confirmation."""
        return self.request({"request": "status"})

    def history(self, limit: int = 0) -> List[Dict[str, Any]]:
        """The newest `limit` revisions (0: all kept), newest first: revision,
        time, uid, user, pid, command, comment, kind and a summary of counts."""
        req: Dict[str, Any] = {"request": "history"}
        if limit:
            req["limit"] = limit
        return list(self.request(req)["revisions"])

    def show(self, revision: int, path: Optional[str] = None, domain: Optional[str] = None) -> Any:
        """The configuration as of `revision` (a dump document), or what `path` named then."""
        req: Dict[str, Any] = {"request": "show", "revision": revision}
        if path is not None:
            req["path"] = path
        if domain is not None:
            req["domain"] = domain
        a = self.request(req)
        return a["value"] if path is not None else a["config"]

    def diff(self, from_rev: Optional[int] = None, to_rev: Optional[int] = None) -> List[Dict[str, Any]]:
        """Field-level differences from one revision to another (by default the
        last revision against the one before it)."""
        req: Dict[str, Any] = {"request": "diff"}
        if from_rev is not None:
            req["from"] = from_rev
        if to_rev is not None:
            req["to"] = to_rev
        return list(self.request(req)["differences"])

    def rollback(self, revision: int, comment: Optional[str] = None, confirm: Optional[int] = None) -> int:
        """Makes the configuration equal to `revision`'s as a new revision; its
        number. `confirm` as for commit()."""
        req: Dict[str, Any] = {"request": "rollback", "revision": revision}
        return int(self.request(_writing(req, comment, confirm))["revision"])


def _writing(req: Dict[str, Any], comment: Optional[str], confirm: Optional[int]) -> Dict[str, Any]:
    if comment is not None:
        req["comment"] = comment
    if confirm is not None:
        req["confirm"] = confirm
    return req


def _op(kind: str, path: str, domain: Optional[str], **more: Any) -> Dict[str, Any]:
    op: Dict[str, Any] = {"op": kind, "path": path}
    if domain is not None:
        op["domain"] = domain
    op.update(more)
    return op
