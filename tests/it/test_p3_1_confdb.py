"""Part 3.1: configuration database, through the real daemon. The stores are
arranged and inspected from the host with gdbm (python3-gdbm, the same
libgdbm as the daemon's), the way the device's scripts share them.

The key index is built once at start-up, so every test starts its own hxsrvd
after arranging the store and stops it (SIGTERM) at the end; the stores'
files are put back as they were after each test.
"""
import dbm.gnu
import os

import pytest

from helpers import console_after, pref_set, send, umask_of

STORES = {"sysconf": "/mnt/rwdata/sysconf.gdbm", "rtconf": "/var/run/rtconf.gdbm"}
INDEX_SIZE = 127
SUCCESS = b'{ "arguments": { }, "result": "success" }'
INTERNAL = b'{ "arguments": { }, "result": "internal error" }'
BUSY = b'{ "arguments": { }, "result": "system busy" }'
DB_OPEN_FAILED = b'{ "arguments": { "confs": { } }, "result": "Database open failed!\\n" }'


def pref_get(sandbox, names):
    return send(sandbox, {"method": "pref-get", "arguments": {"confs": names, "infos": []}})


def get_reply(confs_text):
    return (b'{ "arguments": { "confs": ' + confs_text + b', "infos": { } },'
            b' "result": "success" }')


def gdbm_order(path):
    """The keys of a gdbm file in the store's own first-key/next-key order."""
    with dbm.gnu.open(path, "r") as db:
        keys = []
        k = db.firstkey()
        while k is not None:
            keys.append(k)
            k = db.nextkey(k)
        return keys


@pytest.fixture
def stores(sandbox):
    """The two stores' files are put back byte for byte after the test (after
    its daemons have stopped: `daemons` depends on this fixture)."""
    saved = {}
    for name, p in STORES.items():
        with open(sandbox.path(p), "rb") as f:
            saved[name] = f.read()
    yield
    for name, p in STORES.items():
        with open(sandbox.path(p), "wb") as f:
            f.write(saved[name])


@pytest.fixture
def daemons(sandbox, stores):
    """start(env=None) runs an hxsrvd of the test's own; all are stopped with
    SIGTERM at the end."""
    started = []

    def start(env=None):
        for d in started:
            if d.alive():
                d.stop()
        d = sandbox.start_daemon(env=env)
        started.append(d)
        return d
    yield start
    for d in started:
        if d.alive():
            d.stop()


# Edge cases worth testing


def test_key_stored_without_nul_is_invisible_and_not_settable(sandbox, daemons):
    with dbm.gnu.open(sandbox.path(STORES["sysconf"]), "w") as db:
        db[b"script_key"] = b'"v"\0'
    daemons()
    assert pref_get(sandbox, ["script_key"]) == get_reply(b"{ }")
    assert pref_set(sandbox, {"script_key": "w"}) == INTERNAL
    with dbm.gnu.open(sandbox.path(STORES["sysconf"]), "r") as db:
        assert db[b"script_key"] == b'"v"\0'
        assert b"script_key\0" not in db


def test_key_without_nul_beside_same_key_with_nul(sandbox, daemons):
    """Only the record whose key has the NUL is read and written."""
    with dbm.gnu.open(sandbox.path(STORES["sysconf"]), "w") as db:
        db[b"user3_name"] = b'"no nul"\0'
    daemons()
    assert pref_get(sandbox, ["user3_name"]) == get_reply(b'{ "user3_name": "Owner3" }')
    assert pref_set(sandbox, {"user3_name": "New"}) == SUCCESS
    with dbm.gnu.open(sandbox.path(STORES["sysconf"]), "r") as db:
        assert db[b"user3_name\0"] == b'"New"\0'
        assert db[b"user3_name"] == b'"no nul"\0'


def test_value_stored_without_nul_is_read_within_its_size(sandbox, daemons):
    """A script's value without the NUL is bounded by its stored size
    (README, deviations 3.1/2.3): read as its text, never past it."""
    sandbox.store_set("sysconf", "user3_name", b'"no nul"')
    sandbox.store_set("rtconf", "fwup_status", b'{"upgrade_stage": "ongoing"}')
    daemons()
    assert pref_get(sandbox, ["user3_name"]) == get_reply(b'{ "user3_name": "no nul" }')
    assert send(sandbox, {"method": "revalidate", "arguments": {"video": {}}}) == BUSY


