"""The backup file's DES as OpenSSL's, and the daemon's restore of an upload with the real sysconf inside."""
import os
import subprocess

import pytest

from helpers import revalidate, stdout_since

UPFILE, LOCK, NEW = "/var/tmp/upfile", "/var/tmp/upfile.lock", "/var/tmp/new_sysconf.gdbm"
CHECK_DONE, STORE, SYSCONF = "/mnt/rwdata/.db_check_done", "/mnt/rwdata/sysconf.gdbm", "/usr/bin/sysconf"
CRC, SIZE = b"invalid configure file, crc error\n", b"invalid configure file, size error\n"


def sysconf(sandbox, *args, **env):
    r = sandbox.run([SYSCONF, *args], env=env)
    return r.returncode, r.stdout, r.stderr


def test_export_enciphers_as_openssl_des_ecb(sandbox, tmp_path):
    store = sandbox.read(STORE)
    assert sysconf(sandbox, "export", "/tmp/s.bak", DB_FILE=STORE) == (0, b"", b"")
    (tmp_path / "in").write_bytes(store[:len(store) // 8 * 8])
    des = subprocess.run(["openssl", "enc", "-des-ecb", "-nopad", "-K", "5A13C708E4913D6B", "-provider", "legacy",
                          "-provider", "default", "-in", str(tmp_path / "in")], capture_output=True, check=True).stdout
    assert sandbox.read("/tmp/s.bak")[32:] == des + store[len(des):]


def export(sandbox, data=None):
    if data is not None:
        sandbox.write("/tmp/up.db", data)
    assert sysconf(sandbox, "export", "/tmp/up.bak", DB_FILE=STORE if data is None else "/tmp/up.db") == (0, b"", b"")
    return sandbox.read("/tmp/up.bak")


@pytest.mark.parametrize("make, stub, out, outcome", [  # make: the upload from the backup of the store
    (lambda sb, b: b, None, b"sysconf success\n", "restored"), (lambda sb, b: b[:40] + bytes([b[40] ^ 1]) + b[41:], None, CRC, "kept"),
    (lambda sb, b: bytes.fromhex("88E7221F") + b[4:], None, b"magic number mismatch\ninvalid configure file, magic number error\n", "kept"),
    (lambda sb, b: b[:32], None, SIZE, "kept"),
    (lambda sb, b: None, None, b"stat %s fail\nfailed to get file size for %s\n" % (UPFILE.encode(), UPFILE.encode()), "kept"),
    (lambda sb, b: sb.write(LOCK, b"") or b, None, b"upfile locked\n", "kept"),
    (lambda sb, b: os.mkdir(sb.path(NEW)) or b, None, b"open file %s for write fail\nfail to write %s\n" % (NEW.encode(), NEW.encode()), "kept"),
    (lambda sb, b: export(sb, bytes(range(21))), None, b"system fail, ret=2\n", "converted"),
    (lambda sb, b: b, "exit 7\n", b"system fail, ret=7\n", "converted"),
    (lambda sb, b: b, "kill -KILL $$\n", b"system fail, ret=137\n", "converted"),  # the shell forked for it
    (lambda sb, b: b, 'if [ "$(cat /proc/$PPID/comm)" = sh ]; then kill -KILL $PPID; else kill -KILL $$; fi\n', b"system fail\n", "converted"),
], ids=["restored", "crc", "magic", "size", "no-upload", "locked", "cannot-write", "not-a-store", "rep-fails", "rep-killed", "shell-killed"])
def test_restore_of_an_upload(sandbox, daemon, make, stub, out, outcome):
    store, real = sandbox.read(STORE), sandbox.read(SYSCONF)
    try:
        data = make(sandbox, export(sandbox))
        if stub:
            sandbox.stub(SYSCONF, stub)
        sandbox.store_set("sysconf", "wl_ssid", b'"Changed"\0')
        changed, ino = sandbox.read(STORE), os.stat(sandbox.path(STORE)).st_ino
        sandbox.write(CHECK_DONE, b"")
        sandbox.clear_cmdlog()
        if data is not None:
            sandbox.write(UPFILE, data)
        before = daemon.stdout()
        assert revalidate(sandbox, {"uploadsysconf": "x" if stub else {}}) == b'{ "arguments": { }, "result": "%s" }' % (
            b"success" if outcome == "restored" else b"internal error")  # the target's value is not looked at
        assert stdout_since(sandbox, daemon, before) == out.decode()
        assert (sandbox.exists(UPFILE), sandbox.exists(LOCK), sandbox.exists(CHECK_DONE)) == (False, False, outcome == "kept")
        assert sandbox.cmdlog() == ([[SYSCONF, "rep", NEW]] if stub else [])
        if outcome == "restored":
            assert sandbox.read(STORE) == sandbox.read(NEW) == store and os.stat(sandbox.path(STORE)).st_ino != ino
        else:
            assert sandbox.read(STORE) == changed and os.path.isfile(sandbox.path(NEW)) == (outcome == "converted")
    finally:
        sandbox.remove(SYSCONF)
        sandbox.write(SYSCONF, real, mode=0o755)
        sandbox.write(STORE, store)
        sandbox.run(["/bin/rm", "-rf", UPFILE, LOCK, NEW, CHECK_DONE])
