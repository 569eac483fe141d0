"""sysconf inside the sandbox on stores of its own under /tmp; the host reads and writes their records with the same gdbm."""
import dbm.gnu
import os
import shlex

import pytest

S, R, I, J, N = "/tmp/sc.gdbm", "/tmp/rt.gdbm", "/tmp/si.gdbm", "/tmp/in.json", "/tmp/new.gdbm"
OK, TRY, NO_DIR = (0, b"", b""), b"Try 'sysconf --help' for more information.\n", b"File open error: No such file or directory"
KEPT = {b"wl_ssid\0": b'"Trip"\0', b"list\0": b"[ 1, 2 ]\0"}


def each(*cmds):
    """One command line that runs every command and prints its exit status."""
    return "; ".join(f"{c}; echo $?" for c in cmds)


def records(sandbox, p):
    if os.path.exists(sandbox.path(p)):
        with dbm.gnu.open(sandbox.path(p), "r") as db:
            return {k: db[k] for k in db.keys()}


@pytest.fixture
def sh(sandbox):
    """Runs a command line inside with the stores at S, R and I, after writing before: {path: records or bytes}."""
    def run(cmd, before):
        for p, content in before.items():
            if isinstance(content, bytes):
                sandbox.write(p, content)
            else:
                with dbm.gnu.open(sandbox.path(p), "c") as db:
                    for k, v in content.items():
                        db[k] = v
        r = sandbox.run(["/bin/sh", "-c", cmd], env={"DB_FILE": S, "RT_DB_FILE": R, "INFO_DB_FILE": I})
        return r.returncode, r.stdout, r.stderr
    sandbox.run(["/bin/rm", "-rf", S, R, I, J, J + ".raw", N, "/tmp/l"])
    yield run
    assert [n for n in os.listdir(sandbox.path("/tmp")) if n.startswith(("sc.gdbm.", "rt.gdbm."))] == []


SET = [('"Trip"', b'"Trip"'), ("[1,2]", b"[ 1, 2 ]"), ('{"a":1,"b":[true,null]}', b'{ "a": 1, "b": [ true, null ] }'), ("{}", b"{ }"),
       ('"/tmp/a"', b'"\\/tmp\\/a"'), ("null", b"null"), (" 5 ", b"5"), ("1.50", b"1.50"), ("[]", b"[ ]"), ('"\\u00e9"', '"\u00e9"'.encode())]
# the backup of PLAIN (a block and a tail kept in plain): magic, CRC-32C (initial 0, no final xor) of the payload,
# 24 reserved bytes, the payload in DES-ECB under the built-in key
HEAD, PLAIN = bytes.fromhex("1F22E788"), bytes.fromhex("0123456789ABCDEF AABB")
KNOWN = HEAD + bytes.fromhex("271257B4") + bytes(24) + bytes.fromhex("16819FAD126F5755 AABB")
CRC, SIZE = b"invalid configure file, crc error\n", b"invalid configure file, size error\n"
MAGIC, BAD_MAGIC = b"magic number mismatch\n", b"invalid configure file, magic number error\n"
STAT = b"stat %s fail\nfailed to get file size for %s\n"
IMPORTS = [  # a backup whose payload is accepted, then is no store, or refused with these lines
    KNOWN[:8] + b"\1" + KNOWN[9:], KNOWN[:31] + b"\1" + KNOWN[32:], HEAD + bytes.fromhex("D0594EA3") + bytes(24) + b"Q",
    (KNOWN[:4] + b"\x26" + KNOWN[5:], CRC), (KNOWN[:32] + b"\x17" + KNOWN[33:], CRC), (KNOWN[:-1] + b"\xBA", CRC),
    (KNOWN[:4] + bytes.fromhex("4CE28A57") + KNOWN[8:], CRC), (HEAD[::-1] + KNOWN[4:], MAGIC + BAD_MAGIC), (KNOWN[:32], SIZE), (b"", SIZE)]


NOT_JSON = ["Trip", "", "1 2", "'x'", "NaN", "[1,]", '{"a":1} x', "True", "on"]


