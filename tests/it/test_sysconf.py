"""sysconf, the device's store tool (DESIGN.md section 1; store format of
spec Part 3.1).

Every run is inside the sandbox (the store layer writes to /dev/console).
Tests that need a fresh store point DB_FILE, RT_DB_FILE and INFO_DB_FILE at
new paths under the sandbox's /tmp; the raw records are read and written
inside the sandbox with python3-gdbm, so keys and values are seen byte for
byte (NULs included).
"""
import json
import os
import subprocess
import uuid

import pytest

SYSCONF = "/usr/bin/sysconf"
HXCTL = "/usr/bin/hxctl"
TRY = b"Try 'sysconf --help' for more information.\n"

GDBM_READ = r'''
import dbm.gnu, json, sys
try:
    db = dbm.gnu.open(sys.argv[1], "r")
except dbm.gnu.error:
    print("null")
    sys.exit()
records, key = {}, db.firstkey()
while key is not None:
    records[key.hex()] = db[key].hex()
    key = db.nextkey(key)
print(json.dumps(records))
'''

GDBM_WRITE = r'''
import dbm.gnu, json, sys
db = dbm.gnu.open(sys.argv[1], "c")
for key, value in json.loads(sys.argv[2]).items():
    db[bytes.fromhex(key)] = bytes.fromhex(value)
db.close()
'''


class Stores:
    """Fresh store paths inside the sandbox, and the environment naming them."""

    def __init__(self, sandbox):
        base = "/tmp/sysconf-%s" % uuid.uuid4().hex[:12]
        self.sandbox = sandbox
        self.sysconf = base + "-sysconf.gdbm"
        self.rtconf = base + "-rtconf.gdbm"
        self.sysinfo = base + "-sysinfo.gdbm"
        self.json = base + ".json"
        self.env = {"DB_FILE": self.sysconf, "RT_DB_FILE": self.rtconf,
                    "INFO_DB_FILE": self.sysinfo}

    def run(self, *args, input=None):
        return self.sandbox.run([SYSCONF, *args], input=input, env=self.env)

    def records(self, path=None):
        """{key bytes: value bytes} of a store file, or None when absent."""
        r = self.sandbox.run(["/usr/bin/python3", "-c", GDBM_READ, path or self.sysconf])
        assert (r.returncode, r.stderr) == (0, b"")
        found = json.loads(r.stdout)
        if found is None:
            return None
        return {bytes.fromhex(k): bytes.fromhex(v) for k, v in found.items()}

    def put(self, records, path=None):
        """Stores raw records, exactly as given, creating the store."""
        text = json.dumps({k.hex(): v.hex() for k, v in records.items()})
        r = self.sandbox.run(["/usr/bin/python3", "-c", GDBM_WRITE, path or self.sysconf, text])
        assert (r.returncode, r.stderr) == (0, b"")


@pytest.fixture
def st(sandbox):
    return Stores(sandbox)


def ok(r, stdout=b""):
    assert (r.returncode, r.stdout, r.stderr) == (0, stdout, b"")


def fails(r, status, stderr):
    assert (r.returncode, r.stdout, r.stderr) == (status, b"", stderr)


# --------------------------------------------------------------------------
# set
# --------------------------------------------------------------------------

SET_JSON = [
    ('"Trip"', b'"Trip"'),
    ('[1,2]', b'[ 1, 2 ]'),
    ('{"a":1,"b":[true,null]}', b'{ "a": 1, "b": [ true, null ] }'),
    ('"/tmp/a"', b'"\\/tmp\\/a"'),
    ('"on"', b'"on"'),
    ('null', b'null'),
    (' 5 ', b'5'),
    ('1.50', b'1.50'),
    ('{}', b'{ }'),
    ('[]', b'[ ]'),
    ('"\\u00e9"', '"\u00e9"'.encode()),
]


