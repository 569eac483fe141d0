"""Part 3.2: the configuration backup file and its restore, through the real
daemon and the real sysconf inside the sandbox.

The backup files are checked against implementations of this test's own: the
CRC with the file's parameters (bit by bit, no table) and single DES after
FIPS 46-3 (checked against the standard test vector below), and once more
against OpenSSL's DES when the host's openssl has the legacy provider.
"""
import os
import shutil
import subprocess

import pytest

from helpers import revalidate, send, stdout_since

SUCCESS = b'{ "arguments": { }, "result": "success" }'
INTERNAL = b'{ "arguments": { }, "result": "internal error" }'

UPFILE = "/var/tmp/upfile"
LOCK = "/var/tmp/upfile.lock"
NEW = "/var/tmp/new_sysconf.gdbm"
CHECK_DONE = "/mnt/rwdata/.db_check_done"
STORE = "/mnt/rwdata/sysconf.gdbm"
SYSCONF = "/usr/bin/sysconf"
KEY = bytes.fromhex("5A13C708E4913D6B")
MAGIC = bytes.fromhex("1F22E788")


# --------------------------------------------------------------------------
# Independent implementations
# --------------------------------------------------------------------------

def crc32c(data, init=0, xorout=0):
    """CRC-32C (reflected 0x82F63B78), bit by bit."""
    crc = init
    for byte in data:
        crc ^= byte
        for _ in range(8):
            crc = (crc >> 1) ^ 0x82F63B78 if crc & 1 else crc >> 1
    return crc ^ xorout


# Single DES after FIPS 46-3: the tables as the standard prints them.
IP = [58, 50, 42, 34, 26, 18, 10, 2, 60, 52, 44, 36, 28, 20, 12, 4,
      62, 54, 46, 38, 30, 22, 14, 6, 64, 56, 48, 40, 32, 24, 16, 8,
      57, 49, 41, 33, 25, 17, 9, 1, 59, 51, 43, 35, 27, 19, 11, 3,
      61, 53, 45, 37, 29, 21, 13, 5, 63, 55, 47, 39, 31, 23, 15, 7]
FP = [IP.index(i) + 1 for i in range(1, 65)]
E = [32, 1, 2, 3, 4, 5, 4, 5, 6, 7, 8, 9, 8, 9, 10, 11, 12, 13, 12, 13, 14, 15, 16, 17,
     16, 17, 18, 19, 20, 21, 20, 21, 22, 23, 24, 25, 24, 25, 26, 27, 28, 29, 28, 29, 30, 31,
     32, 1]
P = [16, 7, 20, 21, 29, 12, 28, 17, 1, 15, 23, 26, 5, 18, 31, 10,
     2, 8, 24, 14, 32, 27, 3, 9, 19, 13, 30, 6, 22, 11, 4, 25]
PC1 = [57, 49, 41, 33, 25, 17, 9, 1, 58, 50, 42, 34, 26, 18, 10, 2, 59, 51, 43, 35, 27,
       19, 11, 3, 60, 52, 44, 36, 63, 55, 47, 39, 31, 23, 15, 7, 62, 54, 46, 38, 30, 22,
       14, 6, 61, 53, 45, 37, 29, 21, 13, 5, 28, 20, 12, 4]
PC2 = [14, 17, 11, 24, 1, 5, 3, 28, 15, 6, 21, 10, 23, 19, 12, 4, 26, 8, 16, 7, 27, 20, 13, 2,
       41, 52, 31, 37, 47, 55, 30, 40, 51, 45, 33, 48, 44, 49, 39, 56, 34, 53, 46, 42, 50, 36,
       29, 32]
