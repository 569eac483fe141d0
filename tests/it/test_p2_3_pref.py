"""Part 2.3: preference get and set, through the real daemon; the stored bytes
are read from the host with gdbm (a store inspected from outside the daemon).

The module runs its own hxsrvd (not the shared `daemon` fixture) because the
tests of a missing store restart it with DB_FILE pointing to no file.
"""
import contextlib
import dbm.gnu
import json
import os

import pytest

from helpers import pref_set, send, stdout_since, store_restore, umask_of

SYSCONF = "/mnt/rwdata/sysconf.gdbm"
INTERNAL = b'{ "arguments": { }, "result": "internal error" }'
SUCCESS = b'{ "arguments": { }, "result": "success" }'
INVALID = b'{ "arguments": { }, "result": "invalid arguments" }'
DB_OPEN_FAILED = b'{ "arguments": { "confs": { } }, "result": "Database open failed!\\n" }'


class Hxsrvd:
    """The module's daemon, restartable with another environment."""

    def __init__(self, sandbox):
        self.sandbox = sandbox
        self.daemon = sandbox.start_daemon()

    @contextlib.contextmanager
    def running_with(self, env):
        self.daemon.stop()
        self.daemon = self.sandbox.start_daemon(env=env)
        try:
            yield self.daemon
        finally:
            self.daemon.stop()
            self.daemon = self.sandbox.start_daemon()


@pytest.fixture(scope="module")
def hx(sandbox):
    h = Hxsrvd(sandbox)
    yield h
    h.daemon.stop()


@pytest.fixture
def keep(sandbox):
    """keep(store, key): the key's raw value is put back after the test."""
    saved = []

    def remember(store, key):
        saved.append((store, key, sandbox.store_get(store, key)))
    yield remember
    for store, key, value in reversed(saved):
        store_restore(sandbox, store, key, value)


def pref_get(sandbox, arguments):
    return send(sandbox, {"method": "pref-get", "arguments": arguments})


def get_reply(confs_text, infos_text=b"{ }"):
    return (b'{ "arguments": { "confs": ' + confs_text + b', "infos": ' + infos_text +
            b' }, "result": "success" }')


class Seen:
    """Standard output and standard error written after a point. The
    warnings go to standard error (a file) before the reply is sent."""

    def __init__(self, sandbox, daemon):
        self.sandbox, self.daemon = sandbox, daemon
        self.out0 = daemon.stdout()
        self.err0 = daemon.stderr()

    def out(self):
        return stdout_since(self.sandbox, self.daemon, self.out0)

    def err(self):
        err = self.daemon.stderr()
        assert err.startswith(self.err0)
        return err[len(self.err0):]


@contextlib.contextmanager
def held_by_writer(sandbox, path=SYSCONF):
    """The store opened by another writer (gdbm's own lock) from the host."""
    db = dbm.gnu.open(sandbox.path(path), "w")
    try:
        yield db
    finally:
        db.close()


# pref-get: edge cases


def test_neither_confs_nor_infos_answers_two_empty_objects(hx, sandbox):
    seen = Seen(sandbox, hx.daemon)
    assert pref_get(sandbox, {}) == get_reply(b"{ }")
    assert seen.out() == "No confs field.\nNo info field.\n"
    assert seen.err() == ""


def test_stored_value_not_json_is_left_out(hx, sandbox, keep):
    """A script wrote the word on without quotes."""
    keep("sysconf", "upnp")
    sandbox.store_set("sysconf", "upnp", b"on\0")
    seen = Seen(sandbox, hx.daemon)
    assert pref_get(sandbox, {"confs": ["upnp", "lan_netmask"], "infos": []}) == \
        get_reply(b'{ "lan_netmask": "255.255.255.0" }')
    assert seen.out() == ""


@pytest.mark.parametrize("raw", [b"word\0", b"off\0", b"-\0", b'{"a": \0', b'"open\0'],
                         ids=["word", "off", "dash", "open-object", "open-string"])
def test_stored_values_that_do_not_parse_are_left_out(hx, sandbox, keep, raw):
    keep("sysconf", "wl_ssid")
    sandbox.store_set("sysconf", "wl_ssid", raw)
    assert pref_get(sandbox, {"confs": ["wl_ssid"]}) == get_reply(b"{ }")


