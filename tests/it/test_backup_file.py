"""The backup file: sysconf export and import, and the daemon's restore of an
uploaded backup with the real sysconf inside the sandbox."""
import os
import subprocess

import pytest

from helpers import revalidate, stdout_since

SUCCESS = b'{ "arguments": { }, "result": "success" }'
INTERNAL = b'{ "arguments": { }, "result": "internal error" }'
UPFILE, LOCK, NEW = "/var/tmp/upfile", "/var/tmp/upfile.lock", "/var/tmp/new_sysconf.gdbm"
CHECK_DONE, STORE, SYSCONF = "/mnt/rwdata/.db_check_done", "/mnt/rwdata/sysconf.gdbm", "/usr/bin/sysconf"
HEAD = bytes.fromhex("1F22E788")
PLAIN = bytes.fromhex("0123456789ABCDEF AABB")  # one block and a tail kept in plain
# magic, CRC-32C (initial 0, no final xor) of the payload, 24 reserved bytes, DES-ECB payload
KNOWN = HEAD + bytes.fromhex("271257B4") + bytes(24) + bytes.fromhex("16819FAD126F5755 AABB")
CRC, SIZE = b"invalid configure file, crc error\n", b"invalid configure file, size error\n"
BAD_MAGIC = b"invalid configure file, magic number error\n"
MAGIC = b"magic number mismatch\n" + BAD_MAGIC


def sysconf(sandbox, *args, umask="022", **env):
    r = sandbox.run(["/bin/sh", "-c", f'umask {umask}; exec "$@"', "sh", SYSCONF, *args], env=env)
    return r.returncode, r.stdout, r.stderr


def state(sandbox, p):
    """Bytes, inode and mode of p, and the files left beside it."""
    st, d = os.stat(sandbox.path(p)), os.path.dirname(sandbox.path(p))
    return (sandbox.read(p), st.st_ino, st.st_mode & 0o777,
            [n for n in os.listdir(d) if n.startswith(os.path.basename(p) + ".")])


def flip(at):
    return lambda b: b[:at % len(b)] + bytes([b[at] ^ 1]) + b[at % len(b) + 1:]


def stat_fail(p):
    return b"stat %s fail\nfailed to get file size for %s\n" % (p, p)


@pytest.mark.parametrize("db, bak, out, written", [
    ("/tmp/x.db", "/tmp/x.bak", (0, b"", b""), KNOWN),
    ("/tmp/e.db", "/tmp/x.bak", (0, b"", b""), HEAD + bytes(28)),
    ("/tmp/none", "/tmp/x.bak", (3, stat_fail(b"/tmp/none"), b""), b"x" * 100),
    ("/tmp", "/tmp/x.bak", (3, b"fread fail\nfail to read /tmp\n", b""), b"x" * 100),
    ("/var/tmp/socket", "/tmp/x.bak", (3, b"open file /var/tmp/socket for read fail\nfail to read /var/tmp/socket\n", b""),
     b"x" * 100),
    ("/tmp/x.db", "/tmp/no/x.bak", (3, b"open file /tmp/no/x.bak for write fail\nfail to write /tmp/no/x.bak\n", b""), None),
    ("/tmp/x.db", "/dev/full", (3, b"fwrite fail\nfail to write /dev/full\n", b""), None),
], ids=["known-answer", "empty", "missing", "directory", "socket", "no-dir", "full"])
def test_export(sandbox, daemon, db, bak, out, written):
    sandbox.write("/tmp/x.db", PLAIN)
    sandbox.write("/tmp/e.db", b"")
    sandbox.write("/tmp/x.bak", b"x" * 100)
    assert sysconf(sandbox, "--store", "sysinfo", "export", bak, INFO_DB_FILE=db) == out
    assert written is None or sandbox.read(bak) == written


