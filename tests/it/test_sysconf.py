"""sysconf, the store tool, inside the sandbox on stores of its own under /tmp;
records are read and written from the host with the same gdbm."""
import dbm.gnu
import os
import shlex

import pytest

S, R, I, J, N = "/tmp/sc.gdbm", "/tmp/rt.gdbm", "/tmp/si.gdbm", "/tmp/in.json", "/tmp/new.gdbm"
ENV = {"DB_FILE": S, "RT_DB_FILE": R, "INFO_DB_FILE": I}
OK = (0, b"", b"")
TRY = b"Try 'sysconf --help' for more information.\n"
KEPT = {b"wl_ssid\0": b'"Trip"\0', b"list\0": b"[ 1, 2 ]\0"}
NO_DIR = b"File open error: No such file or directory"


def E(text, status=2):
    return status, b"", b"sysconf: " + text + b"\n"


def records(sandbox, p):
    if not os.path.exists(sandbox.path(p)):
        return None
    with dbm.gnu.open(sandbox.path(p), "r") as db:
        return {k: db[k] for k in db.keys()}


@pytest.fixture
def sh(sandbox):
    """Runs a shell command line inside with the stores at S, R and I; before:
    {path: records, or a file's bytes}."""
    def run(cmd, before=None):
        for p, content in (before or {}).items():
            if isinstance(content, dict):
                with dbm.gnu.open(sandbox.path(p), "c") as db:
                    for k, v in content.items():
                        db[k] = v
            else:
                sandbox.write(p, content)
        r = sandbox.run(["/bin/sh", "-c", cmd], env=ENV)
        return r.returncode, r.stdout, r.stderr
    sandbox.run(["/bin/rm", "-rf", S, R, I, J, N, "/tmp/l"])
    yield run
    assert [n for n in os.listdir(sandbox.path("/tmp")) if n.startswith(("sc.gdbm.", "rt.gdbm."))] == []


SET = [('"Trip"', b'"Trip"'), ("[1,2]", b"[ 1, 2 ]"), ('{"a":1,"b":[true,null]}', b'{ "a": 1, "b": [ true, null ] }'),
       ('"/tmp/a"', b'"\\/tmp\\/a"'), ("null", b"null"), (" 5 ", b"5"), ("1.50", b"1.50"), ("{}", b"{ }"),
       ("[]", b"[ ]"), ('"\\u00e9"', '"\u00e9"'.encode())]
NOT_JSON = ["Trip", "", "1 2", "'x'", "NaN", "[1,]", '{"a":1} x', "True", "on"]


def test_set_stores_json_as_pref_set_renders_it(sh, sandbox):
    cmd = "; ".join(f"sysconf set k {shlex.quote(v)} && sysconf get k" for v, _ in SET)
    assert sh(cmd) == (0, b"".join(s + b"\n" for _, s in SET), b"")
    assert records(sandbox, S) == {b"k\0": SET[-1][1] + b"\0"}
    cmd = "; ".join(f"sysconf set k {shlex.quote(v)}; echo $?" for v in NOT_JSON)
    assert sh(cmd) == (0, b"2\n" * len(NOT_JSON), b"".join(
        b"sysconf: not JSON text: %s (use --raw for plain text)\n" % v.encode() for v in NOT_JSON))


LOAD = b'{"wl_ssid": "Trip", "list": [1, 2], "obj": {"a": "/b"}, "n": null, "t": true, "num": 1.50, "s": "on"}'
LOADED = {b"wl_ssid\0": b'"Trip"\0', b"list\0": b"[ 1, 2 ]\0", b"obj\0": b'{ "a": "\\/b" }\0', b"n\0": b"null\0",
          b"t\0": b"true\0", b"num\0": b"1.50\0", b"s\0": b'"on"\0'}
DUMPED = {b"bare": b'"key without nul"\0', b"dup": b'"without"\0', b"dup\0": b'"with"\0', b"empty\0": b"\0",
          b"list\0": b"[ 1, [ ] ]\0", b"nonul\0": b'"x"', b"null\0": b"null\0", b"path\0": b'"\\/tmp"\0',
          b"trail\0": b"1 2\0", b"word\0": b"on\0"}
NOT_OBJECT = [b"[1]", b'"str"', b"null", b"not json", b'{"a":1} x', b'{"a":1,}', b"", b'{"a":1}\0{"b":2}']
U = b"usage: sysconf [--store STORE] [--raw] "
USAGE = [("", b"missing command"), ("bogus", b"unknown command 'bogus'"), ("get", U + b"get KEY"),
         ("get a b", U + b"get KEY"), ("set a", U + b"set KEY VALUE"), ("dump x", U + b"dump"),
         ("dump --raw", U + b"dump"), ("load", U + b"load FILE"), ("rep", U + b"rep FILE"),
         ("rep a b", U + b"rep FILE"), ("export", U + b"export BACKUP"), ("import a b", U + b"import BACKUP"),
         ("--store", b"option '--store' needs an argument"), ("-x dump", b"unknown option '-x'"),
         ("--store bogus dump", b"unknown store 'bogus' (sysconf, rtconf or sysinfo)"),
         ("--bogus dump", b"unknown option '--bogus'")]

