"""The backup file: sysconf export and import, and the daemon's restore of an upload with the real sysconf."""
import os
import subprocess

import pytest

from helpers import revalidate, stdout_since

UPFILE, LOCK, NEW = "/var/tmp/upfile", "/var/tmp/upfile.lock", "/var/tmp/new_sysconf.gdbm"
CHECK_DONE, STORE, SYSCONF = "/mnt/rwdata/.db_check_done", "/mnt/rwdata/sysconf.gdbm", "/usr/bin/sysconf"
HEAD, PLAIN = bytes.fromhex("1F22E788"), bytes.fromhex("0123456789ABCDEF AABB")  # a block and a tail kept in plain
# magic, CRC-32C (initial 0, no final xor) of the payload, 24 reserved bytes, the payload in DES-ECB
KNOWN = HEAD + bytes.fromhex("271257B4") + bytes(24) + bytes.fromhex("16819FAD126F5755 AABB")
CRC, SIZE = b"invalid configure file, crc error\n", b"invalid configure file, size error\n"
BAD_MAGIC = b"invalid configure file, magic number error\n"
MAGIC, X = b"magic number mismatch\n" + BAD_MAGIC, b"x" * 100


def sysconf(sandbox, *args, umask="022", **env):
    r = sandbox.run(["/bin/sh", "-c", f'umask {umask}; exec "$@"', "sh", SYSCONF, *args], env=env)
    return r.returncode, r.stdout, r.stderr


def state(sandbox, p):
    """Bytes, inode and mode of p, and the files left beside it."""
    st, d = os.stat(sandbox.path(p)), os.path.dirname(sandbox.path(p))
    return sandbox.read(p), st.st_ino, st.st_mode & 0o777, [n for n in os.listdir(d) if n.startswith(os.path.basename(p) + ".")]


def flip(at):
    return lambda b: b[:at % len(b)] + bytes([b[at] ^ 1]) + b[at % len(b) + 1:]


def stat_fail(p):
    return b"stat %s fail\nfailed to get file size for %s\n" % (p, p)


@pytest.mark.parametrize("db, bak, out, written", [
    ("/tmp/x.db", "/tmp/x.bak", b"", KNOWN), ("/tmp/e.db", "/tmp/x.bak", b"", HEAD + bytes(28)),
    ("/tmp/none", "/tmp/x.bak", stat_fail(b"/tmp/none"), X), ("/tmp", "/tmp/x.bak", b"fread fail\nfail to read /tmp\n", X),
    ("/var/tmp/socket", "/tmp/x.bak", b"open file /var/tmp/socket for read fail\nfail to read /var/tmp/socket\n", X),
    ("/tmp/x.db", "/tmp/no/x.bak", b"open file /tmp/no/x.bak for write fail\nfail to write /tmp/no/x.bak\n", None),
    ("/tmp/x.db", "/dev/full", b"fwrite fail\nfail to write /dev/full\n", None),
], ids=["known-answer", "empty", "missing", "directory", "socket", "no-dir", "full"])
def test_export(sandbox, daemon, db, bak, out, written):
    sandbox.write("/tmp/x.db", PLAIN)
    sandbox.write("/tmp/e.db", b"")
    sandbox.write("/tmp/x.bak", X)  # cut to the backup's size
    assert sysconf(sandbox, "--store", "sysinfo", "export", bak, INFO_DB_FILE=db) == (3 if out else 0, out, b"")
    assert written is None or sandbox.read(bak) == written