def test_unknown_names_are_left_out(hx, sandbox):
    seen = Seen(sandbox, hx.daemon)
    assert pref_get(sandbox, {"confs": ["no_such_key", "lan_ipaddr", "LAN_IPADDR"],
                              "infos": []}) == \
        get_reply(b'{ "lan_ipaddr": "192.168.100.1" }')
    assert seen.out() == ""


def test_repeated_conf_name_gives_one_member(hx, sandbox):
    assert pref_get(sandbox, {"confs": ["lan_netmask", "lan_ipaddr", "lan_netmask"]}) == \
        get_reply(b'{ "lan_netmask": "255.255.255.0", "lan_ipaddr": "192.168.100.1" }')


def test_non_string_elements_are_looked_up_by_their_text(hx, sandbox):
    assert pref_get(sandbox, {"confs": [5, None, ["lan_ipaddr"], {}, "lan_ipaddr"]}) == \
        get_reply(b'{ "lan_ipaddr": "192.168.100.1" }')


def test_values_come_back_with_their_types(hx, sandbox):
    assert pref_get(sandbox, {"confs": ["wl_channel_list", "wl_fw_mode", "dhcp_staticlist",
                                        "dhcp_static_dns1", "wl_security"]}) == get_reply(
        b'{ "wl_channel_list": [ 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11 ], "wl_fw_mode": 0,'
        b' "dhcp_staticlist": [ ], "dhcp_static_dns1": "", "wl_security": "wpapsk\\/wpa2psk" }')


def test_unknown_and_case_differing_info_names_add_nothing(hx, sandbox):
    seen = Seen(sandbox, hx.daemon)
    assert pref_get(sandbox, {"infos": ["bogus", "S_TIME", 5, None]}) == get_reply(b"{ }")
    assert seen.out() == "No confs field.\n"


def test_status_item_given_twice_gives_one_member(hx, sandbox):
    reply = pref_get(sandbox, {"infos": ["s_time", "s_time"]})
    assert reply.count(b'"s_time"') == 1
    assert list(json.loads(reply)["arguments"]["infos"]) == ["s_time"]


# pref-get: failure table


@pytest.mark.parametrize("confs", ["lan_ipaddr", {"lan_ipaddr": 1}, 5, True],
                         ids=["string", "object", "number", "true"])
def test_confs_not_an_array_continues_with_infos(hx, sandbox, confs):
    seen = Seen(sandbox, hx.daemon)
    assert pref_get(sandbox, {"confs": confs}) == get_reply(b"{ }")
    assert seen.out() == "confs invalid data.\nNo info field.\n"


def test_confs_null_counts_as_missing(hx, sandbox):
    seen = Seen(sandbox, hx.daemon)
    assert pref_get(sandbox, {"confs": None, "infos": []}) == get_reply(b"{ }")
    assert seen.out() == "No confs field.\n"


@pytest.mark.parametrize("infos", ["s_time", {"s_time": 1}, 5],
                         ids=["string", "object", "number"])
def test_infos_not_an_array_succeeds(hx, sandbox, infos):
    seen = Seen(sandbox, hx.daemon)
    assert pref_get(sandbox, {"confs": ["lan_ipaddr"], "infos": infos}) == \
        get_reply(b'{ "lan_ipaddr": "192.168.100.1" }')
    assert seen.out() == "infos invalid data.\n"


@pytest.mark.parametrize("method", ["pref-get", "pref-set"])
def test_arguments_not_an_object_is_invalid_arguments(hx, sandbox, method):
    """Refused by the request layer (Part 2.1) before the handler, so the
    handler's "Unexpected json type." is never printed through the socket."""
    seen = Seen(sandbox, hx.daemon)
    assert send(sandbox, {"method": method, "arguments": [{"confs": ["lan_ipaddr"]}]}) == \
        INVALID
    assert seen.out() == "invalid arguments.\n"
    assert seen.err() == ""


def test_store_held_by_another_writer_pref_get_fails(hx, sandbox):
    seen = Seen(sandbox, hx.daemon)
    with held_by_writer(sandbox):
        assert pref_get(sandbox, {"confs": ["lan_ipaddr"], "infos": []}) == DB_OPEN_FAILED
    assert seen.out() == "Database open failed!\n"
    assert pref_get(sandbox, {"confs": ["lan_ipaddr"], "infos": []}) == \
        get_reply(b'{ "lan_ipaddr": "192.168.100.1" }')