@pytest.mark.parametrize("value,stored", SET_JSON, ids=[v for v, _ in SET_JSON])
def test_set_stores_json_as_pref_set_does(st, value, stored):
    ok(st.run("set", "wl_ssid", value))
    assert st.records() == {b"wl_ssid\0": stored + b"\0"}
    ok(st.run("get", "wl_ssid"), stored + b"\n")


@pytest.mark.parametrize("value", ["Trip", "", "1 2", "'x'", "NaN", "[1,]",
                                   '{"a":1} x', "True", "on"])
def test_set_refuses_what_is_not_json(st, value):
    fails(st.run("set", "wl_ssid", value), 2,
          b"sysconf: not JSON text: %s (use --raw for plain text)\n" % value.encode())
    assert st.records() is None


def test_set_replaces_and_keeps_other_keys(st):
    st.put({b"a\0": b"1\0", b"b\0": b"2\0"})
    ok(st.run("set", "a", '"x"'))
    assert st.records() == {b"a\0": b'"x"\0', b"b\0": b"2\0"}


def test_set_raw_stores_plain_text(st):
    ok(st.run("--store", "rtconf", "--raw", "set", "sync_result", "1"))
    ok(st.run("--raw", "--store", "rtconf", "set", "note", 'plain "word" /x'))
    assert st.records(st.rtconf) == {b"sync_result\0": b"1\0",
                                     b"note\0": b'plain "word" /x\0'}
    assert st.records() is None
    ok(st.run("--store", "rtconf", "get", "note"), b'plain "word" /x\n')


def test_set_raw_refuses_empty_value(st):
    fails(st.run("--raw", "set", "a", ""), 2,
          b"sysconf: empty value (an empty value counts as absent)\n")
    assert st.records() is None


def test_set_store_cannot_be_opened(st):
    st.env["DB_FILE"] = "/tmp/no-such-dir/x.gdbm"
    fails(st.run("set", "a", "1"), 3,
          b"sysconf: cannot open /tmp/no-such-dir/x.gdbm: File open error: "
          b"No such file or directory\n")


def test_each_store_follows_its_environment_variable(st):
    ok(st.run("set", "k", '"persistent"'))
    ok(st.run("--store", "rtconf", "set", "k", '"run-time"'))
    ok(st.run("--store", "sysinfo", "set", "k", '"product"'))
    assert st.records(st.sysconf) == {b"k\0": b'"persistent"\0'}
    assert st.records(st.rtconf) == {b"k\0": b'"run-time"\0'}
    assert st.records(st.sysinfo) == {b"k\0": b'"product"\0'}
    ok(st.run("--store", "sysinfo", "get", "k"), b'"product"\n')


def test_created_store_has_mode_0664(st, sandbox):
    r = sandbox.run(["/bin/sh", "-c", 'umask 002; exec "$@"', "sh", SYSCONF, "set", "a", "1"],
                    env=st.env)
    ok(r)
    ok(sandbox.run(["/usr/bin/stat", "-c", "%a", st.sysconf]), b"664\n")


# --------------------------------------------------------------------------
# get
# --------------------------------------------------------------------------

GET = [
    ({b"k\0": b'"Trip"\0'}, b'"Trip"\n'),
    ({b"k\0": b"plain word\0"}, b"plain word\n"),
    ({b"k\0": b"[ 1, 2 ]\0"}, b"[ 1, 2 ]\n"),
    ({b"k\0": b"no nul"}, b"no nul\n"),           # value stored without its NUL
    ({b"k\0": b"cut\0here\0"}, b"cut\n"),         # text ends at the first NUL
]


@pytest.mark.parametrize("records,stdout", GET)
def test_get_prints_value_text(st, records, stdout):
    st.put(records)
    ok(st.run("get", "k"), stdout)


