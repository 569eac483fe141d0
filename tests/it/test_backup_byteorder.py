"""The backup's numbers are little-endian everywhere: the big-endian cross build ($HX_CROSS_BUILD, through its emulator)
and the native one ($HX_BUILD), on the host on files in tmp_path, write the same backups and read each other's."""
import os
import subprocess

import pytest

from hxsim import REPO, build_command

CROSS, NATIVE = os.environ.get("HX_CROSS_BUILD"), os.environ.get("HX_BUILD") or os.path.join(REPO, "build")
pytestmark = pytest.mark.skipif(not CROSS, reason="HX_CROSS_BUILD (the s390x build) is not set")


def sysconf(build, *args, store):
    env = {"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "LANG": "C", "DB_FILE": str(store)}
    r = subprocess.run([*build_command(build, "sysconf"), *args], env=env, capture_output=True, timeout=120)
    return r.returncode, r.stdout, r.stderr


def test_both_builds_write_the_same_backup_and_read_each_others(tmp_path):
    native, cross = [lambda *args, store, b=b: sysconf(b, *args, store=store) for b in (NATIVE, CROSS)]
    le, be, factory = tmp_path / "le.gdbm", tmp_path / "be.gdbm", os.path.join(REPO, "sim", "factory", "sysconf.json")
    assert native("load", factory, store=le) == cross("load", factory, store=be) == (0, b"", b"")  # each its own byte order
    assert native("dump", store=le) == cross("dump", store=be) and le.read_bytes()[:4] != be.read_bytes()[:4]
    for run, store in ((native, be), (cross, le)):  # each opens only stores of its own byte order
        assert run("dump", store=store) == (3, b"", b"sysconf: cannot open %s: Byte-swapped file\n" % str(store).encode())
    odd = tmp_path / "odd"
    odd.write_bytes(bytes(range(256)) * 3 + b"tail!")  # 5 bytes kept in plain
    for store in (le, be, odd):
        assert native("export", tmp_path / "n.bak", store=store) == cross("export", tmp_path / "c.bak", store=store)
        a, b = (tmp_path / "n.bak").read_bytes(), (tmp_path / "c.bak").read_bytes()
        assert a == b and len(a) == store.stat().st_size + 32 and a[:4] == bytes.fromhex("1F22E788")
    for run, other, store in ((cross, native, be), (native, cross, le)):  # each imports a backup the other wrote
        copy = tmp_path / "copy.gdbm"
        assert other("export", tmp_path / "x.bak", store=store) == run("import", tmp_path / "x.bak", store=copy) == (0, b"", b"")
        assert copy.read_bytes() == store.read_bytes() and run("dump", store=copy) == native("dump", store=le)
    copy.unlink()
    assert cross("export", tmp_path / "x.bak", store=be) == (0, b"", b"")
    assert native("import", tmp_path / "x.bak", store=copy) == (  # the payload must be a store this side opens
        2, b"", b"sysconf: %s: the payload is not a gdbm store (Byte-swapped file)\n" % str(tmp_path / "x.bak").encode())
    assert [p.name for p in tmp_path.iterdir() if p.name.startswith("copy.gdbm")] == []
