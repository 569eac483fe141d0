"""Part 2.4: revalidate dispatch and the system-busy guard, through the real
daemon. "fwup_status" in the run-time store is changed from the host (a gdbm
store written from outside the daemon) and put back after each test.

The tests that need a failing target use "dhcp" (Part 4.1), which refuses an
argument that is not an object.
"""
import pytest

from helpers import REVALIDATE_NAMES, console_after, revalidate, send, stdout_since

SUCCESS = b'{ "arguments": { }, "result": "success" }'
BUSY = b'{ "arguments": { }, "result": "system busy" }'
INVALID = b'{ "arguments": { }, "result": "invalid arguments" }'


class Effects:
    """Standard output, console and command log written after a point."""

    def __init__(self, sandbox, daemon):
        self.sandbox, self.daemon = sandbox, daemon
        self.out = daemon.stdout()
        self.console = sandbox.console()
        self.cmds = len(sandbox.cmdlog())

    def check_none(self):
        assert stdout_since(self.sandbox, self.daemon, self.out) == ""
        assert console_after(self.sandbox, self.console) == ""
        assert self.sandbox.cmdlog()[self.cmds:] == []


@pytest.fixture
def fwup(daemon, sandbox):
    """Sets the raw "fwup_status" value (None deletes the key); the factory
    value comes back afterwards."""
    saved = sandbox.store_get("rtconf", "fwup_status")
    assert saved is not None

    def put(raw):
        if raw is None:
            sandbox.store_delete("rtconf", "fwup_status")
            assert sandbox.store_get("rtconf", "fwup_status") is None
        else:
            sandbox.store_set("rtconf", "fwup_status", raw)
    yield put
    sandbox.store_set("rtconf", "fwup_status", saved)


# Edge cases worth testing


def test_bogus_target_succeeds_and_does_nothing(daemon, sandbox):
    seen = Effects(sandbox, daemon)
    assert revalidate(sandbox, {"bogus": 1}) == SUCCESS
    seen.check_none()


def test_ongoing_upgrade_answers_reboot_system_busy(daemon, sandbox, fwup):
    fwup(b'{"upgrade_stage": "ongoing"}\0')
    seen = Effects(sandbox, daemon)
    assert revalidate(sandbox, {"reboot": {}}) == BUSY
    seen.check_none()


def test_fwup_status_absent_targets_run(daemon, sandbox, fwup):
    fwup(None)
    seen = Effects(sandbox, daemon)
    assert revalidate(sandbox, {"video": {}}) == SUCCESS
    assert revalidate(sandbox, {"owner_chg": {}, "ipsec": 1}) == SUCCESS
    seen.check_none()


def test_fwup_status_not_json_refuses_every_known_target(daemon, sandbox, fwup):
    fwup(b"word\0")
    seen = Effects(sandbox, daemon)
    for name in REVALIDATE_NAMES:
        assert revalidate(sandbox, {name: {}}) == BUSY, name
    seen.check_none()


def test_failing_dhcp_stops_the_walk_before_upnp(daemon, sandbox):
    """"dhcp" fails with "invalid arguments"; "upnp" is not run (it would
    print "action:start" first)."""
    seen = Effects(sandbox, daemon)
    assert revalidate(sandbox, {"dhcp": 5, "upnp": {"action": "start"}}) == INVALID
    assert stdout_since(sandbox, daemon, seen.out) == "Unexpected json type.\n"
    assert console_after(sandbox, seen.console) == ""
    assert sandbox.cmdlog()[seen.cmds:] == []
    assert not sandbox.exists("/var/tmp/miniupnpd.conf")


# The guard


@pytest.mark.parametrize("target", ["video", "owner_chg", "reboot", "dhcp"])
def test_ongoing_upgrade_refuses_any_known_target(daemon, sandbox, fwup, target):
    fwup(b'{"upgrade_stage": "ongoing"}\0')
    seen = Effects(sandbox, daemon)
    assert revalidate(sandbox, {target: {}}) == BUSY
    seen.check_none()


def test_ongoing_upgrade_with_other_members_is_busy(daemon, sandbox, fwup):
    fwup(b'{ "progress": 40, "upgrade_stage": "ongoing", "image": "a" }\0')
    assert revalidate(sandbox, {"video": {}}) == BUSY


def test_busy_with_only_unknown_targets_succeeds(daemon, sandbox, fwup):
    fwup(b'{"upgrade_stage": "ongoing"}\0')
    seen = Effects(sandbox, daemon)
    assert revalidate(sandbox, {"bogus": 1, "Reboot": {}, "": 2}) == SUCCESS
    assert revalidate(sandbox, {}) == SUCCESS
    seen.check_none()


def test_busy_refuses_known_target_after_unknown_ones(daemon, sandbox, fwup):
    fwup(b'{"upgrade_stage": "ongoing"}\0')
    assert revalidate(sandbox, {"bogus": 1, "Video": 2, "video": 3}) == BUSY


def test_not_json_with_only_unknown_targets_succeeds(daemon, sandbox, fwup):
    fwup(b"word\0")
    assert revalidate(sandbox, {"bogus": 1}) == SUCCESS