@pytest.mark.parametrize("records", [
    {},
    {b"k\0": b"\0"},          # an empty value counts as missing
    {b"k\0": b""},
    {b"k": b'"x"\0'},         # a key without its NUL is not found
    {b"K\0": b'"x"\0'},
], ids=["absent", "empty", "no-bytes", "key-without-nul", "other-case"])
def test_get_absent_or_empty_exits_1(st, records):
    st.put(records)
    fails(st.run("get", "k"), 1, b"sysconf: k: no value\n")


def test_get_store_cannot_be_opened(st):
    fails(st.run("get", "k"), 3,
          b"sysconf: cannot open %s: File open error: No such file or directory\n"
          % st.sysconf.encode())


def test_get_file_that_is_not_a_store(st, sandbox):
    sandbox.write(st.sysconf, b"this is not a gdbm file\n" * 10)
    fails(st.run("get", "k"), 3, b"sysconf: cannot open %s: Bad magic number\n" % st.sysconf.encode())


# --------------------------------------------------------------------------
# dump
# --------------------------------------------------------------------------

DUMP_RECORDS = {
    b"wl_ssid\0": b'"Trip"\0',
    b"list\0": b"[ 1, 2 ]\0",
    b"word\0": b"on\0",
    b"num\0": b"12\0",
    b"empty\0": b"\0",
    b"null\0": b"null\0",
    b"path\0": b'"\\/tmp\\/a"\0',
    b"nonul\0": b'"x"',
    b"bare": b'"key without nul"\0',
    b"trail\0": b"1 2\0",
    b"obj\0": b'{ "a": { "b": [ ] } }\0',
    b"dup": b'"without nul"\0',
    b"dup\0": b'"with nul"\0',
}


def test_dump_parses_values_and_sorts_keys(st):
    st.put(DUMP_RECORDS)
    ok(st.run("dump"), b"""{
  "bare": "key without nul",
  "dup": "with nul",
  "empty": "",
  "list": [
    1,
    2
  ],
  "nonul": "x",
  "null": null,
  "num": 12,
  "obj": {
    "a": {
      "b": [
      ]
    }
  },
  "path": "/tmp/a",
  "trail": 1,
  "wl_ssid": "Trip",
  "word": "on"
}
""")


def test_dump_raw_shows_every_value_as_text(st):
    st.put(DUMP_RECORDS)
    ok(st.run("--raw", "dump"), b"""{
  "bare": "\\"key without nul\\"",
  "dup": "\\"with nul\\"",
  "empty": "",
  "list": "[ 1, 2 ]",
  "nonul": "\\"x\\"",
  "null": "null",
  "num": "12",
  "obj": "{ \\"a\\": { \\"b\\": [ ] } }",
  "path": "\\"\\\\/tmp\\\\/a\\"",
  "trail": "1 2",
  "wl_ssid": "\\"Trip\\"",
  "word": "on"
}
""")


def test_dump_empty_store(st):
    st.put({})
    ok(st.run("--store", "sysconf", "dump"), b"{\n}\n")


def test_dump_other_store(st):
    st.put({b"sync_result\0": b"-1\0"}, st.rtconf)
    ok(st.run("--store", "rtconf", "dump"), b'{\n  "sync_result": -1\n}\n')


def test_dump_store_cannot_be_opened(st):
    fails(st.run("--store", "sysinfo", "dump"), 3,
          b"sysconf: cannot open %s: File open error: No such file or directory\n"
          % st.sysinfo.encode())


# --------------------------------------------------------------------------
# load
# --------------------------------------------------------------------------

LOAD = (b'{"wl_ssid": "Trip", "list": [1, 2], "obj": {"a": "/b"}, "n": null,\n'
        b' "t": true, "num": 1.50, "s": "on", "e": ""}\n')


