"""Part 2.2: handler registry and target tables, through the real daemon.

Whether a revalidate name is in the index is seen through the busy guard of
Part 2.4: during a firmware upgrade every known target is refused with
"system busy" before its handler runs, and an unknown name is skipped. That
holds for the rows answered "internal error" today and for the same rows
once they are built, and it never runs a target.
"""
import pytest

from helpers import (REVALIDATE_NAMES, console_after, revalidate, send, stdout_since,
                     store_restore)

SUCCESS = b'{ "arguments": { }, "result": "success" }'
BUSY = b'{ "arguments": { }, "result": "system busy" }'
ONGOING = b'{ "upgrade_stage": "ongoing" }\0'

NOOP_TARGETS = ["video", "video2", "ipsec", "thumbnail"]
ANY_VALUES = [None, 0, -1.5, "text", {}, {"action": "start"}, [], [1, {}]]
ANY_VALUE_IDS = ["null", "zero", "double", "string", "empty-object", "object",
                 "empty-array", "array"]


@pytest.fixture
def upgrading(daemon, sandbox):
    """The run-time store says a firmware upgrade is in progress; the factory
    value comes back afterwards."""
    saved = sandbox.store_get("rtconf", "fwup_status")
    sandbox.store_set("rtconf", "fwup_status", ONGOING)
    yield
    store_restore(sandbox, "rtconf", "fwup_status", saved)


# Edge cases worth testing


def test_target_name_differing_in_case_finds_nothing(daemon, sandbox, upgrading):
    assert revalidate(sandbox, {"video": {}}) == BUSY
    for name in ("Video", "VIDEO", "vIdeo"):
        assert revalidate(sandbox, {name: {}}) == SUCCESS, name


def test_target_name_differing_in_case_is_skipped(daemon, sandbox):
    """Not upgrading: "Video" is skipped, the walk answers success."""
    before = daemon.stdout()
    mark = sandbox.console()
    assert revalidate(sandbox, {"Video": {}, "REBOOT": {}, "Wan": {}}) == SUCCESS
    assert stdout_since(sandbox, daemon, before) == ""
    assert console_after(sandbox, mark) == ""


def test_info_name_differing_in_case_adds_nothing(daemon, sandbox):
    before = daemon.stdout()
    reply = send(sandbox, {"method": "pref-get",
                           "arguments": {"infos": ["S_TIME", "S_time", "s_Time"]}})
    assert reply == b'{ "arguments": { "confs": { }, "infos": { } }, "result": "success" }'
    assert stdout_since(sandbox, daemon, before) == "No confs field.\n"


@pytest.mark.parametrize("value", ANY_VALUES, ids=ANY_VALUE_IDS)
@pytest.mark.parametrize("target", NOOP_TARGETS)
def test_video_style_target_succeeds_for_any_value(daemon, sandbox, target, value):
    before = daemon.stdout()
    mark = sandbox.console()
    assert revalidate(sandbox, {target: value}) == SUCCESS
    assert stdout_since(sandbox, daemon, before) == ""
    assert console_after(sandbox, mark) == ""


def test_noop_targets_all_in_one_request(daemon, sandbox):
    assert send(sandbox, b'{"method":"revalidate","arguments":{"video":null,'
                         b'"video2":1,"ipsec":"x","thumbnail":[],"owner_chg":{}},"tag":3}') == \
        b'{ "arguments": { }, "result": "success", "tag": 3 }'


@pytest.mark.parametrize("value", ANY_VALUES, ids=ANY_VALUE_IDS)
def test_owner_chg_does_nothing_and_succeeds(daemon, sandbox, value):
    before = daemon.stdout()
    mark = sandbox.console()
    assert revalidate(sandbox, {"owner_chg": value}) == SUCCESS
    assert stdout_since(sandbox, daemon, before) == ""
    assert console_after(sandbox, mark) == ""


# The table is complete and in place


def test_table_has_41_distinct_names():
    assert len(REVALIDATE_NAMES) == 41
    assert len(set(REVALIDATE_NAMES)) == 41


@pytest.mark.parametrize("name", REVALIDATE_NAMES)
def test_revalidate_name_is_known(daemon, sandbox, upgrading, name):
    """Known: refused by the busy guard before its handler runs."""
    before = daemon.stdout()
    mark = sandbox.console()
    assert revalidate(sandbox, {name: {"action": "start"}}) == BUSY
    assert stdout_since(sandbox, daemon, before) == ""
    assert console_after(sandbox, mark) == ""


def test_near_miss_names_are_unknown(daemon, sandbox, upgrading):
    """Upper-case, padded, truncated and extended forms of every name are
    skipped: lookup is by exact byte comparison."""
    variants = {v for name in REVALIDATE_NAMES
                for v in (name.upper(), name + " ", " " + name, name[:-1], name + "s",
                          name.replace("_", "-") if "_" in name else name + "_")}
    variants -= set(REVALIDATE_NAMES)  # "video2"[:-1] is "video"
    assert len(variants) > 5 * 41
    for variant in sorted(variants):
        assert revalidate(sandbox, {variant: {}}) == SUCCESS, variant


def test_status_item_names_are_not_revalidate_targets(daemon, sandbox, upgrading):
    """The two indexes are separate: an info-only name is unknown here."""
    for name in ("p_model", "s_time", "disk_list", "bat_cap", "fwup_status", "owner_list"):
        assert revalidate(sandbox, {name: {}}) == SUCCESS, name
    # and a name in both tables is found in the revalidate index
    assert revalidate(sandbox, {"wl_radio": {}}) == BUSY
    assert revalidate(sandbox, {"sleep_timeout": {}}) == BUSY