def test_idle_upgrade_stage_is_not_busy(daemon, sandbox, fwup):
    fwup(b'{ "upgrade_stage": "idle" }\0')
    assert revalidate(sandbox, {"video": {}, "thumbnail": {}}) == SUCCESS


@pytest.mark.parametrize("raw", [
    b'{"upgrade_stage": "Ongoing"}\0',
    b'{"upgrade_stage": "ONGOING"}\0',
    b'{"upgrade_stage": "ongoing "}\0',
    b'{"upgrade_stage": "ongoingx"}\0',
    b'{"upgrade_stage": ["ongoing"]}\0',
    b'{"upgrade_stage": {"ongoing": 1}}\0',
    b'{"upgrade_stage": 1}\0',
    b'{"upgrade_stage": null}\0',
    b'{"Upgrade_stage": "ongoing"}\0',
    b'{"stage": "ongoing"}\0',
    b'{ }\0',
    b'"ongoing"\0',
    b'["ongoing"]\0',
    b"1\0",
], ids=["capitalised", "upper", "trailing-space", "longer", "array-member",
        "object-member", "number-member", "null-member", "other-key", "no-stage",
        "empty-object", "bare-string", "array", "number"])
def test_parsable_status_other_than_ongoing_is_not_busy(daemon, sandbox, fwup, raw):
    fwup(raw)
    assert revalidate(sandbox, {"video": {}}) == SUCCESS


def test_fwup_status_null_text_is_busy(daemon, sandbox, fwup):
    """The text null parses to no value (json_tokener_parse returns NULL),
    which the guard cannot tell from a parse failure: busy."""
    fwup(b"null\0")
    assert revalidate(sandbox, {"video": {}}) == BUSY


def test_guard_reads_the_store_on_every_request(daemon, sandbox, fwup):
    fwup(b'{"upgrade_stage": "ongoing"}\0')
    assert revalidate(sandbox, {"video": {}}) == BUSY
    fwup(b'{"upgrade_stage": "done"}\0')
    assert revalidate(sandbox, {"video": {}}) == SUCCESS
    fwup(b'{"upgrade_stage": "ongoing"}\0')
    assert revalidate(sandbox, {"video": {}}) == BUSY


def test_busy_reply_keeps_the_tag(daemon, sandbox, fwup):
    fwup(b'{"upgrade_stage": "ongoing"}\0')
    assert send(sandbox, b'{"method":"revalidate","arguments":{"ipsec":{}},"tag":"t"}') == \
        b'{ "arguments": { }, "result": "system busy", "tag": "t" }'


# The walk


def test_empty_arguments_succeed(daemon, sandbox):
    seen = Effects(sandbox, daemon)
    assert revalidate(sandbox, {}) == SUCCESS
    seen.check_none()


def test_result_is_that_of_the_target_after_a_succeeding_one(daemon, sandbox):
    """{"video": 1, "wan": {}}: "video" succeeds and the walk goes on to
    "wan", whose result is the reply's, whatever "wan" answers."""
    alone = revalidate(sandbox, {"wan": {}})
    assert alone.startswith(b'{ "arguments": ') and b'"result": ' in alone
    assert revalidate(sandbox, {"video": 1, "wan": {}}) == alone
    assert revalidate(sandbox, {"video": 1, "bogus": 2, "wan": {}}) == alone


def test_unknown_and_noop_targets_in_any_order_succeed(daemon, sandbox):
    assert revalidate(sandbox, {"bogus": 1, "video": 1, "x": {}, "thumbnail": []}) == SUCCESS
    assert revalidate(sandbox, {"thumbnail": [], "x": {}, "video": 1, "bogus": 1}) == SUCCESS


def test_failing_target_after_a_succeeding_one_answers_its_error(daemon, sandbox):
    seen = Effects(sandbox, daemon)
    assert revalidate(sandbox, {"video": 1, "dhcp": 5, "thumbnail": 1}) == INVALID
    assert stdout_since(sandbox, daemon, seen.out) == "Unexpected json type.\n"


def test_null_value_for_dhcp_is_invalid_arguments(daemon, sandbox):
    seen = Effects(sandbox, daemon)
    assert revalidate(sandbox, {"dhcp": None, "video": 1}) == INVALID
    assert stdout_since(sandbox, daemon, seen.out) == "Input parameter is NULL.\n"


# Failure table


@pytest.mark.parametrize("arguments", [[{"video": 1}], "video", 1, True],
                         ids=["array", "string", "number", "true"])
def test_arguments_not_an_object_is_invalid_arguments(daemon, sandbox, arguments):
    """The request layer (Part 2.1) refuses non-object arguments before the
    revalidate handler runs, so its "Arguments are not required type data."
    never reaches standard output through the socket: only the request
    layer's "invalid arguments." does."""
    seen = Effects(sandbox, daemon)
    assert revalidate(sandbox, arguments) == INVALID
    assert stdout_since(sandbox, daemon, seen.out) == "invalid arguments.\n"