def test_load_stores_json_text_of_each_member(st, sandbox):
    sandbox.write(st.json, LOAD)
    ok(st.run("load", st.json))
    assert st.records() == {
        b"wl_ssid\0": b'"Trip"\0', b"list\0": b"[ 1, 2 ]\0",
        b"obj\0": b'{ "a": "\\/b" }\0', b"n\0": b"null\0", b"t\0": b"true\0",
        b"num\0": b"1.50\0", b"s\0": b'"on"\0', b"e\0": b'""\0'}


def test_load_raw_stores_strings_as_plain_text(st, sandbox):
    sandbox.write(st.json, LOAD.replace(b', "e": ""', b""))
    ok(st.run("--raw", "--store", "rtconf", "load", st.json))
    assert st.records(st.rtconf) == {
        b"wl_ssid\0": b"Trip\0", b"list\0": b"[ 1, 2 ]\0",
        b"obj\0": b'{ "a": "\\/b" }\0', b"n\0": b"null\0", b"t\0": b"true\0",
        b"num\0": b"1.50\0", b"s\0": b"on\0"}


def test_load_replaces_and_keeps_other_keys(st, sandbox):
    st.put({b"a\0": b"1\0", b"b\0": b"2\0"})
    sandbox.write(st.json, b'{"b": 3, "c": 4}')
    ok(st.run("load", st.json))
    assert st.records() == {b"a\0": b"1\0", b"b\0": b"3\0", b"c\0": b"4\0"}


def test_load_empty_object_creates_store_with_mode_0664(st, sandbox):
    sandbox.write(st.json, b"{}")
    r = sandbox.run(["/bin/sh", "-c", 'umask 002; exec "$@"', "sh", SYSCONF, "load", st.json],
                    env=st.env)
    ok(r)
    assert st.records() == {}
    ok(sandbox.run(["/usr/bin/stat", "-c", "%a", st.sysconf]), b"664\n")


@pytest.mark.parametrize("text", [b"[1]", b'"str"', b"null", b"not json", b'{"a":1} x',
                                  b'{"a":1,}', b"", b'{"a":1}\0{"b":2}'],
                         ids=["array", "string", "null", "word", "trailing", "comma",
                              "empty", "nul"])
def test_load_refuses_what_is_not_an_object(st, sandbox, text):
    sandbox.write(st.json, text)
    fails(st.run("load", st.json), 2, b"sysconf: %s: not a JSON object\n" % st.json.encode())
    assert st.records() is None


def test_load_missing_file(st):
    fails(st.run("load", st.json), 2,
          b"sysconf: cannot read %s: No such file or directory\n" % st.json.encode())
    assert st.records() is None


def test_load_raw_refuses_empty_string_and_stores_nothing(st, sandbox):
    sandbox.write(st.json, b'{"a": "x", "b": ""}')
    fails(st.run("--raw", "load", st.json), 2, b"sysconf: %s: b: empty value\n" % st.json.encode())
    assert st.records() is None


def test_load_store_cannot_be_opened(st, sandbox):
    sandbox.write(st.json, b'{"a": 1}')
    st.env["DB_FILE"] = "/tmp/no-such-dir/x.gdbm"
    fails(st.run("load", st.json), 3,
          b"sysconf: cannot open /tmp/no-such-dir/x.gdbm: File open error: "
          b"No such file or directory\n")


def test_dump_raw_then_load_raw_copies_a_store_exactly(st, sandbox):
    records = {b"wl_ssid\0": b'"Trip"\0', b"word\0": b"on\0", b"list\0": b"[ 1, 2 ]\0",
               b"trail\0": b"1 2\0", b"path\0": b'"\\/tmp"\0', b"n\0": b"-1\0"}
    st.put(records, st.rtconf)
    r = st.run("--store", "rtconf", "--raw", "dump")
    ok(r, r.stdout)
    sandbox.write(st.json, r.stdout)
    ok(st.run("--raw", "load", st.json))
    assert st.records() == records


