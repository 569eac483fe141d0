"""Hostile client text in the request itself (DESIGN.md section 8): every
member of a revalidate target's arguments that reaches a shell command, a
generated file or a store, with the payload table and the comparison with a
benign run of test_hostile.py; then hostile keys and values through pref-set
and pref-get."""
import json
import re

import pytest

from helpers import pref_set, revalidate, send, wait_for
from test_hostile import (  # noqa: F401  (fast_log and keep are fixtures)
    DNSMASQ_CONF, FAIL, HTTPD_CONF, INTERNAL, INVALID, MARKER, PAYLOADS, ROUTE_IFS, ROUTES,
    SHARE, SUCCESS, SYNC_INTERNAL, TOO_LONG, UAP_CONF, UPNP_CONF, UPNP_ON, WL_ON, Run,
    answers, compare, fast_log, keep, params, stored)


# Texts in the request itself


def lock_state(text):
    return b'{ "arguments": { "lock_state": ' + json.dumps(text).encode() + \
        b' }, "result": "success" }'


LOCK_STATES = [lock_state(t) for t in ("Unlocked", "Locked", "Unlocks Exceeded", "Error")]
FW = {"serverip": "10.0.0.9", "bootloader": "b.bin", "kernel": "k", "jffs2": "j",
      "opt": "o", "rootfs": "r", "subfolder": "fw/1"}
SYNC_REPLIES = [SUCCESS, SYNC_INTERNAL, INVALID]


def action(target):
    return lambda v: {target: {"action": v}}


def fw_member(member):
    return lambda v: {"firmwareupgrade": dict(FW, **{member: v})}


def results_seen(daemon):
    return daemon.stdout().count("sync_result = ")


class EndSyncTask:
    """Around a createsynctask: a task that started is stopped ("stop" until
    its worker has read the result), then the lock is free again.  The count
    of results is taken before the request: the worker can end at once when
    an earlier "stop" is still pending."""

    def __init__(self, daemon):
        self.daemon = daemon

    def before(self, sandbox):
        self.seen = results_seen(self.daemon)

    def after(self, sandbox, run):
        if run.reply != SUCCESS:
            return
        wait_for(lambda: revalidate(sandbox, {"sync_signal": {"action": "stop"}}) == SUCCESS
                 and results_seen(self.daemon) > self.seen)
        probe = {"createsynctask": {"src": "nonexistent", "dst": "dst"}}
        wait_for(lambda: revalidate(sandbox, probe) == SYNC_INTERNAL)