def test_export_enciphers_as_openssl_des_ecb(sandbox, tmp_path):
    store = sandbox.read(STORE)
    assert sysconf(sandbox, "export", "/tmp/s.bak", DB_FILE=STORE) == (0, b"", b"")
    (tmp_path / "in").write_bytes(store[:len(store) // 8 * 8])
    des = subprocess.run(["openssl", "enc", "-des-ecb", "-nopad", "-K", "5A13C708E4913D6B", "-provider", "legacy",
                          "-provider", "default", "-in", str(tmp_path / "in")], capture_output=True, check=True)
    assert sandbox.read("/tmp/s.bak")[32:] == des.stdout + store[len(des.stdout):]


def payload_refused(reason):
    return 2, b"", b"sysconf: /tmp/i.bak: the payload is not a gdbm store (%s)\n" % reason


@pytest.mark.parametrize("backup, out", [
    (flip(8), payload_refused(b"Unexpected end of file")),
    (flip(31), payload_refused(b"Unexpected end of file")),
    (lambda b: HEAD + bytes.fromhex("D0594EA3") + bytes(24) + b"Q", payload_refused(b"Unexpected end of file")),
    (flip(4), (2, CRC, b"")),
    (flip(32), (2, CRC, b"")),
    (flip(-1), (2, CRC, b"")),
    (lambda b: b[:4] + bytes.fromhex("4CE28A57") + b[8:], (2, CRC, b"")),
    (lambda b: HEAD[::-1] + b[4:], (2, MAGIC, b"")),
    (lambda b: b[:32], (2, SIZE, b"")),
    (lambda b: b"", (2, SIZE, b"")),
    (None, (2, stat_fail(b"/tmp/i.bak"), b"")),
    ("/tmp", (2, b"fread fail\nfail to read file header\n" + BAD_MAGIC, b"")),
], ids=["reserved-first", "reserved-last", "33-bytes", "crc-field", "payload-first", "payload-last", "usual-crc",
        "big-endian-magic", "32-bytes", "empty", "missing", "directory"])
def test_import_refused_leaves_the_store(sandbox, backup, out):
    sandbox.write("/tmp/i.gdbm", sandbox.read(STORE))
    before = state(sandbox, "/tmp/i.gdbm")
    sandbox.remove("/tmp/i.bak")
    if callable(backup):
        sandbox.write("/tmp/i.bak", backup(KNOWN))
    assert sysconf(sandbox, "import", backup if isinstance(backup, str) else "/tmp/i.bak", DB_FILE="/tmp/i.gdbm") == out
    assert state(sandbox, "/tmp/i.gdbm") == before


def test_import_replaces_the_store_whole(sandbox):
    sandbox.write("/tmp/i.gdbm", b"old")
    ino = state(sandbox, "/tmp/i.gdbm")[1]
    assert sysconf(sandbox, "--store", "rtconf", "export", "/tmp/i.bak", RT_DB_FILE=STORE) == (0, b"", b"")
    assert sysconf(sandbox, "import", "/tmp/i.bak", umask="027", DB_FILE="/tmp/i.gdbm") == (0, b"", b"")
    st = state(sandbox, "/tmp/i.gdbm")
    assert st[0] == sandbox.read(STORE) and st[1] != ino and st[2:] == (0o640, [])


def upload(make):
    """An upload made by sysconf export (of the device's store, or of data)."""
    def prepare(sandbox):
        if make is not None and not callable(make):
            sandbox.write("/tmp/up.db", make)
        db = STORE if make is None or callable(make) else "/tmp/up.db"
        assert sysconf(sandbox, "export", "/tmp/up.bak", DB_FILE=db) == (0, b"", b"")
        return make(sandbox.read("/tmp/up.bak")) if callable(make) else sandbox.read("/tmp/up.bak")
    return prepare


def lock(sandbox):
    sandbox.write(LOCK, b"")
    return upload(None)(sandbox)


def new_is_a_directory(sandbox):
    os.mkdir(sandbox.path(NEW))
    return upload(None)(sandbox)


WRITE_FAIL = b"open file %s for write fail\nfail to write %s\n" % (NEW.encode(), NEW.encode())
KILL_SHELL = 'if [ "$(cat /proc/$PPID/comm)" = sh ]; then kill -KILL $PPID; else kill -KILL $$; fi\n'


@pytest.mark.parametrize("make, stub, out, outcome", [
    (upload(None), None, "sysconf success\n", "restored"),
    (upload(flip(40)), None, CRC.decode(), "kept"),
    (upload(lambda b: HEAD[::-1] + b[4:]), None, MAGIC.decode(), "kept"),
    (upload(lambda b: b[:32]), None, SIZE.decode(), "kept"),
    (lambda sandbox: None, None, stat_fail(UPFILE.encode()).decode(), "kept"),
    (lock, None, "upfile locked\n", "kept"),
    (new_is_a_directory, None, WRITE_FAIL.decode(), "kept"),
    (upload(bytes(range(21))), None, "system fail, ret=2\n", "converted"),
    (upload(None), "exit 7\n", "system fail, ret=7\n", "converted"),
    (upload(None), "kill -KILL $$\n", "system fail, ret=137\n", "converted"),
    (upload(None), KILL_SHELL, "system fail\n", "converted"),
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
        assert revalidate(sandbox, {"uploadsysconf": "x" if stub else {}}) == (SUCCESS if outcome == "restored" else INTERNAL)
        assert stdout_since(sandbox, daemon, before) == out
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