def test_dump_then_load_copies_pref_set_values_exactly(st, sandbox):
    records = {b"wl_ssid\0": b'"Trip"\0', b"list\0": b"[ 1, 2 ]\0", b"n\0": b"null\0",
               b"obj\0": b'{ "a": [ { } ], "p": "\\/x" }\0', b"num\0": b"1.50\0"}
    st.put(records, st.rtconf)
    r = st.run("--store", "rtconf", "dump")
    ok(r, r.stdout)
    sandbox.write(st.json, r.stdout)
    ok(st.run("load", st.json))
    assert st.records() == records


# --------------------------------------------------------------------------
# Usage
# --------------------------------------------------------------------------

USAGE = [
    ([], b"missing command"),
    (["bogus"], b"unknown command 'bogus'"),
    (["get"], b"usage: sysconf [--store STORE] [--raw] get KEY"),
    (["get", "a", "b"], b"usage: sysconf [--store STORE] [--raw] get KEY"),
    (["set", "a"], b"usage: sysconf [--store STORE] [--raw] set KEY VALUE"),
    (["dump", "x"], b"usage: sysconf [--store STORE] [--raw] dump"),
    (["load"], b"usage: sysconf [--store STORE] [--raw] load FILE"),
    (["rep"], b"usage: sysconf [--store STORE] [--raw] rep FILE"),
    (["rep", "a", "b"], b"usage: sysconf [--store STORE] [--raw] rep FILE"),
    (["export"], b"usage: sysconf [--store STORE] [--raw] export BACKUP"),
    (["import", "a", "b"], b"usage: sysconf [--store STORE] [--raw] import BACKUP"),
    (["--store"], b"option '--store' needs an argument"),
    (["--store", "bogus", "dump"], b"unknown store 'bogus' (sysconf, rtconf or sysinfo)"),
    (["-x", "dump"], b"unknown option '-x'"),
    (["--bogus", "dump"], b"unknown option '--bogus'"),
    (["dump", "--raw"], b"usage: sysconf [--store STORE] [--raw] dump"),
]


@pytest.mark.parametrize("args,message", USAGE, ids=[" ".join(a) or "none" for a, _ in USAGE])
def test_usage_error_exits_64(st, args, message):
    fails(st.run(*args), 64, b"sysconf: " + message + b"\n" + TRY)


@pytest.mark.parametrize("flag", ["-h", "--help"])
def test_help_lists_every_form_with_an_example(st, flag):
    r = st.run(flag)
    assert (r.returncode, r.stderr) == (0, b"")
    text = r.stdout.decode()
    assert text.startswith("Usage: sysconf [--store STORE] [--raw] COMMAND [ARG...]\n")
    for line in ["\n  get KEY\n", "\n          sysconf get lan_ipaddr\n",
                 "\n  set KEY VALUE\n", "\n          sysconf set wl_ssid '\"Trip\"'\n",
                 "\n          sysconf --store rtconf --raw set sync_result 1\n",
                 "\n  dump\n", "\n          sysconf --store rtconf dump\n",
                 "\n  load FILE\n", "\n          sysconf load /tmp/defaults.json\n",
                 "\n  rep FILE\n", "\n          sysconf rep /var/tmp/new_sysconf.gdbm\n",
                 "\n  export BACKUP\n", "\n          sysconf export /tmp/sysconf.bak\n",
                 "\n  import BACKUP\n", "\n          sysconf import /tmp/sysconf.bak\n",
                 "  --store STORE", "  --raw ", "  -h, --help ",
                 "      sysconf  persistent settings, $DB_FILE, now %s\n" % st.sysconf,
                 "      rtconf   run-time state, $RT_DB_FILE, now %s\n" % st.rtconf,
                 "      sysinfo  product information, $INFO_DB_FILE, now %s\n" % st.sysinfo,
                 "  0   success\n", "  1   the key is absent or its value empty\n",
                 "  2   bad input", "  3   the store cannot be opened or written\n",
                 "  64  usage error\n"]:
        assert line in text, line