def test_store_held_by_another_writer_pref_set_fails(hx, sandbox, keep):
    keep("sysconf", "wl_ssid")
    seen = Seen(sandbox, hx.daemon)
    with held_by_writer(sandbox):
        assert pref_set(sandbox, {"wl_ssid": "Held"}) == INTERNAL
    assert seen.err() == "[warn] Database open failed!\n\n"
    assert seen.out() == ""
    assert sandbox.store_get("sysconf", "wl_ssid") == b'"HX-Travel"\0'


def test_store_missing_pref_get_fails_without_infos(hx, sandbox):
    with hx.running_with({"DB_FILE": "/tmp/p23-missing.gdbm"}) as d:
        seen = Seen(sandbox, d)
        assert pref_get(sandbox, {"confs": ["lan_ipaddr"], "infos": ["s_time"]}) == \
            DB_OPEN_FAILED
        assert seen.out() == "Database open failed!\n"
        assert not sandbox.exists("/tmp/p23-missing.gdbm")
        # without "confs" the store is not opened: success
        assert pref_get(sandbox, {"infos": []}) == get_reply(b"{ }")


def test_store_missing_pref_set_creates_the_file(hx, sandbox):
    """The writer-create open makes a new empty store with mode 0664 less the
    umask; the key index is empty (it was built from no file), so the key
    is refused and nothing is written."""
    with hx.running_with({"DB_FILE": "/tmp/p23-created.gdbm"}) as d:
        seen = Seen(sandbox, d)
        assert not sandbox.exists("/tmp/p23-created.gdbm")
        assert pref_set(sandbox, {"upnp": "on"}) == INTERNAL
        assert seen.err() == "[warn] Set invalid sysconf key upnp.\n\n"
        host = sandbox.path("/tmp/p23-created.gdbm")
        assert os.stat(host).st_mode & 0o777 == 0o664 & ~umask_of(d)
        with dbm.gnu.open(host, "r") as db:
            assert db.keys() == []
        # the store can be opened now; it holds nothing
        assert pref_get(sandbox, {"confs": ["upnp"], "infos": []}) == get_reply(b"{ }")


# pref-set: edge cases


def test_pref_set_product_model_fails_and_changes_nothing_after_it(hx, sandbox, keep):
    for key in ("user1_name", "user2_name", "product_model"):
        keep("sysconf", key)
    seen = Seen(sandbox, hx.daemon)
    assert pref_set(sandbox, {"user1_name": "First", "product_model": "X",
                              "user2_name": "Later"}) == INTERNAL
    assert seen.err() == "[warn] Set invalid sysconf key product_model.\n\n"
    assert seen.out() == ""
    assert sandbox.store_get("sysconf", "user1_name") == b'"First"\0'
    assert sandbox.store_get("sysconf", "product_model") == b'"HX-R1"\0'
    assert sandbox.store_get("sysconf", "user2_name") == b'"Owner2"\0'


def test_pref_set_product_description_fails(hx, sandbox):
    seen = Seen(sandbox, hx.daemon)
    assert pref_set(sandbox, {"product_description": "Other"}) == INTERNAL
    assert seen.err() == "[warn] Set invalid sysconf key product_description.\n\n"
    assert sandbox.store_get("sysconf", "product_description") == b'"HX Travel Router"\0'


def test_pref_set_name_not_in_store_at_start_fails(hx, sandbox, keep):
    keep("sysconf", "user1_name")
    seen = Seen(sandbox, hx.daemon)
    assert pref_set(sandbox, {"user1_name": "Kept", "brand_new_key": "x",
                              "user1_icon": "9"}) == INTERNAL
    assert seen.err() == "[warn] Set invalid sysconf key brand_new_key.\n\n"
    assert sandbox.store_get("sysconf", "brand_new_key") is None
    assert sandbox.store_get("sysconf", "user1_name") == b'"Kept"\0'
    assert sandbox.store_get("sysconf", "user1_icon") == b'"1"\0'


