"""The stores through the daemon.  The key index is built at start-up, so each
test starts its own hxsrvd; the store files are put back after it."""
import dbm.gnu
import os

import pytest

from helpers import console_after, pref_set, send, umask_of

STORES = ["/mnt/rwdata/sysconf.gdbm", "/var/run/rtconf.gdbm"]
SUCCESS = b'{ "arguments": { }, "result": "success" }'
INTERNAL = b'{ "arguments": { }, "result": "internal error" }'
BUSY = b'{ "arguments": { }, "result": "system busy" }'
DB_OPEN_FAILED = b'{ "arguments": { "confs": { } }, "result": "Database open failed!\\n" }'
NO_INDEX = "Open sysconf.gdbm file failed.\n"


def get(sandbox, *names):
    return send(sandbox, {"method": "pref-get", "arguments": {"confs": list(names), "infos": []}})


def got(confs):
    return b'{ "arguments": { "confs": { ' + confs + b'}, "infos": { } }, "result": "success" }'


def video(sandbox):
    return send(sandbox, {"method": "revalidate", "arguments": {"video": {}}})


@pytest.fixture
def start(sandbox):
    saved = [sandbox.read(p) for p in STORES]
    started = []

    def run(env=None):
        for d in started:
            d.stop()
        started[:] = [sandbox.start_daemon(env=env)]
        return started[0]
    yield run
    for d in started:
        d.stop()
    for p, data in zip(STORES, saved):
        sandbox.write(p, data)


def test_index_holds_the_first_127_keys_with_nul_and_refuses_read_only_ones(sandbox, start):
    with dbm.gnu.open(sandbox.path(STORES[0]), "w") as db:
        for i in range(130 - len(db.keys())):
            db[b"zz_%03d\0" % i] = b'"x"\0'
        db[b"no_nul"] = b'"v"\0'
        names, k = [], db.firstkey()
        while k is not None:
            names.append(k.rstrip(b"\0").decode())
            k = db.nextkey(k)
    assert {"product_model", "product_description"} <= set(names[:127])
    mark = sandbox.console()
    d = start()
    assert console_after(sandbox, mark) == ""
    writable = [n for n in names[:127] if n not in ("product_model", "product_description", "no_nul")]
    assert names[126] in writable and pref_set(sandbox, {n: "set" for n in writable}) == SUCCESS
    assert [n for n in writable if sandbox.store_get("sysconf", n) != b'"set"\0'] == []
    for n in names[127:] + ["product_model", "product_description", "no_nul"]:
        before, err = sandbox.store_get("sysconf", n), d.stderr()
        assert pref_set(sandbox, {n: "w"}) == INTERNAL
        assert d.stderr()[len(err):] == f"[warn] Set invalid sysconf key {n}.\n\n"
        assert sandbox.store_get("sysconf", n) == before
        assert get(sandbox, n) == got(b'"%s": %s ' % (n.encode(), before[:-1]) if before else b"")


def test_index_is_not_rebuilt_until_restart(sandbox, start):
    start()
    sandbox.store_set("sysconf", "late_key", b'"a"\0')
    sandbox.store_delete("sysconf", "user3_icon")
    assert get(sandbox, "late_key", "user3_icon") == got(b'"late_key": "a" ')
    assert pref_set(sandbox, {"late_key": "b"}) == INTERNAL
    assert pref_set(sandbox, {"user3_icon": "9"}) == SUCCESS
    assert sandbox.store_get("sysconf", "user3_icon") == b'"9"\0'
    start()
    assert pref_set(sandbox, {"late_key": "b"}) == SUCCESS
    assert sandbox.store_get("sysconf", "late_key") == b'"b"\0'


@pytest.mark.parametrize("db_file, console, reply, set_reply, err, after", [
    ("/tmp/other.gdbm", "", got(b'"lan_ipaddr": "10.0.0.1", "other_key": "other" '), SUCCESS, "",
     {b"lan_ipaddr\0": b'"10.0.0.1"\0', b"other_key\0": b'"new"\0'}),
    ("/tmp/none.gdbm", NO_INDEX, DB_OPEN_FAILED, INTERNAL, "[warn] Set invalid sysconf key other_key.\n\n", {}),
    ("", NO_INDEX, DB_OPEN_FAILED, INTERNAL, "[warn] Database open failed!\n\n", None),
], ids=["other-file", "missing-file", "empty"])
def test_db_file_names_the_persistent_store(sandbox, start, db_file, console, reply, set_reply, err, after):
    sandbox.remove("/tmp/none.gdbm")
    with dbm.gnu.open(sandbox.path("/tmp/other.gdbm"), "n") as db:
        db[b"lan_ipaddr\0"], db[b"other_key\0"] = b'"10.0.0.1"\0', b'"other"\0'
    mark, default = sandbox.console(), sandbox.read(STORES[0])
    d = start({"DB_FILE": db_file})
    assert console_after(sandbox, mark) == console
    assert get(sandbox, "lan_ipaddr", "other_key", "wl_ssid") == reply
    err0 = d.stderr()
    assert pref_set(sandbox, {"other_key": "new"}) == set_reply
    assert d.stderr()[len(err0):] == err
    assert sandbox.read(STORES[0]) == default and console_after(sandbox, mark) == console
    if db_file:
        with dbm.gnu.open(sandbox.path(db_file), "r") as db:
            assert {k: db[k] for k in db.keys()} == after
    if after == {}:  # the failed set created the file as a store would be
        assert os.stat(sandbox.path(db_file)).st_mode & 0o777 == 0o664 & ~umask_of(d)


def test_store_is_closed_between_requests_and_a_writer_lock_fails_reads(sandbox, start):
    sandbox.store_set("rtconf", "fwup_status", b'{"upgrade_stage": "ongoing"}\0')
    start()
    for request, p in (({"method": "pref-get", "arguments": {"confs": ["lan_ipaddr"]}}, STORES[0]),
                       ({"method": "pref-set", "arguments": {"confs": {"user3_icon": "5"}}}, STORES[0]),
                       ({"method": "pref-set", "arguments": {"confs": {"product_model": "x"}}}, STORES[0]),
                       ({"method": "revalidate", "arguments": {"video": {}}}, STORES[1])):
        assert send(sandbox, request).startswith(b'{ "arguments": ')
        dbm.gnu.open(sandbox.path(p), "w").close()  # fails at once while the daemon holds it
    assert video(sandbox) == BUSY
    with dbm.gnu.open(sandbox.path(STORES[1]), "w"):
        assert video(sandbox) == SUCCESS  # the busy guard cannot read fwup_status
    with dbm.gnu.open(sandbox.path(STORES[0]), "w"):
        assert get(sandbox, "lan_ipaddr") == DB_OPEN_FAILED