# --------------------------------------------------------------------------
# The sandbox's own stores, at the default paths
# --------------------------------------------------------------------------

def text_of(raw):
    return raw.split(b"\0")[0]


def default_run(sandbox, *args):
    return sandbox.run([SYSCONF, *args])


def test_default_paths_read_the_device_stores(sandbox):
    for store, key in [("sysconf", "lan_ipaddr"), ("sysinfo", "product_model"),
                       ("rtconf", "lan_if")]:
        raw = sandbox.store_get(store, key)
        assert raw is not None
        ok(default_run(sandbox, "--store", store, "get", key), text_of(raw) + b"\n")


def test_default_path_write_is_seen_by_the_sandbox(sandbox):
    ok(default_run(sandbox, "--store", "rtconf", "--raw", "set", "sync_result", "1"))
    assert text_of(sandbox.store_get("rtconf", "sync_result")) == b"1"
    ok(default_run(sandbox, "--store", "rtconf", "get", "sync_result"), b"1\n")


def test_daemon_and_sysconf_read_each_other(sandbox, daemon):
    ok(default_run(sandbox, "set", "wl_ssid", '"From sysconf"'))
    r = sandbox.run([HXCTL, "get", "wl_ssid"])
    ok(r, b'{"arguments":{"confs":{"wl_ssid":"From sysconf"},"infos":{}},"result":"success"}\n')
    ok(sandbox.run([HXCTL, "set", 'wl_ssid=["a/b", 1]']),
       b'{"arguments":{},"result":"success"}\n')
    ok(default_run(sandbox, "get", "wl_ssid"), b'[ "a\\/b", 1 ]\n')


# --------------------------------------------------------------------------
# rep, export, import (the backup file itself: test_p3_2_backup.py)
# --------------------------------------------------------------------------

RECORDS = {b"wl_ssid\0": b'"Trip"\0', b"list\0": b"[ 1, 2 ]\0"}
NOT_A_STORE = b"this is not a gdbm file\n" * 200


def inode(sandbox, path):
    r = sandbox.run(["/usr/bin/stat", "-c", "%i %a", path])
    assert r.returncode == 0
    return r.stdout


def leftovers(sandbox, path):
    """Files beside path whose names start with its name and a dot."""
    d, name = path.rsplit("/", 1)
    return sorted(n for n in os.listdir(sandbox.path(d)) if n.startswith(name + "."))


def test_export_then_import_into_another_store(st, sandbox):
    st.put(RECORDS)
    bak = st.json + ".bak"
    ok(st.run("export", bak))
    assert len(sandbox.read(bak)) == len(sandbox.read(st.sysconf)) + 32
    st.env["DB_FILE"] = st.rtconf
    ok(st.run("import", bak))
    assert sandbox.read(st.rtconf) == sandbox.read(st.sysconf)
    assert st.records(st.rtconf) == RECORDS
    assert leftovers(sandbox, st.rtconf) == []


def test_export_of_other_store(st, sandbox):
    st.put(RECORDS, st.sysinfo)
    bak = st.json + ".bak"
    ok(st.run("--store", "sysinfo", "export", bak))
    ok(st.run("import", bak))
    assert st.records() == RECORDS


def test_export_missing_store_exits_3(st, sandbox):
    bak = st.json + ".bak"
    r = st.run("export", bak)
    assert (r.returncode, r.stdout, r.stderr) == (
        3, b"stat %s fail\nfailed to get file size for %s\n" % ((st.sysconf.encode(),) * 2), b"")
    assert not sandbox.exists(bak)


def test_export_cannot_write_exits_3(st):
    st.put(RECORDS)
    r = st.run("export", "/tmp/no-such-dir/x.bak")
    assert (r.returncode, r.stdout, r.stderr) == (
        3, b"open file /tmp/no-such-dir/x.bak for write fail\n"
           b"fail to write /tmp/no-such-dir/x.bak\n", b"")