@pytest.mark.parametrize("empty", [b"\0", b""], ids=["nul-only", "zero-length"])
def test_empty_value_reads_as_missing(sandbox, daemons, empty):
    """An empty "fwup_status" is missing (not busy), where text that does not
    parse would be busy; an empty persistent value is left out by pref-get.
    The key stays in the index: it can be set."""
    sandbox.store_set("rtconf", "fwup_status", empty)
    sandbox.store_set("sysconf", "user3_icon", empty)
    daemons()
    assert send(sandbox, {"method": "revalidate", "arguments": {"video": {}}}) == SUCCESS
    assert pref_get(sandbox, ["user3_icon", "user2_icon"]) == \
        get_reply(b'{ "user2_icon": "2" }')
    assert pref_set(sandbox, {"user3_icon": "7"}) == SUCCESS
    assert sandbox.store_get("sysconf", "user3_icon") == b'"7"\0'
    sandbox.store_set("rtconf", "fwup_status", b"x\0")
    assert send(sandbox, {"method": "revalidate", "arguments": {"video": {}}}) == BUSY


@pytest.mark.parametrize("key, value", [("product_model", b'"HX-R1"\0'),
                                        ("product_description", b'"HX Travel Router"\0')])
def test_read_only_keys_present_but_not_settable(sandbox, daemons, key, value):
    d = daemons()
    assert pref_get(sandbox, [key]) == get_reply(
        b'{ "' + key.encode() + b'": ' + value[:-1] + b" }")
    err0 = d.stderr()
    assert pref_set(sandbox, {key: "Other"}) == INTERNAL
    assert d.stderr()[len(err0):] == f"[warn] Set invalid sysconf key {key}.\n\n"
    assert sandbox.store_get("sysconf", key) == value


def test_store_with_more_than_127_keys_indexes_the_first_127(sandbox, daemons):
    path = sandbox.path(STORES["sysconf"])
    have = len(gdbm_order(path))
    with dbm.gnu.open(path, "w") as db:
        for i in range(130 - have):
            db[b"zz_extra_%03d\0" % i] = b'"x"\0'
    order = gdbm_order(path)
    assert len(order) == 130
    assert all(k.endswith(b"\0") for k in order)
    names = [k[:-1].decode() for k in order]
    indexed, beyond = names[:INDEX_SIZE], names[INDEX_SIZE:]
    d = daemons()

    writable = [n for n in indexed if n not in ("product_model", "product_description")]
    assert pref_set(sandbox, {n: "set" for n in writable}) == SUCCESS
    for n in writable:
        assert sandbox.store_get("sysconf", n) == b'"set"\0', n

    for n in beyond:
        before = sandbox.store_get("sysconf", n)
        err0 = d.stderr()
        assert pref_set(sandbox, {n: "set"}) == INTERNAL, n
        assert d.stderr()[len(err0):] == f"[warn] Set invalid sysconf key {n}.\n\n"
        assert sandbox.store_get("sysconf", n) == before
        # still readable: pref-get reads the store, not the index
        assert pref_get(sandbox, [n]) == get_reply(
            b'{ "' + n.encode() + b'": ' + before[:-1] + b" }")


def test_key_added_after_start_not_settable_until_restart(sandbox, daemons):
    daemons()
    sandbox.store_set("sysconf", "late_key", b'"a"\0')
    assert pref_get(sandbox, ["late_key"]) == get_reply(b'{ "late_key": "a" }')
    assert pref_set(sandbox, {"late_key": "b"}) == INTERNAL
    assert sandbox.store_get("sysconf", "late_key") == b'"a"\0'
    daemons()  # restart: the index is built again
    assert pref_set(sandbox, {"late_key": "b"}) == SUCCESS
    assert sandbox.store_get("sysconf", "late_key") == b'"b"\0'


def test_key_removed_after_start_stays_in_index(sandbox, daemons):
    daemons()
    sandbox.store_delete("sysconf", "user3_icon")
    assert pref_get(sandbox, ["user3_icon"]) == get_reply(b"{ }")
    assert pref_set(sandbox, {"user3_icon": "9"}) == SUCCESS
    assert sandbox.store_get("sysconf", "user3_icon") == b'"9"\0'