SHIFTS = [1, 1, 2, 2, 2, 2, 2, 2, 1, 2, 2, 2, 2, 2, 2, 1]
S = [  # S1 .. S8, row by row
    [14, 4, 13, 1, 2, 15, 11, 8, 3, 10, 6, 12, 5, 9, 0, 7,
     0, 15, 7, 4, 14, 2, 13, 1, 10, 6, 12, 11, 9, 5, 3, 8,
     4, 1, 14, 8, 13, 6, 2, 11, 15, 12, 9, 7, 3, 10, 5, 0,
     15, 12, 8, 2, 4, 9, 1, 7, 5, 11, 3, 14, 10, 0, 6, 13],
    [15, 1, 8, 14, 6, 11, 3, 4, 9, 7, 2, 13, 12, 0, 5, 10,
     3, 13, 4, 7, 15, 2, 8, 14, 12, 0, 1, 10, 6, 9, 11, 5,
     0, 14, 7, 11, 10, 4, 13, 1, 5, 8, 12, 6, 9, 3, 2, 15,
     13, 8, 10, 1, 3, 15, 4, 2, 11, 6, 7, 12, 0, 5, 14, 9],
    [10, 0, 9, 14, 6, 3, 15, 5, 1, 13, 12, 7, 11, 4, 2, 8,
     13, 7, 0, 9, 3, 4, 6, 10, 2, 8, 5, 14, 12, 11, 15, 1,
     13, 6, 4, 9, 8, 15, 3, 0, 11, 1, 2, 12, 5, 10, 14, 7,
     1, 10, 13, 0, 6, 9, 8, 7, 4, 15, 14, 3, 11, 5, 2, 12],
    [7, 13, 14, 3, 0, 6, 9, 10, 1, 2, 8, 5, 11, 12, 4, 15,
     13, 8, 11, 5, 6, 15, 0, 3, 4, 7, 2, 12, 1, 10, 14, 9,
     10, 6, 9, 0, 12, 11, 7, 13, 15, 1, 3, 14, 5, 2, 8, 4,
     3, 15, 0, 6, 10, 1, 13, 8, 9, 4, 5, 11, 12, 7, 2, 14],
    [2, 12, 4, 1, 7, 10, 11, 6, 8, 5, 3, 15, 13, 0, 14, 9,
     14, 11, 2, 12, 4, 7, 13, 1, 5, 0, 15, 10, 3, 9, 8, 6,
     4, 2, 1, 11, 10, 13, 7, 8, 15, 9, 12, 5, 6, 3, 0, 14,
     11, 8, 12, 7, 1, 14, 2, 13, 6, 15, 0, 9, 10, 4, 5, 3],
    [12, 1, 10, 15, 9, 2, 6, 8, 0, 13, 3, 4, 14, 7, 5, 11,
     10, 15, 4, 2, 7, 12, 9, 5, 6, 1, 13, 14, 0, 11, 3, 8,
     9, 14, 15, 5, 2, 8, 12, 3, 7, 0, 4, 10, 1, 13, 11, 6,
     4, 3, 2, 12, 9, 5, 15, 10, 11, 14, 1, 7, 6, 0, 8, 13],
    [4, 11, 2, 14, 15, 0, 8, 13, 3, 12, 9, 7, 5, 10, 6, 1,
     13, 0, 11, 7, 4, 9, 1, 10, 14, 3, 5, 12, 2, 15, 8, 6,
     1, 4, 11, 13, 12, 3, 7, 14, 10, 15, 6, 8, 0, 5, 9, 2,
     6, 11, 13, 8, 1, 4, 10, 7, 9, 5, 0, 15, 14, 2, 3, 12],
    [13, 2, 8, 4, 6, 15, 11, 1, 10, 9, 3, 14, 5, 0, 12, 7,
     1, 15, 13, 8, 10, 3, 7, 4, 12, 5, 6, 11, 0, 14, 9, 2,
     7, 11, 4, 1, 9, 12, 14, 2, 0, 6, 10, 13, 15, 3, 5, 8,
     2, 1, 14, 7, 4, 10, 8, 13, 15, 12, 9, 0, 3, 5, 6, 11],
]


def permute(value, table, width):
    """Bit i of the result is bit table[i] of value (1-based, both from the left)."""
    out = 0
    for pos in table:
        out = (out << 1) | ((value >> (width - pos)) & 1)
    return out


def subkeys(key):
    cd = permute(int.from_bytes(key, "big"), PC1, 64)
    c, d = cd >> 28, cd & 0xFFFFFFF
    keys = []
    for s in SHIFTS:
        c = ((c << s) | (c >> (28 - s))) & 0xFFFFFFF
        d = ((d << s) | (d >> (28 - s))) & 0xFFFFFFF
        keys.append(permute((c << 28) | d, PC2, 56))
    return keys


def feistel(r, k):
    x = permute(r, E, 32) ^ k
    out = 0
    for i in range(8):
        six = (x >> (42 - 6 * i)) & 0x3F
        row, col = ((six >> 4) & 2) | (six & 1), (six >> 1) & 0xF
        out = (out << 4) | S[i][row * 16 + col]
    return permute(out, P, 32)