CASES = [  # id, command line, stores and files before, (status, stdout, stderr), stores after
    ("set-keeps-others", "sysconf set a '\"x\"'", {S: {b"a\0": b"1\0", b"b\0": b"2\0"}}, OK,
     {S: {b"a\0": b'"x"\0', b"b\0": b"2\0"}}),
    ("set-creates-0664", "umask 0; sysconf set a 1 && stat -c %a $DB_FILE", {}, (0, b"664\n", b""), {S: {b"a\0": b"1\0"}}),
    ("raw-rtconf", "sysconf --store rtconf --raw set note 'plain \"w\" /x' && sysconf --store rtconf get note", {},
     (0, b'plain "w" /x\n', b""), {R: {b"note\0": b'plain "w" /x\0'}, S: None}),
    ("raw-sysinfo", "sysconf --raw --store sysinfo set k 1", {}, OK, {I: {b"k\0": b"1\0"}, S: None, R: None}),
    ("raw-empty", "sysconf --raw set a ''", {}, E(b"empty value (an empty value counts as absent)"), {S: None}),
    ("set-no-dir", "DB_FILE=/tmp/no/x.gdbm sysconf set a 1", {}, E(b"cannot open /tmp/no/x.gdbm: " + NO_DIR, 3), {}),
    ("get-text", "for k in a b c; do sysconf get $k; done", {S: {b"a\0": b"plain\0", b"b\0": b"no nul", b"c\0": b"cut\0x\0"}},
     (0, b"plain\nno nul\ncut\n", b""), {}),
    ("get-absent", "for k in k e z n; do sysconf get $k; echo $?; done",
     {S: {b"e\0": b"\0", b"z\0": b"", b"n": b"1\0", b"K\0": b"1\0"}}, (0, b"1\n" * 4, b"".join(
         b"sysconf: %s: no value\n" % k for k in (b"k", b"e", b"z", b"n"))), {}),
    ("get-no-store", "sysconf get k", {}, E(b"cannot open /tmp/sc.gdbm: " + NO_DIR, 3), {S: None}),
    ("get-not-store", "sysconf get k", {S: b"not a gdbm file\n" * 20}, E(b"cannot open /tmp/sc.gdbm: Bad magic number", 3), {}),
    ("dump", "sysconf dump", {S: DUMPED}, (0, b'{\n  "bare": "key without nul",\n  "dup": "with",\n  "empty": "",\n'
     b'  "list": [\n    1,\n    [\n    ]\n  ],\n  "nonul": "x",\n  "null": null,\n  "path": "/tmp",\n  "trail": 1,\n'
     b'  "word": "on"\n}\n', b""), {}),
    ("dump-raw", "sysconf --raw dump", {S: DUMPED}, (0, b'{\n  "bare": "\\"key without nul\\"",\n  "dup": "\\"with\\"",\n'
     b'  "empty": "",\n  "list": "[ 1, [ ] ]",\n  "nonul": "\\"x\\"",\n  "null": "null",\n  "path": "\\"\\\\/tmp\\"",\n'
     b'  "trail": "1 2",\n  "word": "on"\n}\n', b""), {}),
    ("dump-empty", "sysconf --store sysconf dump", {S: {}}, (0, b"{\n}\n", b""), {}),
    ("dump-rtconf", "sysconf --store rtconf dump", {R: {b"s\0": b"-1\0"}}, (0, b'{\n  "s": -1\n}\n', b""), {}),
    ("dump-no-store", "sysconf --store sysinfo dump", {}, E(b"cannot open /tmp/si.gdbm: " + NO_DIR, 3), {}),
    ("load", "sysconf load " + J, {J: LOAD[:-1] + b', "e": ""}'}, OK, {S: {**LOADED, b"e\0": b'""\0'}}),
    ("load-raw", "sysconf --raw --store rtconf load " + J, {J: LOAD}, OK,
     {R: {**LOADED, b"wl_ssid\0": b"Trip\0", b"s\0": b"on\0"}, S: None}),
    ("load-keeps-others", "sysconf load " + J, {S: {b"a\0": b"1\0", b"b\0": b"2\0"}, J: b'{"b": 3, "c": 4}'}, OK,
     {S: {b"a\0": b"1\0", b"b\0": b"3\0", b"c\0": b"4\0"}}),
    ("load-creates-0664", f"umask 0; sysconf load {J} && stat -c %a $DB_FILE", {J: b"{}"}, (0, b"664\n", b""), {S: {}}),
    ("load-missing", "sysconf load " + J, {}, E(b"cannot read /tmp/in.json: No such file or directory"), {S: None}),
    ("load-raw-empty", "sysconf --raw load " + J, {J: b'{"a": "x", "b": ""}'}, E(b"/tmp/in.json: b: empty value"), {S: None}),
    ("load-no-dir", "DB_FILE=/tmp/no/x.gdbm sysconf load " + J, {J: b"{}"}, E(b"cannot open /tmp/no/x.gdbm: " + NO_DIR, 3), {}),
    ("not-object", "for f in /tmp/l/*; do sysconf load $f; echo $?; done", {f"/tmp/l/{i}": t for i, t in enumerate(NOT_OBJECT)},
     (0, b"2\n" * 8, b"".join(b"sysconf: /tmp/l/%d: not a JSON object\n" % i for i in range(8))), {S: None}),
    ("raw-round-trip", f"sysconf --store rtconf --raw dump >{J} && sysconf --raw load {J}", {R: {**KEPT, b"w\0": b"on\0"}},
     OK, {S: {**KEPT, b"w\0": b"on\0"}}),
    ("round-trip", f"sysconf --store rtconf dump >{J} && sysconf load {J}", {R: LOADED}, OK, {S: LOADED}),
    ("usage", "; ".join(f"sysconf {a}; echo $?" for a, _ in USAGE), {}, (0, b"64\n" * len(USAGE),
     b"".join(b"sysconf: " + m + b"\n" + TRY for _, m in USAGE)), {S: None}),
    ("rep", f"i=$(stat -c %i $DB_FILE); umask 0; sysconf rep {N} && [ $(stat -c %i $DB_FILE) != $i ] && stat -c %a $DB_FILE",
     {N: KEPT, S: {b"old\0": b"1\0"}}, (0, b"664\n", b""), {S: KEPT, N: KEPT}),
    ("rep-creates", f"sysconf --store rtconf rep {N}", {N: KEPT}, OK, {R: KEPT, S: None}),
    ("rep-junk", "sysconf rep " + N, {S: KEPT, N: b"not a gdbm file\n" * 200},
     E(b"/tmp/new.gdbm: not a gdbm store (Bad magic number)"), {S: KEPT}),
    ("rep-empty", "sysconf rep " + N, {S: KEPT, N: b""}, E(b"/tmp/new.gdbm: not a gdbm store (Empty database)"), {S: KEPT}),
    ("rep-missing", "sysconf rep " + N, {S: KEPT}, E(b"cannot read /tmp/new.gdbm: No such file or directory"), {S: KEPT}),
    ("rep-a-directory", "sysconf rep /tmp", {S: KEPT}, E(b"cannot read /tmp: Is a directory"), {S: KEPT}),
    ("rep-no-dir", "DB_FILE=/tmp/no/x.gdbm sysconf rep " + N, {N: KEPT},
     E(b"cannot create a file beside /tmp/no/x.gdbm: No such file or directory", 3), {}),
    ("rep-over-dir", f"mkdir -p {S}/in && sysconf rep {N}", {N: KEPT}, E(b"cannot replace /tmp/sc.gdbm: Is a directory", 3), {}),
    ("rep-too-long", f"DB_FILE=/tmp/{'a' * 4085} sysconf rep {N}", {N: KEPT}, E(b"/tmp/%s: path too long" % (b"a" * 4085), 3), {}),
]