# (id, benign text, request of a text, files, replies, setup)
REQUEST_CASES = [
    ("dhcp-action", "restart", action("dhcp"), [DNSMASQ_CONF], [SUCCESS], {}),
    ("lan-action", "start", action("lan"), [], [SUCCESS], {}),
    ("wan-action", "stop", action("wan"), [], [SUCCESS], {("rtconf", "wl_tool_type"): "WT"}),
    ("wpa-action", "stop", action("wpa"), [], [SUCCESS, INTERNAL], {}),
    ("upnp-action", "restart", action("upnp"), [UPNP_CONF], [SUCCESS], UPNP_ON),
    ("wl-action", "update", action("wl"), [UAP_CONF], [SUCCESS], WL_ON),
    ("wl_radio-action", "on", action("wl_radio"), [], [SUCCESS], {}),
    ("wl_power_save_mode-action", "start", action("wl_power_save_mode"), [], [SUCCESS], {}),
    ("firewall-action", "start", action("firewall"), [], [SUCCESS], {}),
    ("httpd-action", "restart", action("httpd"), [HTTPD_CONF], [SUCCESS], {}),
    ("fw_upgrade-action", "start", action("fw_upgrade"), [], [SUCCESS], {}),
    *[(f"firmwareupgrade-{m}", FW[m], fw_member(m), [], [SUCCESS, INTERNAL], {}) for m in FW],
    ("staticroute-id", "1", lambda v: {"staticroute": {"action": "commitadd", "id": v}}, [],
     [SUCCESS, INTERNAL], {**ROUTE_IFS, ("sysconf", "routes_static"): ROUTES}),
    ("staticroute-action", "commitall", action("staticroute"), [], [SUCCESS, INTERNAL],
     {**ROUTE_IFS, ("sysconf", "routes_static"): ROUTES}),
    ("datetime-timezone", "8", lambda v: {"datetime": {"action": "set", "timezone": v}}, [],
     [SUCCESS], {("sysconf", "timezone"): "GMT-8"}),
    ("datetime-time", "0", lambda v: {"datetime": {"action": "set", "time": v}}, [],
     [SUCCESS], {}),
    ("createsynctask-src", "src", lambda v: {"createsynctask": {"src": v, "dst": "dst"}}, [],
     SYNC_REPLIES, {}),
    ("createsynctask-dst", "dst", lambda v: {"createsynctask": {"src": "src", "dst": v}}, [],
     SYNC_REPLIES, {}),
    ("cancelsynctask-action", "cancel", action("cancelsynctask"), [], [SUCCESS], {}),
    ("sync_signal-action", "stop", action("sync_signal"), [], [SUCCESS, INTERNAL, INVALID], {}),
    ("sd_copy-action", "cancel", action("sd_copy"), [], [SUCCESS, SYNC_INTERNAL, INTERNAL],
     {("rtconf", "sd_state"): "on"}),
    ("disk_unlock-disk_name", "sda",
     lambda v: {"disk_unlock": {"disk_name": v, "passwd": "pw"}}, [], LOCK_STATES, {}),
    ("disk_unlock-passwd", "pw",
     lambda v: {"disk_unlock": {"disk_name": "sda", "passwd": v}}, [], LOCK_STATES, {}),
    ("safely_remove-disk", "sda", lambda v: {"safely_remove": {"disk": v}}, [],
     [SUCCESS, FAIL], {}),
    ("owner_chg-value", "x", lambda v: {"owner_chg": {"user1_name": v}}, [], [SUCCESS], {}),
    ("sys_event-action", "SYS_EVENT_DHCP_FAILED",
     lambda v: {"sys_event": {"action": v, "arg": ""}}, [], [SUCCESS, INTERNAL],
     {("rtconf", "wl_tool_type"): "WT"}),
    ("sys_event-arg", "00:11:22:33:44:55",
     lambda v: {"sys_event": {"action": "TDLS_EVENT_RESOLVE_SUCCESS", "arg": v}}, [],
     [SUCCESS, INTERNAL], {}),
    ("cut_through-action", "start", action("cut_through"), [], [SUCCESS, INTERNAL], {}),
    ("tdls-peer", "00:11:22:33:44:55",
     lambda v: {"tdls": {"action": "start", "peer": v}}, [], [INVALID, INTERNAL], {}),
    ("pmd-action", "wakeup", action("pmd"), [], [SUCCESS], {}),
    ("sleep_timeout-action", "start", action("sleep_timeout"), [], [SUCCESS], {}),
    ("charger_test-action", "start", action("charger_test"), [], [SUCCESS, FAIL], {}),
    ("fm-action", "start", action("fm"), [], [SUCCESS, INTERNAL], {}),
    ("webdav-action", "restart", action("webdav"), [], [SUCCESS], {}),
    ("samba-action", "restart", action("samba"), [], [SUCCESS], {}),
    ("dlna-action", "restart", action("dlna"), [], [SUCCESS], {}),
    ("usbcharger-action", "on", action("usbcharger"), [], [SUCCESS], {}),
    ("ap_profiles-essid", "Cafe",
     lambda v: {"ap_profiles": {"action": "forget", "essid": [v]}}, [], [INTERNAL], {}),
    ("uploadsysconf-value", "x", lambda v: {"uploadsysconf": {"upfile": v}}, [],
     [INTERNAL], {}),
]


@pytest.mark.parametrize("case, pid, make", params(REQUEST_CASES))
def test_request_text(daemon, sandbox, keep, case, pid, make):
    """A hostile member of the request runs nothing more and writes no line
    more than the benign one; the reply is success or the Part's refusal."""
    name, benign_text, build, files, replies, setup = case
    for (store, skey), value in setup.items():
        keep(store, skey, value)
    if name.startswith(("createsynctask", "sync_signal", "sd_copy")):
        sandbox.write(f"{SHARE}/src/a.txt", b"alpha\n")
        sandbox.set_battery("87\n", "Discharging\n")
    if name.startswith("datetime"):
        keep("sysconf", "timezone")
    if name == "createsynctask-src":
        # the hostile source exists, so that only its text can refuse it
        src = make("src")
        if isinstance(src, str) and "\0" not in src and ".." not in src and len(src) < 255:
            sandbox.write(f"{SHARE}/{src}/a.txt", b"alpha\n")
    passwd = sandbox.read("/etc/passwd")
    hook = EndSyncTask(daemon) if name.startswith("createsynctask") else None
    hostile_value = make(benign_text)
    if name == "datetime-timezone" and isinstance(hostile_value, str):
        hostile_value = hostile_value.replace("8", "-8", 1)
    benign = Run(sandbox, build(int(benign_text) if name.startswith("datetime") else
                                benign_text), files, hook)
    hostile = Run(sandbox, build(hostile_value), files, hook)
    if pid == "long5000":
        assert hostile.reply == TOO_LONG and hostile.cmds == []
        hostile.reply = benign.reply
    compare(benign, hostile, replies)
    assert sandbox.read("/etc/passwd") == passwd
    if name.startswith("datetime"):
        assert re.fullmatch(r"GMT[+-]\d+", stored(sandbox, "timezone"))
    answers(sandbox, daemon)


# pref-set of hostile keys and values, read back with pref-get


def pref_get(sandbox, names):
    return json.loads(send(sandbox, {"method": "pref-get", "arguments": {"confs": names}}))