LOAD = b'{"wl_ssid": "Trip", "list": [1, 2], "obj": {"a": "/b"}, "n": null, "t": true, "num": 1.50, "s": "on"}'
LOADED = {b"wl_ssid\0": b'"Trip"\0', b"list\0": b"[ 1, 2 ]\0", b"obj\0": b'{ "a": "\\/b" }\0', b"n\0": b"null\0",
          b"t\0": b"true\0", b"num\0": b"1.50\0", b"s\0": b'"on"\0'}
DUMPED = {b"bare": b'"key without nul"\0', b"dup": b'"without"\0', b"dup\0": b'"with"\0', b"empty\0": b"\0",
          b"list\0": b"[ 1, [ ] ]\0", b"nonul\0": b'"x"', b"null\0": b"null\0", b"path\0": b'"\\/tmp"\0',
          b"trail\0": b"1 2\0", b"word\0": b"on\0"}
NOT_OBJECT = [b"[1]", b'"str"', b"null", b"not json", b'{"a":1} x', b'{"a":1,}', b"", b'{"a":1}\0{"b":2}']
U = b"usage: sysconf [--store STORE] [--raw] "
USAGE = [("", b"missing command"), ("bogus", b"unknown command 'bogus'"), ("get", U + b"get KEY"), ("get a b", U + b"get KEY"),
         ("set a", U + b"set KEY VALUE"), ("dump x", U + b"dump"), ("dump --raw", U + b"dump"), ("load", U + b"load FILE"),
         ("rep", U + b"rep FILE"), ("rep a b", U + b"rep FILE"), ("export", U + b"export BACKUP"), ("import a b", U + b"import BACKUP"),
         ("--store", b"option '--store' needs an argument"), ("-x dump", b"unknown option '-x'"), ("--bogus dump", b"unknown option '--bogus'"),
         ("--store bogus dump", b"unknown store 'bogus' (sysconf, rtconf or sysinfo)")]