def test_db_file_override_honoured(sandbox, daemons):
    other = sandbox.path("/tmp/other.gdbm")
    with dbm.gnu.open(other, "c") as db:
        db[b"lan_ipaddr\0"] = b'"10.0.0.1"\0'
        db[b"other_key\0"] = b'"other"\0'
    default_before = sandbox.store_get("sysconf", "wl_ssid")
    daemons({"DB_FILE": "/tmp/other.gdbm"})
    assert pref_get(sandbox, ["lan_ipaddr", "other_key", "wl_ssid"]) == \
        get_reply(b'{ "lan_ipaddr": "10.0.0.1", "other_key": "other" }')
    assert pref_set(sandbox, {"other_key": "new"}) == SUCCESS
    assert pref_set(sandbox, {"wl_ssid": "x"}) == INTERNAL
    with dbm.gnu.open(other, "r") as db:
        assert db[b"other_key\0"] == b'"new"\0'
        assert sorted(db.keys()) == [b"lan_ipaddr\0", b"other_key\0"]
    assert sandbox.store_get("sysconf", "other_key") is None
    assert sandbox.store_get("sysconf", "wl_ssid") == default_before
    assert sandbox.store_get("sysconf", "lan_ipaddr") == b'"192.168.100.1"\0'


def test_db_file_without_file_index_fails_gets_fail_set_creates_file(sandbox, daemons):
    mark = sandbox.console()
    d = daemons({"DB_FILE": "/tmp/none.gdbm"})
    assert console_after(sandbox, mark) == "Open sysconf.gdbm file failed.\n"
    assert pref_get(sandbox, ["lan_ipaddr"]) == DB_OPEN_FAILED
    assert not sandbox.exists("/tmp/none.gdbm")
    assert pref_set(sandbox, {"lan_ipaddr": "10.1.1.1"}) == INTERNAL
    host = sandbox.path("/tmp/none.gdbm")
    assert os.stat(host).st_mode & 0o777 == 0o664 & ~umask_of(d)
    assert gdbm_order(host) == []
    assert console_after(sandbox, mark) == "Open sysconf.gdbm file failed.\n"


def test_db_file_empty_text_replaces_the_default(sandbox, daemons):
    """Set to any value, empty included: the empty path opens nothing."""
    mark = sandbox.console()
    d = daemons({"DB_FILE": ""})
    assert console_after(sandbox, mark) == "Open sysconf.gdbm file failed.\n"
    assert pref_get(sandbox, ["lan_ipaddr"]) == DB_OPEN_FAILED
    err0 = d.stderr()
    assert pref_set(sandbox, {"lan_ipaddr": "10.1.1.1"}) == INTERNAL
    assert d.stderr()[len(err0):] == "[warn] Database open failed!\n\n"
    assert sandbox.store_get("sysconf", "lan_ipaddr") == b'"192.168.100.1"\0'


def test_default_store_builds_the_index_silently(sandbox, daemons):
    mark = sandbox.console()
    daemons()
    assert console_after(sandbox, mark) == ""
    assert pref_set(sandbox, {"wl_ssid": "Indexed"}) == SUCCESS


def test_store_closed_between_requests(sandbox, daemons):
    """Right after each reply another process can open the store as writer
    (gdbm's lock would refuse it while the daemon held the file)."""
    daemons()
    sysconf, rtconf = sandbox.path(STORES["sysconf"]), sandbox.path(STORES["rtconf"])
    for request, path in (
            ({"method": "pref-get", "arguments": {"confs": ["lan_ipaddr"]}}, sysconf),
            ({"method": "pref-set", "arguments": {"confs": {"user3_icon": "5"}}}, sysconf),
            ({"method": "pref-set", "arguments": {"confs": {"product_model": "x"}}}, sysconf),
            ({"method": "revalidate", "arguments": {"video": {}}}, rtconf)):
        assert send(sandbox, request).startswith(b'{ "arguments": ')
        db = dbm.gnu.open(path, "w")  # no retry: fails at once if locked
        db.close()


def test_store_held_by_writer_makes_gets_fail(sandbox, daemons):
    """A get whose open meets the file locked by another writer fails like a
    missing key: pref-get cannot open the store, and the busy guard reads no
    "fwup_status" (not busy even with an upgrade ongoing)."""
    sandbox.store_set("rtconf", "fwup_status", b'{"upgrade_stage": "ongoing"}\0')
    daemons()
    assert send(sandbox, {"method": "revalidate", "arguments": {"video": {}}}) == BUSY
    with dbm.gnu.open(sandbox.path(STORES["rtconf"]), "w"):
        assert send(sandbox, {"method": "revalidate", "arguments": {"video": {}}}) == SUCCESS
    with dbm.gnu.open(sandbox.path(STORES["sysconf"]), "w"):
        assert pref_get(sandbox, ["lan_ipaddr"]) == DB_OPEN_FAILED
    assert send(sandbox, {"method": "revalidate", "arguments": {"video": {}}}) == BUSY