def test_pref_set_on_stores_quoted_text_and_reads_back_on(hx, sandbox, keep):
    keep("sysconf", "upnp")
    seen = Seen(sandbox, hx.daemon)
    assert pref_set(sandbox, {"upnp": "on"}) == SUCCESS
    assert sandbox.store_get("sysconf", "upnp") == b'"on"\0'
    assert len(sandbox.store_get("sysconf", "upnp")) == 5
    assert pref_get(sandbox, {"confs": ["upnp"]}) == get_reply(b'{ "upnp": "on" }')
    assert seen.err() == ""


@pytest.mark.parametrize("value, text", [
    (42, b"42"),
    (-7, b"-7"),
    (1.5, b"1.5"),
    (True, b"true"),
    (False, b"false"),
    ([1, 2], b"[ 1, 2 ]"),
    ([], b"[ ]"),
    ({"a": 1}, b'{ "a": 1 }'),
    ({}, b"{ }"),
    ({"a": [1, {"b": None}], "c": "d/e"}, b'{ "a": [ 1, { "b": null } ], "c": "d\\/e" }'),
    ("", b'""'),
    ("a/b", b'"a\\/b"'),
    ('say "hi"\n', b'"say \\"hi\\"\\n"'),
], ids=["int", "negative", "double", "true", "false", "array", "empty-array",
        "object", "empty-object", "nested", "empty-string", "slash", "escapes"])
def test_pref_set_stores_json_text_and_reads_it_back(hx, sandbox, keep, value, text):
    keep("sysconf", "user3_name")
    assert pref_set(sandbox, {"user3_name": value}) == SUCCESS
    assert sandbox.store_get("sysconf", "user3_name") == text + b"\0"
    assert pref_get(sandbox, {"confs": ["user3_name"]}) == \
        get_reply(b'{ "user3_name": ' + text + b" }")


def test_pref_set_null_is_stored_and_left_out_by_pref_get(hx, sandbox, keep):
    """null is stored as its JSON text; json_tokener_parse gives no value for
    it, so pref-get leaves the name out."""
    keep("sysconf", "user3_name")
    assert pref_set(sandbox, {"user3_name": None}) == SUCCESS
    assert sandbox.store_get("sysconf", "user3_name") == b"null\0"
    assert pref_get(sandbox, {"confs": ["user3_name", "user3_icon"]}) == \
        get_reply(b'{ "user3_icon": "3" }')


def test_pref_set_writes_every_member(hx, sandbox, keep):
    for key in ("user1_name", "user2_name", "wl_channel"):
        keep("sysconf", key)
    assert pref_set(sandbox, {"user1_name": "A", "user2_name": "B", "wl_channel": 11}) == \
        SUCCESS
    assert sandbox.store_get("sysconf", "user1_name") == b'"A"\0'
    assert sandbox.store_get("sysconf", "user2_name") == b'"B"\0'
    assert sandbox.store_get("sysconf", "wl_channel") == b"11\0"


def test_pref_set_empty_confs_succeeds(hx, sandbox):
    seen = Seen(sandbox, hx.daemon)
    before = sorted(sandbox.store_keys("sysconf"))
    assert pref_set(sandbox, {}) == SUCCESS
    assert seen.err() == ""
    assert sorted(sandbox.store_keys("sysconf")) == before


def test_pref_set_reply_arguments_stay_empty(hx, sandbox, keep):
    keep("sysconf", "user1_icon")
    assert send(sandbox, b'{"method":"pref-set","arguments":{"confs":{"user1_icon":"5"}},'
                         b'"tag":9}') == b'{ "arguments": { }, "result": "success", "tag": 9 }'


# pref-set: failure table


def test_pref_set_confs_missing(hx, sandbox):
    seen = Seen(sandbox, hx.daemon)
    assert send(sandbox, {"method": "pref-set", "arguments": {"confz": {"upnp": "on"}}}) == \
        INTERNAL
    assert seen.err() == "[warn] prefSet: No confs field.\n\n"
    assert seen.out() == ""
    assert sandbox.store_get("sysconf", "upnp") == b'"off"\0'


@pytest.mark.parametrize("confs", [["upnp", "on"], "upnp", 5, True],
                         ids=["array", "string", "number", "true"])
def test_pref_set_confs_not_an_object(hx, sandbox, confs):
    seen = Seen(sandbox, hx.daemon)
    assert pref_set(sandbox, confs) == INTERNAL
    assert seen.err() == "[warn] confs not required type data.\n\n"
    assert seen.out() == ""
