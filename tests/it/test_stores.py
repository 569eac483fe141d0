"""The stores through the daemon: each test starts its own hxsrvd (the key index is built at start-up)."""
import dbm.gnu

import pytest

from helpers import INTERNAL, SUCCESS, console_after, pref_set, send

SC, RT, READ_ONLY = "/mnt/rwdata/sysconf.gdbm", "/var/run/rtconf.gdbm", ("product_model", "product_description")
DB_OPEN_FAILED, NO_INDEX = b'{ "arguments": { "confs": { } }, "result": "Database open failed!\\n" }', "Open sysconf.gdbm file failed.\n"


def get(sandbox, *names, reply=None):
    got = send(sandbox, {"method": "pref-get", "arguments": {"confs": list(names), "infos": []}})
    return got if reply is None else got == b'{ "arguments": { "confs": { %s}, "infos": { } }, "result": "success" }' % reply


@pytest.fixture
def start(sandbox):
    saved, started = {p: sandbox.read(p) for p in (SC, RT)}, []

    def run(env=None):
        [d.stop() for d in started]
        started[:] = [sandbox.start_daemon(env=env)]
        return started[0]
    yield run
    [d.stop() for d in started]
    [sandbox.write(p, data) for p, data in saved.items()]


def test_index_of_the_first_127_keys_stored_with_nul_built_at_start_less_read_only_ones(sandbox, start):
    with dbm.gnu.open(sandbox.path(SC), "w") as db:
        for i in range(130 - len(db.keys())):
            db[b"zz_%03d\0" % i] = b'"x"\0'
        db[b"no_nul"], names, k = b'"v"\0', [], db.firstkey()
        while k is not None:
            names, k = names + [k.rstrip(b"\0").decode()], db.nextkey(k)
    mark, d = sandbox.console(), start()
    assert console_after(sandbox, mark) == "" and set(READ_ONLY) <= set(names[:127])
    writable = [n for n in names[:127] if n not in (*READ_ONLY, "no_nul")]
    assert names[126] in writable and pref_set(sandbox, {n: "set" for n in writable}) == SUCCESS
    assert [n for n in writable if sandbox.store_get("sysconf", n) != b'"set"\0'] == []
    for n in names[127:] + [*READ_ONLY, "no_nul"]:
        before, err = sandbox.store_get("sysconf", n), d.stderr()
        assert pref_set(sandbox, {n: "w"}) == INTERNAL and sandbox.store_get("sysconf", n) == before
        assert d.stderr()[len(err):] == f"[warn] Set invalid sysconf key {n}.\n\n"
        assert get(sandbox, n, reply=b'"%s": %s ' % (n.encode(), before[:-1]) if before else b"")
    sandbox.store_set("sysconf", "late_key", b'"a"\0')  # the index is not rebuilt until the next start
    sandbox.store_delete("sysconf", writable[0])
    assert (pref_set(sandbox, {"late_key": "b"}), pref_set(sandbox, {writable[0]: "9"})) == (INTERNAL, SUCCESS)
    assert [sandbox.store_get("sysconf", k) for k in ("late_key", writable[0])] == [b'"a"\0', b'"9"\0']


@pytest.mark.parametrize("db_file, err", [("/tmp/none.gdbm", "[warn] Set invalid sysconf key lan_ipaddr.\n\n"),
                                         ("", "[warn] Database open failed!\n\n")], ids=["missing-file", "empty"])
def test_db_file_names_the_persistent_store_even_when_it_opens_nothing(sandbox, start, db_file, err):
    sandbox.remove("/tmp/none.gdbm")
    mark, default = sandbox.console(), sandbox.read(SC)
    d = start({"DB_FILE": db_file})
    assert console_after(sandbox, mark) == NO_INDEX and get(sandbox, "lan_ipaddr") == DB_OPEN_FAILED
    err0 = d.stderr()
    assert (pref_set(sandbox, {"lan_ipaddr": "10.1.1.1"}), d.stderr()[len(err0):]) == (INTERNAL, err)
    assert sandbox.read(SC) == default and console_after(sandbox, mark) == NO_INDEX
    assert not db_file or dbm.gnu.open(sandbox.path(db_file), "r").keys() == []  # the refused set created an empty store


def test_store_is_closed_between_requests_and_a_writer_lock_fails_reads(sandbox, start):
    sandbox.store_set("rtconf", "fwup_status", b'{"upgrade_stage": "ongoing"}\0')
    start()
    video = {"method": "revalidate", "arguments": {"video": {}}}
    for request, p in ((video, RT), ({"method": "pref-get", "arguments": {"confs": ["lan_ipaddr"]}}, SC),
                       ({"method": "pref-set", "arguments": {"confs": {"user3_icon": "5", "product_model": "x"}}}, SC)):
        assert send(sandbox, request).startswith(b'{ "arguments": ')
        dbm.gnu.open(sandbox.path(p), "w").close()  # fails at once while the daemon holds the file
    assert send(sandbox, video) == b'{ "arguments": { }, "result": "system busy" }'
    with dbm.gnu.open(sandbox.path(RT), "w"):
        assert send(sandbox, video) == SUCCESS  # the busy guard cannot read fwup_status
    with dbm.gnu.open(sandbox.path(SC), "w"):
        assert get(sandbox, "lan_ipaddr") == DB_OPEN_FAILED