def test_import_replaces_store_atomically(st, sandbox):
    st.put(RECORDS)
    bak = st.json + ".bak"
    ok(st.run("export", bak))
    ok(st.run("set", "wl_ssid", '"Other"'))
    before = inode(sandbox, st.sysconf)
    r = sandbox.run(["/bin/sh", "-c", 'umask 002; exec "$@"', "sh", SYSCONF, "import", bak],
                    env=st.env)
    ok(r)
    assert st.records() == RECORDS
    after = inode(sandbox, st.sysconf)
    assert after.split()[0] != before.split()[0]
    assert after.split()[1] == b"664"
    assert leftovers(sandbox, st.sysconf) == []


def untouched(st, sandbox, before):
    """The store holds RECORDS in the same file, and no temporary file is left."""
    assert st.records() == RECORDS
    assert inode(sandbox, st.sysconf) == before
    assert leftovers(sandbox, st.sysconf) == []


def flip_byte_100(data):
    return data[:100] + bytes([data[100] ^ 0x80]) + data[101:]


@pytest.mark.parametrize("mangle,stdout", [
    (lambda data: data[:32], b"invalid configure file, size error\n"),
    (lambda data: b"", b"invalid configure file, size error\n"),
    (flip_byte_100, b"invalid configure file, crc error\n"),
    (lambda data: data[3::-1] + data[4:],
     b"magic number mismatch\ninvalid configure file, magic number error\n"),
], ids=["32-bytes", "empty", "crc", "big-endian-magic"])
def test_import_refused_backup_exits_2_store_untouched(st, sandbox, mangle, stdout):
    st.put(RECORDS)
    bak = st.json + ".bak"
    ok(st.run("export", bak))
    sandbox.write(bak, mangle(sandbox.read(bak)))
    before = inode(sandbox, st.sysconf)
    r = st.run("import", bak)
    assert (r.returncode, r.stdout, r.stderr) == (2, stdout, b"")
    untouched(st, sandbox, before)


def test_import_missing_backup_exits_2(st, sandbox):
    st.put(RECORDS)
    bak = st.json + ".bak"
    before = inode(sandbox, st.sysconf)
    r = st.run("import", bak)
    assert (r.returncode, r.stdout, r.stderr) == (
        2, b"stat %s fail\nfailed to get file size for %s\n" % ((bak.encode(),) * 2), b"")
    untouched(st, sandbox, before)


def test_import_payload_not_a_store_exits_2(st, sandbox):
    st.put(RECORDS)
    junk, bak = st.json + ".junk", st.json + ".bak"
    sandbox.write(junk, NOT_A_STORE)
    r = sandbox.run([SYSCONF, "export", bak], env={"DB_FILE": junk})
    ok(r)
    before = inode(sandbox, st.sysconf)
    fails(st.run("import", bak), 2,
          b"sysconf: %s: the payload is not a gdbm store (Bad magic number)\n" % bak.encode())
    untouched(st, sandbox, before)


def test_rep_replaces_store_atomically(st, sandbox):
    new = st.json + ".new.gdbm"
    st.put(RECORDS, new)
    st.put({b"old\0": b"1\0"})
    before = inode(sandbox, st.sysconf)
    r = sandbox.run(["/bin/sh", "-c", 'umask 002; exec "$@"', "sh", SYSCONF, "rep", new],
                    env=st.env)
    ok(r)
    assert sandbox.read(st.sysconf) == sandbox.read(new)
    assert st.records() == RECORDS
    after = inode(sandbox, st.sysconf)
    assert after.split()[0] != before.split()[0]
    assert after.split()[1] == b"664"
    assert leftovers(sandbox, st.sysconf) == []


