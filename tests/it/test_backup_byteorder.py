"""Part 3.2 across byte orders: the backup file's numbers are little-endian
on every machine, so the big-endian s390x build (run through qemu-user,
$HX_CROSS_BUILD) and the native build ($HX_BUILD) must write the same backup
bytes for the same store file and read each other's backups back to the
same bytes.

A gdbm store itself is in its writer's byte order, so each side builds its
stores with its own `sysconf load`, and each side imports the backup of a
store of its own byte order that the other side exported.  Both sysconfs run
on the host, outside any sandbox, only on files in pytest's tmp_path (DB_FILE
and the other overrides point there)."""
import os
import subprocess
import sys

import pytest

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(REPO, "sim"))

from hxsim import build_command  # noqa: E402

CROSS = os.environ.get("HX_CROSS_BUILD")
NATIVE = os.environ.get("HX_BUILD") or os.path.join(REPO, "build")
FACTORY = os.path.join(REPO, "sim", "factory", "sysconf.json")

pytestmark = pytest.mark.skipif(not CROSS, reason="HX_CROSS_BUILD (the s390x build) is not set")


class Side:
    """One build's sysconf, with its stores in tmp_path."""

    def __init__(self, build, tmp_path, name):
        self.argv = build_command(build, "sysconf")
        self.dir = tmp_path
        self.name = name
        self.env = {"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "LANG": "C",
                    "DB_FILE": str(tmp_path / f"{name}-default.gdbm"),
                    "RT_DB_FILE": str(tmp_path / f"{name}-rtconf.gdbm"),
                    "INFO_DB_FILE": str(tmp_path / f"{name}-sysinfo.gdbm")}

    def run(self, *args, store=None):
        env = dict(self.env)
        if store is not None:
            env["DB_FILE"] = str(store)
        return subprocess.run([*self.argv, *args], env=env, capture_output=True, timeout=120)

    def ok(self, *args, store=None):
        r = self.run(*args, store=store)
        assert (r.returncode, r.stderr) == (0, b""), (self.name, args, r)
        return r.stdout

    def export(self, store, name):
        bak = self.dir / name
        assert self.ok("export", str(bak), store=store) == b""
        return bak


@pytest.fixture
def sides(tmp_path):
    native, cross = Side(NATIVE, tmp_path, "native"), Side(CROSS, tmp_path, "s390x")
    le, be = tmp_path / "le.gdbm", tmp_path / "be.gdbm"
    native.ok("load", FACTORY, store=le)
    cross.ok("load", FACTORY, store=be)
    return native, cross, le, be


def test_the_builds_differ_in_byte_order(sides):
    """Each side reads only its own store: the stores are in native order."""
    native, cross, le, be = sides
    assert native.ok("dump", store=le) == cross.ok("dump", store=be)
    assert le.read_bytes()[:4] != be.read_bytes()[:4]
    for side, store in ((native, be), (cross, le)):
        r = side.run("dump", store=store)
        assert (r.returncode, r.stdout, r.stderr) == (
            3, b"", b"sysconf: cannot open %s: Byte-swapped file\n" % str(store).encode())


@pytest.mark.parametrize("which", ["le-store", "be-store", "odd-file"])
def test_both_builds_export_the_same_bytes(sides, tmp_path, which):
    native, cross, le, be = sides
    odd = tmp_path / "odd"
    odd.write_bytes(bytes(range(256)) * 3 + b"tail!")       # 773 bytes, 5 in plain
    store = {"le-store": le, "be-store": be, "odd-file": odd}[which]
    a = native.export(store, "native.bak").read_bytes()
    b = cross.export(store, "s390x.bak").read_bytes()
    assert len(a) == store.stat().st_size + 32
    assert a[:4] == bytes.fromhex("1F22E788")
    assert a == b


@pytest.mark.parametrize("importer", ["s390x", "native"])
def test_each_build_imports_the_other_builds_backup(sides, tmp_path, importer):
    """The exporter writes the backup of a store in the importer's order."""
    native, cross, le, be = sides
    own, other, store, same = ((cross, native, be, le) if importer == "s390x"
                               else (native, cross, le, be))
    bak = other.export(store, other.name + ".bak")
    copy = tmp_path / "copy.gdbm"
    assert own.ok("import", str(bak), store=copy) == b""
    assert copy.read_bytes() == store.read_bytes()
    assert own.ok("dump", store=copy) == other.ok("dump", store=same)


def test_store_of_the_other_byte_order_is_refused_on_import(sides, tmp_path):
    """The payload must be a store this side can open."""
    native, cross, le, be = sides
    bak = cross.export(be, "s390x.bak")
    copy = tmp_path / "copy.gdbm"
    r = native.run("import", str(bak), store=copy)
    assert (r.returncode, r.stdout, r.stderr) == (
        2, b"", b"sysconf: %s: the payload is not a gdbm store (Byte-swapped file)\n"
        % str(bak).encode())
    assert not copy.exists()
    assert [p.name for p in tmp_path.iterdir() if p.name.startswith("copy.gdbm")] == []