def des_block(block, key, decipher=False):
    keys = subkeys(key)
    if decipher:
        keys = keys[::-1]
    v = permute(int.from_bytes(block, "big"), IP, 64)
    l, r = v >> 32, v & 0xFFFFFFFF
    for k in keys:
        l, r = r, l ^ feistel(r, k)
    return permute((r << 32) | l, FP, 64).to_bytes(8, "big")



def des_ecb(data, decipher=False):
    """The whole 8-byte blocks of data through DES with the built-in key;
    the len mod 8 bytes behind them unchanged."""
    whole = len(data) // 8 * 8
    blocks = b"".join(des_block(data[i:i + 8], KEY, decipher) for i in range(0, whole, 8))
    return blocks + data[whole:]


def backup_of(store_bytes, xorout=0, init=0):
    payload = des_ecb(store_bytes)
    crc = crc32c(payload, init, xorout)
    return MAGIC + crc.to_bytes(4, "little") + bytes(24) + payload


def test_own_des_matches_the_standard_vector():
    assert des_block(bytes.fromhex("0123456789ABCDEF"), bytes.fromhex("133457799BBCDFF1")) == \
        bytes.fromhex("85E813540F0AB405")
    assert des_block(bytes.fromhex("85E813540F0AB405"), bytes.fromhex("133457799BBCDFF1"),
                     decipher=True) == bytes.fromhex("0123456789ABCDEF")


def test_own_crc_parameters():
    assert crc32c(b"123456789") == 0x58E3FA20
    assert crc32c(b"123456789", 0xFFFFFFFF, 0xFFFFFFFF) == 0xE3069283


def openssl_des(data, decipher, tmp_path):
    """OpenSSL's DES-ECB of data (a multiple of 8 bytes) with the built-in
    key, or None when openssl has no legacy provider."""
    argv = ["openssl", "enc", "-des-ecb", "-nopad", "-K", KEY.hex().upper(),
            "-provider", "legacy", "-provider", "default"] + (["-d"] if decipher else [])
    if not shutil.which("openssl"):
        return None
    src, dst = tmp_path / "openssl.in", tmp_path / "openssl.out"
    src.write_bytes(data)
    r = subprocess.run(argv + ["-in", str(src), "-out", str(dst)], capture_output=True)
    if r.returncode != 0:
        return None
    return dst.read_bytes()


# --------------------------------------------------------------------------
# Fixtures and helpers
# --------------------------------------------------------------------------

@pytest.fixture
def clean(sandbox, daemon):
    """No restore files before and after; the real sysconf and the factory
    store back after each test."""
    store = sandbox.read(STORE)
    real = sandbox.read(SYSCONF)
    for p in (UPFILE, LOCK, NEW, CHECK_DONE):
        sandbox.remove(p)
    yield
    sandbox.remove(SYSCONF)
    sandbox.write(SYSCONF, real, mode=0o755)
    sandbox.write(STORE, store)
    for p in (UPFILE, LOCK, NEW, CHECK_DONE):
        sandbox.remove(p)


class Upload:
    """Puts data (None: nothing) at /var/tmp/upfile and asks for the
    restore: the reply and what the daemon printed."""

    def __init__(self, sandbox, daemon, data):
        if data is not None:
            sandbox.write(UPFILE, data)
        before = daemon.stdout()
        self.reply = revalidate(sandbox, {"uploadsysconf": {}})
        self.out = stdout_since(sandbox, daemon, before)
        assert not sandbox.exists(UPFILE)
        assert not sandbox.exists(LOCK)


def export_in_sandbox(sandbox, db_path, bak_path):
    r = sandbox.run([SYSCONF, "export", bak_path], env={"DB_FILE": db_path})
    assert (r.returncode, r.stdout, r.stderr) == (0, b"", b"")
    return sandbox.read(bak_path)


def store_backup(sandbox):
    """The backup of the sandbox's persistent store, made by sysconf."""
    return export_in_sandbox(sandbox, STORE, "/tmp/store.bak")


def pref_get(sandbox, key):
    return send(sandbox, {"method": "pref-get", "arguments": {"confs": [key]}})


def get_reply(confs):
    return b'{ "arguments": { "confs": ' + confs + b', "infos": { } }, "result": "success" }'