def test_rep_mode_follows_umask(st, sandbox):
    new = st.json + ".new.gdbm"
    st.put(RECORDS, new)
    r = sandbox.run(["/bin/sh", "-c", 'umask 027; exec "$@"', "sh", SYSCONF, "rep", new],
                    env=st.env)
    ok(r)
    assert inode(sandbox, st.sysconf).split()[1] == b"640"


def test_rep_creates_missing_store(st, sandbox):
    new = st.json + ".new.gdbm"
    st.put(RECORDS, new)
    ok(st.run("--store", "rtconf", "rep", new))
    assert st.records(st.rtconf) == RECORDS
    assert st.records() is None


@pytest.mark.parametrize("data,reason", [
    (NOT_A_STORE, b"Bad magic number"),
    (b"", b"Empty database"),
], ids=["junk", "empty"])
def test_rep_refuses_a_file_that_is_not_a_store(st, sandbox, data, reason):
    st.put(RECORDS)
    new = st.json + ".new.gdbm"
    sandbox.write(new, data)
    before = inode(sandbox, st.sysconf)
    fails(st.run("rep", new), 2, b"sysconf: %s: not a gdbm store (%s)\n" % (new.encode(), reason))
    untouched(st, sandbox, before)


def test_rep_missing_file(st, sandbox):
    st.put(RECORDS)
    new = st.json + ".new.gdbm"
    before = inode(sandbox, st.sysconf)
    fails(st.run("rep", new), 2,
          b"sysconf: cannot read %s: No such file or directory\n" % new.encode())
    untouched(st, sandbox, before)


def test_rep_store_directory_missing_exits_3(st, sandbox):
    new = st.json + ".new.gdbm"
    st.put(RECORDS, new)
    st.env["DB_FILE"] = "/tmp/no-such-dir/x.gdbm"
    fails(st.run("rep", new), 3,
          b"sysconf: cannot create a file beside /tmp/no-such-dir/x.gdbm: "
          b"No such file or directory\n")


def test_rep_over_a_directory_exits_3_and_removes_its_file(st, sandbox):
    new = st.json + ".new.gdbm"
    st.put(RECORDS, new)
    ok(sandbox.run(["/bin/mkdir", "-p", st.sysconf + "/inside"]))
    fails(st.run("rep", new), 3, b"sysconf: cannot replace %s: Is a directory\n"
          % st.sysconf.encode())
    assert leftovers(sandbox, st.sysconf) == []
    ok(sandbox.run(["/bin/rm", "-r", st.sysconf]))


def test_rep_of_a_directory_exits_2(st, sandbox):
    st.put(RECORDS)
    before = inode(sandbox, st.sysconf)
    fails(st.run("rep", "/tmp"), 2, b"sysconf: cannot read /tmp: Is a directory\n")
    untouched(st, sandbox, before)


def test_rep_store_path_too_long_exits_3(st, sandbox):
    new = st.json + ".new.gdbm"
    st.put(RECORDS, new)
    st.env["DB_FILE"] = "/tmp/" + "a" * 4085
    fails(st.run("rep", new), 3, b"sysconf: /tmp/%s: path too long\n" % (b"a" * 4085))


def test_man_page_renders_cleanly_and_names_every_command():
    page = os.path.join(os.path.dirname(__file__), "..", "..", "docs", "sysconf.1")
    r = subprocess.run(["groff", "-man", "-Tutf8", "-ww", "-z", page],
                       capture_output=True, timeout=60)
    assert (r.returncode, r.stderr) == (0, b"")
    text = subprocess.run(["groff", "-man", "-Tascii", "-P-cbou", page],
                          capture_output=True, timeout=60, check=True).stdout.decode()
    for word in ["sysconf rep /var/tmp/new_sysconf.gdbm", "sysconf export /tmp/sysconf.bak",
                 "sysconf import /tmp/sysconf.bak", "get key", "set key value", "dump",
                 "load file", "DB_FILE", "RT_DB_FILE", "INFO_DB_FILE", "EXIT STATUS", "64"]:
        assert word in text, word