CASES = [  # id, command line, stores and files before, (status, stdout, stderr), stores after
    ("set-json", "; ".join(f"sysconf set k {shlex.quote(v)} && sysconf get k" for v, _ in SET), {},
     (0, b"".join(s + b"\n" for _, s in SET), b""), {S: {b"k\0": SET[-1][1] + b"\0"}}),
    ("set-not-json", each(*(f"sysconf set k {shlex.quote(v)}" for v in NOT_JSON)), {}, (0, b"2\n" * len(NOT_JSON), b"".join(
        b"sysconf: not JSON text: %s (use --raw for plain text)\n" % v.encode() for v in NOT_JSON)), {S: None}),
    ("set-creates-0664-or-replaces", "umask 0; sysconf --store rtconf set a 1 && stat -c %a $RT_DB_FILE && sysconf set a '\"x\"'",
     {S: {b"a\0": b"1\0", b"b\0": b"2\0"}}, (0, b"664\n", b""), {S: {b"a\0": b'"x"\0', b"b\0": b"2\0"}, R: {b"a\0": b"1\0"}}),
    ("raw", each("sysconf --store rtconf --raw set n 'plain \"w\" /x' && sysconf --store rtconf get n", "sysconf --raw --store sysinfo set k 1",
                 "sysconf --raw set a ''"), {}, (0, b'plain "w" /x\n0\n0\n2\n', b"sysconf: empty value (an empty value counts as absent)\n"),
     {R: {b"n\0": b'plain "w" /x\0'}, I: {b"k\0": b"1\0"}, S: None}),
    ("get", "for k in a b c k e z n; do sysconf get $k; echo $?; done", {S: {b"a\0": b"plain\0", b"b\0": b"no nul", b"c\0": b"cut\0x\0",
     b"e\0": b"\0", b"z\0": b"", b"n": b"1\0", b"K\0": b"1\0"}}, (0, b"plain\n0\nno nul\n0\ncut\n0\n" + b"1\n" * 4,
     b"".join(b"sysconf: %s: no value\n" % k for k in (b"k", b"e", b"z", b"n"))), {}),
    ("no-store", each("sysconf get k", "sysconf --store sysinfo dump", "DB_FILE=/tmp/no/x sysconf set a 1", f"DB_FILE=/tmp/no/x sysconf load {J}",
                      "sysconf --store rtconf get k"), {R: b"not a gdbm file\n" * 20, J: b"{}"}, (0, b"3\n" * 5, b"".join(b"sysconf: cannot open %s\n" % m for m in (
                          b"/tmp/sc.gdbm: " + NO_DIR, b"/tmp/si.gdbm: " + NO_DIR, b"/tmp/no/x: " + NO_DIR, b"/tmp/no/x: " + NO_DIR,
                          b"/tmp/rt.gdbm: Bad magic number"))), {S: None}),
    ("dump", "sysconf dump", {S: DUMPED}, (0, b'{\n  "bare": "key without nul",\n  "dup": "with",\n  "empty": "",\n  "list": [\n'
     b'    1,\n    [\n    ]\n  ],\n  "nonul": "x",\n  "null": null,\n  "path": "/tmp",\n  "trail": 1,\n  "word": "on"\n}\n', b""), {}),
    ("dump-raw", "sysconf --raw dump", {S: DUMPED}, (0, b'{\n  "bare": "\\"key without nul\\"",\n  "dup": "\\"with\\"",\n'
     b'  "empty": "",\n  "list": "[ 1, [ ] ]",\n  "nonul": "\\"x\\"",\n  "null": "null",\n  "path": "\\"\\\\/tmp\\"",\n'
     b'  "trail": "1 2",\n  "word": "on"\n}\n', b""), {}),
    ("dump-store", "sysconf --store sysconf dump && sysconf --store rtconf dump", {S: {}, R: {b"s\0": b"-1\0"}},
     (0, b'{\n}\n{\n  "s": -1\n}\n', b""), {}),
    ("load", "sysconf load " + J, {J: LOAD[:-1] + b', "e": ""}'}, OK, {S: {**LOADED, b"e\0": b'""\0'}}),
    ("load-raw", "sysconf --raw --store rtconf load " + J, {J: LOAD}, OK,
     {R: {**LOADED, b"wl_ssid\0": b"Trip\0", b"s\0": b"on\0"}, S: None}),
    ("load-creates-0664-or-adds", f"umask 0; sysconf --store rtconf load {J} && stat -c %a $RT_DB_FILE && sysconf load {J}",
     {S: {b"a\0": b"1\0", b"b\0": b"2\0"}, J: b'{"b": 3}'}, (0, b"664\n", b""), {S: {b"a\0": b"1\0", b"b\0": b"3\0"}, R: {b"b\0": b"3\0"}}),
    ("load-refused", each(*(f"sysconf load /tmp/l/{i}" for i in range(8)), f"sysconf load {J}", f"sysconf --raw load {J}.raw"),
     {J + ".raw": b'{"a": "x", "b": ""}', **{f"/tmp/l/{i}": t for i, t in enumerate(NOT_OBJECT)}}, (0, b"2\n" * 10, b"".join(
         b"sysconf: /tmp/l/%d: not a JSON object\n" % i for i in range(8)) + b"sysconf: cannot read /tmp/in.json: No such file or directory\n"
      b"sysconf: /tmp/in.json.raw: b: empty value\n"), {S: None}),
    ("usage", each(*(f"sysconf {a}" for a, _ in USAGE)), {}, (0, b"64\n" * 16, b"".join(b"sysconf: %s\n%s" % (m, TRY) for _, m in USAGE)), {S: None}),
    ("rep", f"i=$(stat -c %i $DB_FILE); umask 0; sysconf rep {N} && [ $(stat -c %i $DB_FILE) != $i ] && stat -c %a $DB_FILE && "
     f"sysconf --store rtconf rep {N}", {N: KEPT, S: {b"old\0": b"1\0"}}, (0, b"664\n", b""), {S: KEPT, N: KEPT, R: KEPT}),
    ("rep-refused", each(*(f"sysconf rep {f}" for f in ("/tmp/l/junk", "/tmp/l/empty", N, "/tmp"))),
     {S: KEPT, "/tmp/l/junk": b"not a gdbm file\n" * 200, "/tmp/l/empty": b""}, (0, b"2\n" * 4, b"".join(b"sysconf: %s\n" % m for m in (
         b"/tmp/l/junk: not a gdbm store (Bad magic number)", b"/tmp/l/empty: not a gdbm store (Empty database)",
         b"cannot read /tmp/new.gdbm: No such file or directory", b"cannot read /tmp: Is a directory"))), {S: KEPT}),
    ("export", "mkdir /tmp/l && python3 -c \"import socket; socket.socket(socket.AF_UNIX).bind('/tmp/l/sock')\"; " + each(
        f"sysconf --store sysinfo export {J} && cat {J}", f"DB_FILE={J}.e sysconf export {J}.bak && cat {J}.bak",
        *(f"DB_FILE={db} sysconf export {J}" for db in ("/tmp/none", "/tmp", "/tmp/l/sock")),
        "sysconf --store sysinfo export /tmp/no/x", "sysconf --store sysinfo export /dev/full", f"cat {J}"),
     {I: PLAIN, J: b"x" * 100, J + ".e": b""}, (0, KNOWN + b"0\n" + HEAD + bytes(28) + b"0\n" + STAT % (b"/tmp/none", b"/tmp/none") + b"3\n"
     b"fread fail\nfail to read /tmp\n3\nopen file /tmp/l/sock for read fail\nfail to read /tmp/l/sock\n3\n"
     b"open file /tmp/no/x for write fail\nfail to write /tmp/no/x\n3\nfwrite fail\nfail to write /dev/full\n3\n" + KNOWN + b"0\n", b""), {}),
    ("import-refused", each(*(f"sysconf import /tmp/l/{i:02}" for i in range(len(IMPORTS))), "sysconf import /tmp/none", "sysconf import /tmp"),
     {S: KEPT, **{f"/tmp/l/{i:02}": b if isinstance(b, bytes) else b[0] for i, b in enumerate(IMPORTS)}},
     (0, b"".join(b"2\n" if isinstance(b, bytes) else b[1] + b"2\n" for b in IMPORTS) + STAT % (b"/tmp/none", b"/tmp/none") + b"2\n"
      b"fread fail\nfail to read file header\n" + BAD_MAGIC + b"2\n", b"".join(
         b"sysconf: /tmp/l/%02d: the payload is not a gdbm store (Unexpected end of file)\n" % i for i in range(3))), {S: KEPT}),
    ("import", f"i=$(stat -c %i $DB_FILE); sysconf --store rtconf export {J} && umask 027 && sysconf import {J} && "
     "[ $(stat -c %i $DB_FILE) != $i ] && stat -c %a $DB_FILE", {S: {b"old\0": b"1\0"}, R: KEPT}, (0, b"640\n", b""), {S: KEPT}),
    ("rep-fails", f"mkdir -p {S}/in; " + each(*(f"{db}sysconf rep {N}" for db in ("DB_FILE=/tmp/no/x ", "", f"DB_FILE=/tmp/{'a' * 4085} "))),
     {N: KEPT}, (0, b"3\n" * 3, b"sysconf: cannot create a file beside /tmp/no/x: No such file or directory\n"
                 b"sysconf: cannot replace /tmp/sc.gdbm: Is a directory\nsysconf: /tmp/%s: path too long\n" % (b"a" * 4085)), {}),
]


@pytest.mark.parametrize("cmd, before, out, after", [c[1:] for c in CASES], ids=[c[0] for c in CASES])
def test_command(sh, sandbox, cmd, before, out, after):
    assert sh(cmd, before) == out
    assert {p: records(sandbox, p) for p in after} == after


def test_help_names_the_stores_and_their_paths(sh):
    status, text, err = sh("sysconf --help && sysconf -h", {})
    assert (status, err, text.count(b"Usage: sysconf [--store STORE] [--raw] COMMAND [ARG...]\n"), text.count(b"\n  64  usage error\n")) == (0, b"", 2, 2)
    assert text.count(b"\n      rtconf   run-time state, $RT_DB_FILE, now /tmp/rt.gdbm\n") == text.count(b", now /tmp/") / 3 == 2