# --------------------------------------------------------------------------
# The file format, against the independent implementations
# --------------------------------------------------------------------------

def test_export_of_the_store_matches_own_crc_and_des(clean, sandbox, tmp_path):
    store = sandbox.read(STORE)
    backup = store_backup(sandbox)
    assert backup == backup_of(store)
    assert des_ecb(backup[32:], decipher=True) == store
    whole = len(store) // 8 * 8
    ciphered = openssl_des(store[:whole], False, tmp_path)
    if ciphered is None:
        pytest.skip("openssl has no legacy provider (DES); own DES checked above")
    assert ciphered == backup[32:32 + whole]
    assert openssl_des(backup[32:32 + whole], True, tmp_path) == store[:whole]


ODD = bytes(range(7, 7 + 21))     # 21 bytes: 2 blocks and 5 bytes in plain


def test_payload_not_multiple_of_8_keeps_its_tail_plain(clean, sandbox):
    sandbox.write("/tmp/odd.db", ODD)
    backup = export_in_sandbox(sandbox, "/tmp/odd.db", "/tmp/odd.bak")
    assert len(backup) == 32 + 21
    assert backup == backup_of(ODD)
    assert backup[32 + 16:] == ODD[16:]
    assert backup[32:32 + 16] == des_ecb(ODD[:16])


# --------------------------------------------------------------------------
# The restore
# --------------------------------------------------------------------------

def test_restore_puts_the_backed_up_store_back(clean, sandbox, daemon):
    backup = store_backup(sandbox)
    old = sandbox.store_get("sysconf", "wl_ssid")
    assert old == b'"HX-Travel"\0'
    assert send(sandbox, {"method": "pref-set",
                          "arguments": {"confs": {"wl_ssid": "Changed"}}}) == SUCCESS
    assert sandbox.store_get("sysconf", "wl_ssid") == b'"Changed"\0'
    inode = os.stat(sandbox.path(STORE)).st_ino
    sandbox.write(CHECK_DONE, b"")
    up = Upload(sandbox, daemon, backup)
    assert (up.reply, up.out) == (SUCCESS, "sysconf success\n")
    assert sandbox.store_get("sysconf", "wl_ssid") == old
    assert pref_get(sandbox, "wl_ssid") == get_reply(b'{ "wl_ssid": "HX-Travel" }')
    assert not sandbox.exists(CHECK_DONE)
    # sysconf rep installed a copy of the converted file, which stays.
    assert sandbox.read(NEW) == des_ecb(backup[32:], decipher=True)
    assert sandbox.read(STORE) == sandbox.read(NEW)
    assert os.stat(sandbox.path(STORE)).st_ino != inode


def test_flipped_reserved_byte_is_accepted(clean, sandbox, daemon):
    backup = bytearray(store_backup(sandbox))
    backup[8] ^= 0xFF
    backup[31] ^= 0x01
    sandbox.store_set("sysconf", "wl_ssid", b'"Changed"\0')
    up = Upload(sandbox, daemon, bytes(backup))
    assert (up.reply, up.out) == (SUCCESS, "sysconf success\n")
    assert sandbox.store_get("sysconf", "wl_ssid") == b'"HX-Travel"\0'


def refused(sandbox, daemon, data, out):
    """The restore of data fails before "sysconf rep" with these lines; the
    store and the marker file are untouched, nothing is converted."""
    store = sandbox.read(STORE)
    sandbox.write(CHECK_DONE, b"")
    sandbox.clear_cmdlog()
    up = Upload(sandbox, daemon, data)
    assert (up.reply, up.out) == (INTERNAL, out)
    assert sandbox.read(STORE) == store
    assert sandbox.exists(CHECK_DONE)
    assert not sandbox.exists(NEW)


@pytest.mark.parametrize("at", [32, 33, 39, 40, -1], ids=["first", "second", "block-end",
                                                            "second-block", "last"])
def test_flipped_payload_byte_is_a_crc_error(clean, sandbox, daemon, at):
    backup = bytearray(store_backup(sandbox))
    backup[at] ^= 0x01
    refused(sandbox, daemon, bytes(backup), "invalid configure file, crc error\n")


def test_usual_crc32c_parameters_are_a_crc_error(clean, sandbox, daemon):
    store = sandbox.read(STORE)
    usual = backup_of(store, init=0xFFFFFFFF, xorout=0xFFFFFFFF)
    assert usual[4:8] != backup_of(store)[4:8]
    refused(sandbox, daemon, usual, "invalid configure file, crc error\n")