def test_export_enciphers_as_openssl_des_ecb(sandbox, tmp_path):
    store = sandbox.read(STORE)
    assert sysconf(sandbox, "export", "/tmp/s.bak", DB_FILE=STORE) == (0, b"", b"")
    (tmp_path / "in").write_bytes(store[:len(store) // 8 * 8])
    des = subprocess.run(["openssl", "enc", "-des-ecb", "-nopad", "-K", "5A13C708E4913D6B", "-provider", "legacy",
                          "-provider", "default", "-in", str(tmp_path / "in")], capture_output=True, check=True).stdout
    assert sandbox.read("/tmp/s.bak")[32:] == des + store[len(des):]


@pytest.mark.parametrize("backup, out", [
    (flip(8), b""), (flip(31), b""), (lambda b: HEAD + bytes.fromhex("D0594EA3") + bytes(24) + b"Q", b""),
    (flip(4), CRC), (flip(32), CRC), (flip(-1), CRC), (lambda b: b[:4] + bytes.fromhex("4CE28A57") + b[8:], CRC),
    (lambda b: HEAD[::-1] + b[4:], MAGIC), (lambda b: b[:32], SIZE), (lambda b: b"", SIZE),
    (None, stat_fail(b"/tmp/i.bak")), ("/tmp", b"fread fail\nfail to read file header\n" + BAD_MAGIC),
], ids=["reserved-first", "reserved-last", "33-bytes", "crc-field", "payload-first", "payload-last", "usual-crc",
        "big-endian-magic", "32-bytes", "empty", "missing", "directory"])
def test_import_refused_leaves_the_store(sandbox, backup, out):
    sandbox.write("/tmp/i.gdbm", sandbox.read(STORE))
    before = state(sandbox, "/tmp/i.gdbm")
    sandbox.remove("/tmp/i.bak")
    if callable(backup):
        sandbox.write("/tmp/i.bak", backup(KNOWN))
    # an accepted file's payload is no store
    err = b"" if out else b"sysconf: /tmp/i.bak: the payload is not a gdbm store (Unexpected end of file)\n"
    assert sysconf(sandbox, "import", backup if isinstance(backup, str) else "/tmp/i.bak", DB_FILE="/tmp/i.gdbm") == (2, out, err)
    assert state(sandbox, "/tmp/i.gdbm") == before


def test_import_replaces_the_store_whole(sandbox):
    sandbox.write("/tmp/i.gdbm", b"old")
    ino = state(sandbox, "/tmp/i.gdbm")[1]
    assert sysconf(sandbox, "--store", "rtconf", "export", "/tmp/i.bak", RT_DB_FILE=STORE) == (0, b"", b"")
    assert sysconf(sandbox, "import", "/tmp/i.bak", umask="027", DB_FILE="/tmp/i.gdbm") == (0, b"", b"")
    st = state(sandbox, "/tmp/i.gdbm")
    assert st[0] == sandbox.read(STORE) and st[1] != ino and st[2:] == (0o640, [])


def export(sandbox, data=None):
    if data is not None:
        sandbox.write("/tmp/up.db", data)
    assert sysconf(sandbox, "export", "/tmp/up.bak", DB_FILE=STORE if data is None else "/tmp/up.db") == (0, b"", b"")
    return sandbox.read("/tmp/up.bak")


KILL_SHELL = 'if [ "$(cat /proc/$PPID/comm)" = sh ]; then kill -KILL $PPID; else kill -KILL $$; fi\n'


@pytest.mark.parametrize("make, stub, out, outcome", [
    (lambda sb: export(sb), None, b"sysconf success\n", "restored"),
    (lambda sb: flip(40)(export(sb)), None, CRC, "kept"),
    (lambda sb: HEAD[::-1] + export(sb)[4:], None, MAGIC, "kept"),
    (lambda sb: export(sb)[:32], None, SIZE, "kept"),
    (lambda sb: None, None, stat_fail(UPFILE.encode()), "kept"),
    (lambda sb: sb.write(LOCK, b"") or export(sb), None, b"upfile locked\n", "kept"),
    (lambda sb: os.mkdir(sb.path(NEW)) or export(sb), None, b"open file %s for write fail\nfail to write %s\n" % (
        NEW.encode(), NEW.encode()), "kept"),
    (lambda sb: export(sb, bytes(range(21))), None, b"system fail, ret=2\n", "converted"),
    (lambda sb: export(sb), "exit 7\n", b"system fail, ret=7\n", "converted"),
    (lambda sb: export(sb), "kill -KILL $$\n", b"system fail, ret=137\n", "converted"),  # the shell forked for it
    (lambda sb: export(sb), KILL_SHELL, b"system fail\n", "converted"),
], ids=["restored", "crc", "magic", "size", "no-upload", "locked", "cannot-write", "not-a-store", "rep-fails",
        "rep-killed", "shell-killed"])
def test_restore_of_an_upload(sandbox, daemon, make, stub, out, outcome):
    store, real = sandbox.read(STORE), sandbox.read(SYSCONF)
    try:
        data = make(sandbox)
        if stub:
            sandbox.stub(SYSCONF, stub)
        sandbox.store_set("sysconf", "wl_ssid", b'"Changed"\0')
        changed, ino = sandbox.read(STORE), state(sandbox, STORE)[1]
        sandbox.write(CHECK_DONE, b"")
        sandbox.clear_cmdlog()
        if data is not None:
            sandbox.write(UPFILE, data)
        before = daemon.stdout()
        # the target's value is not looked at
        assert revalidate(sandbox, {"uploadsysconf": "x" if stub else {}}) == b'{ "arguments": { }, "result": "%s" }' % (
            b"success" if outcome == "restored" else b"internal error")
        assert stdout_since(sandbox, daemon, before) == out.decode()
        assert (sandbox.exists(UPFILE), sandbox.exists(LOCK), sandbox.exists(CHECK_DONE)) == (False, False, outcome == "kept")
        assert sandbox.cmdlog() == ([[SYSCONF, "rep", NEW]] if stub else [])
        if outcome == "restored":
            assert sandbox.read(STORE) == sandbox.read(NEW) == store and state(sandbox, STORE)[1] != ino
        else:
            assert sandbox.read(STORE) == changed and os.path.isfile(sandbox.path(NEW)) == (outcome == "converted")
    finally:
        sandbox.remove(SYSCONF)
        sandbox.write(SYSCONF, real, mode=0o755)
        sandbox.write(STORE, store)
        sandbox.run(["/bin/rm", "-rf", UPFILE, LOCK, NEW, CHECK_DONE])