@pytest.mark.parametrize("pid, make", [pytest.param(pid, make, id=pid)
                                       for pid, make in PAYLOADS])
def test_pref_set_value_reads_back_exactly(daemon, sandbox, keep, pid, make):
    keep("sysconf", "user3_name")
    value = make("Owner")
    sandbox.clear_cmdlog()
    reply = pref_set(sandbox, {"user3_name": value})
    if pid == "long5000":
        assert reply == TOO_LONG
        assert stored(sandbox, "user3_name") != value
    else:
        assert reply == SUCCESS
        assert stored(sandbox, "user3_name") == value
        got = pref_get(sandbox, ["user3_name"])
        assert got["result"] == "success"
        # json-c gives no value for a stored null: pref-get leaves it out
        assert got["arguments"]["confs"] == ({} if value is None else {"user3_name": value})
    assert sandbox.cmdlog() == []
    assert not sandbox.exists(MARKER)
    answers(sandbox, daemon)


@pytest.mark.parametrize("pid, make", [pytest.param(pid, make, id=pid)
                                       for pid, make in PAYLOADS
                                       if isinstance(make("k"), str) and pid != "long5000"])
def test_pref_set_hostile_key_is_refused(daemon, sandbox, keep, pid, make):
    """A key that is not in the store is refused (Part 3.1); nothing is
    stored or run, and pref-get leaves the name out."""
    key = make("user3_name")
    keep("sysconf", "user3_name")
    sandbox.clear_cmdlog()
    before = sorted(sandbox.store_keys("sysconf"))
    if pid == "nul":
        # keys are C strings (Part 3.1): the text before the NUL is the key
        assert pref_set(sandbox, {key: "x"}) == SUCCESS
        assert stored(sandbox, "user3_name") == "x"
    else:
        assert pref_set(sandbox, {key: "x"}) == INTERNAL
    assert sorted(sandbox.store_keys("sysconf")) == before
    got = pref_get(sandbox, [key])
    assert (got["result"], got["arguments"]["confs"]) == \
        ("success", {"user3_name": "x"} if pid == "nul" else {})
    assert sandbox.cmdlog() == []
    assert not sandbox.exists(MARKER)
    answers(sandbox, daemon)


# ap_profiles: the profile that is kept is written back into the slot keys
# with each stored text treated as a printf format in the original (Part
# 5.4); hostile texts come back exactly, as JSON, and nothing is run.

SLOT_KEYS = ["wan_sta_ssid1", "wan_sta_sec1", "wan_sta_pass1", "wan_sta_trustmode1",
             "wan_sta_ssid2", "wan_sta_sec2", "wan_sta_pass2", "wan_sta_trustmode2"]


@pytest.mark.parametrize("pid, make", [pytest.param(pid, make, id=pid)
                                       for pid, make in PAYLOADS if pid != "long5000"])
def test_ap_profiles_forget_keeps_the_other_profile_exactly(daemon, sandbox, keep, pid, make):
    for key in ["ap_profile"] + SLOT_KEYS:
        keep("sysconf", key)
    value = make("Cafe")
    other = {"id": "1", "essid": "Other", "encrypt": "wpapsk", "pass": "p1",
             "workmode": "Station Mode"}
    kept = {"id": "2", "essid": value, "encrypt": "wpapsk", "pass": value,
            "workmode": "Station Mode"}
    assert pref_set(sandbox, {"ap_profile": [other, kept]}) == SUCCESS
    keys = sorted(sandbox.store_keys("sysconf"))
    sandbox.clear_cmdlog()
    assert revalidate(sandbox, {"ap_profiles": {"action": "forget", "essid": ["Other"]}}) == \
        SUCCESS
    assert stored(sandbox, "ap_profile") == [kept]
    assert [stored(sandbox, k) for k in SLOT_KEYS] == \
        [value, "wpapsk", value, "Station Mode", "", "", "", ""]
    assert sorted(sandbox.store_keys("sysconf")) == keys
    assert sandbox.cmdlog() == []
    assert not sandbox.exists(MARKER)
    answers(sandbox, daemon)


# Hostile target names are not in the table: skipped, nothing run.

@pytest.mark.parametrize("pid, make", [pytest.param(pid, make, id=pid)
                                       for pid, make in PAYLOADS
                                       if isinstance(make("x"), str) and pid != "long5000"])
def test_hostile_target_name_runs_nothing(daemon, sandbox, pid, make):
    sandbox.clear_cmdlog()
    assert revalidate(sandbox, {make("dhcp"): {"action": "restart"}}) == SUCCESS
    # names are C strings: the text before a NUL is the name ("dhcp")
    assert sandbox.cmdlog() == ([["/usr/bin/killall", "-9", "dnsmasq"],
                                 ["/usr/sbin/dnsmasq", "-C", DNSMASQ_CONF]]
                                if pid == "nul" else [])
    assert not sandbox.exists(MARKER)
    answers(sandbox, daemon)