def test_big_endian_magic_is_a_magic_number_error(clean, sandbox, daemon):
    backup = store_backup(sandbox)
    refused(sandbox, daemon, bytes.fromhex("88E7221F") + backup[4:],
            "magic number mismatch\ninvalid configure file, magic number error\n")


def test_file_of_32_bytes_is_a_size_error(clean, sandbox, daemon):
    refused(sandbox, daemon, store_backup(sandbox)[:32], "invalid configure file, size error\n")


def test_empty_file_is_a_size_error(clean, sandbox, daemon):
    refused(sandbox, daemon, b"", "invalid configure file, size error\n")


def test_missing_upfile(clean, sandbox, daemon):
    refused(sandbox, daemon, None,
            "stat /var/tmp/upfile fail\nfailed to get file size for /var/tmp/upfile\n")


def test_upfile_locked_removes_both_files(clean, sandbox, daemon):
    sandbox.write(LOCK, b"12\n")
    refused(sandbox, daemon, store_backup(sandbox), "upfile locked\n")


def test_lock_left_by_nobody_blocks_only_one_restore(clean, sandbox, daemon):
    """Step 5 removes the lock that step 1 found, so the next restore runs."""
    sandbox.write(LOCK, b"")
    backup = store_backup(sandbox)
    assert Upload(sandbox, daemon, backup).out == "upfile locked\n"
    up = Upload(sandbox, daemon, backup)
    assert (up.reply, up.out) == (SUCCESS, "sysconf success\n")


def test_payload_not_a_store_fails_in_sysconf_rep(clean, sandbox, daemon):
    """conf_to_db takes it (the round trip of an odd length); sysconf rep
    refuses it with status 2 and leaves the store as it is."""
    store = sandbox.read(STORE)
    sandbox.write(CHECK_DONE, b"")
    err0 = daemon.stderr()
    up = Upload(sandbox, daemon, backup_of(ODD))
    assert (up.reply, up.out) == (INTERNAL, "system fail, ret=2\n")
    assert sandbox.read(NEW) == ODD
    assert sandbox.read(STORE) == store
    assert not sandbox.exists(CHECK_DONE)
    assert daemon.stderr()[len(err0):] == \
        "sysconf: /var/tmp/new_sysconf.gdbm: not a gdbm store (Unexpected end of file)\n"


def test_sysconf_exit_status_is_reported(clean, sandbox, daemon):
    sandbox.stub(SYSCONF, "exit 7\n")
    sandbox.clear_cmdlog()
    up = Upload(sandbox, daemon, store_backup_before_stub(sandbox))
    assert (up.reply, up.out) == (INTERNAL, "system fail, ret=7\n")
    assert sandbox.cmdlog() == [[SYSCONF, "rep", NEW]]


def store_backup_before_stub(sandbox):
    """A backup made without sysconf (the stub replaces it)."""
    return backup_of(sandbox.read(STORE))


def test_shell_killed_by_a_signal(clean, sandbox, daemon):
    """The stub kills the shell that system() started (Debian's dash runs
    the command in a child), or itself when the shell exec'd it."""
    sandbox.stub(SYSCONF, 'if [ "$(cat /proc/$PPID/comm)" = sh ]; then kill -KILL $PPID; '
                          'else kill -KILL $$; fi\n')
    up = Upload(sandbox, daemon, store_backup_before_stub(sandbox))
    assert (up.reply, up.out) == (INTERNAL, "system fail\n")


def test_sysconf_killed_under_the_shell(clean, sandbox, daemon):
    """Killed under dash, which forks for it: the shell exits 128 + 9."""
    sandbox.stub(SYSCONF, "kill -KILL $$\n")
    up = Upload(sandbox, daemon, store_backup_before_stub(sandbox))
    assert (up.reply, up.out) == (INTERNAL, "system fail, ret=137\n")


def test_target_ignores_its_value(clean, sandbox, daemon):
    sandbox.write(UPFILE, store_backup(sandbox))
    before = daemon.stdout()
    assert revalidate(sandbox, {"uploadsysconf": "anything"}) == SUCCESS
    assert stdout_since(sandbox, daemon, before) == "sysconf success\n"
    assert not sandbox.exists(UPFILE)