@pytest.mark.parametrize("cmd, before, out, after", [c[1:] for c in CASES], ids=[c[0] for c in CASES])
def test_command(sh, sandbox, cmd, before, out, after):
    assert sh(cmd, before) == out
    assert {p: records(sandbox, p) for p in after} == after


def test_help_names_every_form_and_the_store_paths(sh):
    status, text, err = sh("sysconf --help && sysconf -h")
    assert (status, err) == (0, b"")
    assert text.startswith(b"Usage: sysconf [--store STORE] [--raw] COMMAND [ARG...]\n")
    for line in [b"\n  get KEY\n      print", b"\n  set KEY VALUE\n", b"\n  dump\n", b"\n  load FILE\n", b"\n  rep FILE\n",
                 b"\n  export BACKUP\n", b"\n  import BACKUP\n", b"\n          sysconf --store rtconf --raw set sync_result 1\n",
                 b"\n      sysconf  persistent settings, $DB_FILE, now /tmp/sc.gdbm\n",
                 b"\n      rtconf   run-time state, $RT_DB_FILE, now /tmp/rt.gdbm\n",
                 b"\n      sysinfo  product information, $INFO_DB_FILE, now /tmp/si.gdbm\n",
                 b"\n  1   the key is absent or its value empty\n", b"\n  3   the store cannot be opened or written\n"]:
        assert text.count(line) == 2, line


def test_default_paths_are_the_device_stores(sandbox):
    for store, key in [("sysconf", "lan_ipaddr"), ("sysinfo", "product_model"), ("rtconf", "lan_if")]:
        r = sandbox.run(["/usr/bin/sysconf", "--store", store, "get", key])
        assert (r.returncode, r.stdout, r.stderr) == (0, sandbox.store_get(store, key)[:-1] + b"\n", b"")
    assert sandbox.run(["/usr/bin/sysconf", "--store", "rtconf", "--raw", "set", "sync_result", "1"]).returncode == 0
    assert sandbox.store_get("rtconf", "sync_result") == b"1\0"
