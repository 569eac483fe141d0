"""Part 5.4: saved network profiles, through the real daemon: the profile of
the hotspot in use is remembered on "SYS_EVENT_DHCP_SUCCESS" (Part 4.2) and
forgotten with the "ap_profiles" target.  Store bytes are compared exactly:
"ap_profile" as json-c renders the array, the eight slot keys as JSON text.
"""
import json

import pytest

from test_p4_2_lanwan import (INTERNAL, INVALID, SERVICE_START, SERVICE_STOP, SIMPLEFW,
                              SLOT_KEYS, SUCCESS, Run, check_cmds, jtext, lw, put,
                              store_bytes)

__all__ = ["lw"]

CAFE = {"essid": "Cafe", "encrypt": "wpa2", "pass": "cafe-pass", "workmode": "Station Mode"}
HOME = {"essid": "Home", "encrypt": "wpa", "pass": "home-pass",
        "workmode": "Public Bridge Mode"}
PARK = {"essid": "Park", "encrypt": "none", "pass": "", "workmode": "Private Bridge Mode"}
WAN_TYPES = {"Station Mode": "wireless_sta_trust", "Public Bridge Mode": "wireless_sta",
             "Private Bridge Mode": "wireless_sta_private"}
EMPTY_SLOTS = [b'""\0'] * 8


def jsonc(value):
    """json-c's default text of a value (spaced, "/" escaped)."""
    if isinstance(value, list):
        return "[ " + ", ".join(jsonc(v) for v in value) + " ]" if value else "[ ]"
    if isinstance(value, dict):
        if not value:
            return "{ }"
        return "{ " + ", ".join(f"{jsonc(k)}: {jsonc(v)}" for k, v in value.items()) + " }"
    return json.dumps(value).replace("/", "\\/")


def profile(p, pid):
    return {"id": pid, "essid": p["essid"], "encrypt": p["encrypt"], "pass": p["pass"],
            "workmode": p["workmode"]}


def set_list(sandbox, *profiles):
    """Stores "ap_profile" and the slot keys as the daemon would, ids 1, 2."""
    put(sandbox, "ap_profile", jsonc([profile(p, i + 1) for i, p in enumerate(profiles)])
        .encode() + b"\0")
    slots = [jtext(p[k]) for p in profiles for k in ("essid", "encrypt", "pass", "workmode")]
    for key, raw in zip(SLOT_KEYS, slots + EMPTY_SLOTS[len(slots):]):
        put(sandbox, key, raw)


def join(sandbox, p):
    """The station now uses hotspot p (the current keys and "wan_type")."""
    put(sandbox, "wan_sta_ssid", p["essid"])
    put(sandbox, "wan_sta_sec", p["encrypt"])
    put(sandbox, "wan_sta_pass", p["pass"])
    put(sandbox, "wan_type", WAN_TYPES.get(p["workmode"], "none"))


def stored_list(sandbox):
    raw = sandbox.store_get("sysconf", "ap_profile")
    assert raw.endswith(b"\0")
    return json.loads(raw[:-1])


def check_stored(sandbox, *profiles):
    """"ap_profile" holds exactly these profiles (with whatever ids the daemon
    drew, as json-c renders them) and the slot keys mirror them."""
    got = stored_list(sandbox)
    assert len(got) == len(profiles)
    expected = [profile(p, g["id"]) for p, g in zip(profiles, got)]
    assert all(isinstance(g["id"], int) for g in got)
    assert sandbox.store_get("sysconf", "ap_profile") == jsonc(expected).encode() + b"\0"
    slots = [jtext(p[k]) for p in profiles for k in ("essid", "encrypt", "pass", "workmode")]
    assert store_bytes(sandbox, SLOT_KEYS) == slots + EMPTY_SLOTS[len(slots):]
    return [g["id"] for g in got]


def dhcp_success(sandbox, daemon, reply=SUCCESS):
    run = Run(sandbox, daemon, "sys_event", {"action": "SYS_EVENT_DHCP_SUCCESS", "arg": "mlan0"},
              len(SERVICE_START))
    assert run.reply == reply
    return run


def forget(sandbox, daemon, value, count=0):
    return Run(sandbox, daemon, "ap_profiles", value, count)


def snapshot(sandbox):
    return store_bytes(sandbox, ["ap_profile"] + SLOT_KEYS)


# Remembering (profile_set through "SYS_EVENT_DHCP_SUCCESS")


def test_first_hotspot_goes_to_slot_1(lw, daemon, sandbox):
    set_list(sandbox)
    join(sandbox, CAFE)
    dhcp_success(sandbox, daemon)
    check_stored(sandbox, CAFE)


def test_second_hotspot_goes_to_slot_2(lw, daemon, sandbox):
    set_list(sandbox, CAFE)
    join(sandbox, HOME)
    run = dhcp_success(sandbox, daemon)
    check_cmds(run.cmds, SERVICE_START + SIMPLEFW)
    ids = check_stored(sandbox, CAFE, HOME)
    assert ids[0] == 1


def test_same_hotspot_is_replaced_in_place_with_a_new_id(lw, daemon, sandbox):
    set_list(sandbox, CAFE, HOME)
    cafe = dict(CAFE, **{"pass": "new-pass", "workmode": "Public Bridge Mode"})
    join(sandbox, cafe)
    dhcp_success(sandbox, daemon)
    ids = check_stored(sandbox, cafe, HOME)
    assert ids[0] != 1 and ids[1] == 2


def test_third_hotspot_drops_the_oldest(lw, daemon, sandbox):
    set_list(sandbox, CAFE, HOME)
    join(sandbox, PARK)
    dhcp_success(sandbox, daemon)
    ids = check_stored(sandbox, HOME, PARK)
    assert ids[0] == 2


def test_workmode_without_a_station_type_is_an_empty_string(lw, daemon, sandbox):
    set_list(sandbox)
    join(sandbox, dict(CAFE, workmode=""))
    dhcp_success(sandbox, daemon)
    check_stored(sandbox, dict(CAFE, workmode=""))


def test_missing_members_are_kept_as_null(lw, daemon, sandbox):
    put(sandbox, "ap_profile", b'[ { "essid": "Old" } ]\0')
    join(sandbox, HOME)
    dhcp_success(sandbox, daemon)
    got = stored_list(sandbox)
    assert got[0] == {"id": None, "essid": "Old", "encrypt": None, "pass": None,
                      "workmode": None}
    assert store_bytes(sandbox, SLOT_KEYS) == [b'"Old"\0', b"null\0", b"null\0", b"null\0",
                                               jtext("Home"), jtext("wpa"), jtext("home-pass"),
                                               jtext("Public Bridge Mode")]


def test_percent_in_ssid_and_pass_phrase(lw, daemon, sandbox):
    """The slot keys were written with the value as a printf format: "%%"
    gives "%"; any other "%" sequence (a missing argument in the original)
    stays as it is.  "ap_profile" keeps the text unchanged."""
    odd = dict(CAFE, essid="100%% free %s", **{"pass": "p%d%%x%"})
    set_list(sandbox)
    join(sandbox, odd)
    dhcp_success(sandbox, daemon)
    got = stored_list(sandbox)
    assert got[0]["essid"] == "100%% free %s" and got[0]["pass"] == "p%d%%x%"
    assert store_bytes(sandbox, SLOT_KEYS)[:4] == [jtext("100% free %s"), jtext("wpa2"),
                                                   jtext("p%d%x%"), jtext("Station Mode")]


@pytest.mark.parametrize("raw,warning", [
    (b"not json\0", "approfiles_sysconf_get: failed to parse evbuf."),
    (b'{ "essid": "Cafe" }\0', "approfiles_sysconf_get: unexpected json type."),
    (b'[ "Cafe" ]\0', None),
    (b'[ { "essid": "A" }, { "essid": "B" }, { "essid": "C" } ]\0',
     "approfiles_sysconf_get: Invalid length of approfiles."),
])
def test_unusable_profile_list_is_internal_error(lw, daemon, sandbox, raw, warning):
    put(sandbox, "ap_profile", raw)
    for key in SLOT_KEYS:
        put(sandbox, key, b'""\0')
    join(sandbox, CAFE)
    before = snapshot(sandbox)
    run = dhcp_success(sandbox, daemon, INTERNAL)
    assert snapshot(sandbox) == before
    run.warned("" if warning is None else "[warn] %s\n\n" % warning)


# Forgetting ("ap_profiles")


def test_forget_all_empties_the_list_and_stops_the_wan(lw, daemon, sandbox):
    set_list(sandbox, CAFE, HOME)
    put(sandbox, "wan_status", "WAN_DOWN", "rtconf")
    run = forget(sandbox, daemon, {"action": "forget", "essid": []}, len(SERVICE_STOP))
    assert run.reply == SUCCESS
    check_cmds(run.cmds, SERVICE_STOP)
    assert sandbox.store_get("sysconf", "ap_profile") == b"[ ]\0"
    assert store_bytes(sandbox, SLOT_KEYS) == EMPTY_SLOTS
    run.warned("[debug] gw_profiles_forget: forget all ap profile list.\n\n"
               "[debug] approfiles_sysconf_set: profiles to be set is [ ].\n\n")


def test_forget_the_hotspot_in_use_stops_the_wan(lw, daemon, sandbox):
    set_list(sandbox, CAFE, HOME)
    join(sandbox, CAFE)
    put(sandbox, "wan_status", "WAN_UP", "rtconf")
    run = forget(sandbox, daemon, {"action": "forget", "essid": ["Cafe"]}, len(SERVICE_STOP))
    assert run.reply == SUCCESS
    check_cmds(run.cmds, SERVICE_STOP)
    check_stored(sandbox, HOME)
    run.warned('[debug] gw_profiles_forget: forget essid is "Cafe".\n\n'
               '[debug] approfiles_sysconf_get: profile 0: id 1, essid "Cafe", encrypt "wpa2",'
               ' workmode "Station Mode".\n\n'
               '[debug] approfiles_sysconf_get: profile 1: id 2, essid "Home", encrypt "wpa",'
               ' workmode "Public Bridge Mode".\n\n'
               '[debug] approfiles_sysconf_set: profiles to be set is [ { "id": 2, "essid": "Home",'
               ' "encrypt": "wpa", "pass": "home-pass", "workmode": "Public Bridge Mode" } ].\n\n'
               '[debug] gw_wan_status_check: wan_sta_ssid is "Cafe", essid is "Cafe".\n\n')
    assert sandbox.store_get("rtconf", "wan_status") == b'"WAN_DOWN"\0'


def test_forget_another_hotspot_keeps_the_wan(lw, daemon, sandbox):
    set_list(sandbox, CAFE, HOME)
    join(sandbox, CAFE)
    put(sandbox, "wan_status", "WAN_UP", "rtconf")
    run = forget(sandbox, daemon, {"action": "forget", "essid": ["Home"]})
    assert (run.reply, run.cmds) == (SUCCESS, [])
    check_stored(sandbox, CAFE)
    assert sandbox.store_get("rtconf", "wan_status") == b'"WAN_UP"\0'


def test_forget_several(lw, daemon, sandbox):
    set_list(sandbox, CAFE, HOME)
    run = forget(sandbox, daemon, {"action": "forget", "essid": ["Home", "Cafe"]})
    assert (run.reply, run.cmds) == (SUCCESS, [])
    check_stored(sandbox)


def test_forget_unknown_ssid_changes_nothing(lw, daemon, sandbox):
    set_list(sandbox, CAFE, HOME)
    before = snapshot(sandbox)
    run = forget(sandbox, daemon, {"action": "forget", "essid": ["Nope"]})
    assert (run.reply, run.cmds) == (INTERNAL, [])
    assert snapshot(sandbox) == before
    run.warned('[debug] gw_profiles_forget: forget essid is "Nope".\n\n'
               '[debug] approfiles_sysconf_get: profile 0: id 1, essid "Cafe", encrypt "wpa2",'
               ' workmode "Station Mode".\n\n'
               '[debug] approfiles_sysconf_get: profile 1: id 2, essid "Home", encrypt "wpa",'
               ' workmode "Public Bridge Mode".\n\n'
               "[warn] profile_forget: Not found the forget ssid.\n\n")


def test_forget_stops_at_the_first_unknown_ssid(lw, daemon, sandbox):
    """Profiles forgotten before the failure stay forgotten."""
    set_list(sandbox, CAFE, HOME)
    run = forget(sandbox, daemon, {"action": "forget", "essid": ["Home", "Nope", "Cafe"]})
    assert (run.reply, run.cmds) == (INTERNAL, [])
    check_stored(sandbox, CAFE)


def test_ssid_compares_as_json_text(lw, daemon, sandbox):
    """The element is compared by its JSON text, quotes included: the number
    7 does not match the stored string "7"."""
    seven = dict(CAFE, essid="7")
    set_list(sandbox, seven)
    before = snapshot(sandbox)
    assert forget(sandbox, daemon, {"action": "forget", "essid": [7]}).reply == INTERNAL
    assert snapshot(sandbox) == before
    assert forget(sandbox, daemon, {"action": "forget", "essid": ["7"]}).reply == SUCCESS
    check_stored(sandbox)


@pytest.mark.parametrize("value", [{"action": "remember", "essid": []},
                                   {"action": "Forget", "essid": []},
                                   {"action": 1}])
def test_other_actions_do_nothing(lw, daemon, sandbox, value):
    set_list(sandbox, CAFE)
    before = snapshot(sandbox)
    run = forget(sandbox, daemon, value)
    assert (run.reply, run.cmds, run.all_out) == (SUCCESS, [], "")
    assert snapshot(sandbox) == before


@pytest.mark.parametrize("value", [{"action": "forget"},
                                   {"action": "forget", "essid": "Cafe"},
                                   {"action": "forget", "essid": {}}])
def test_essid_not_an_array_is_internal_error(lw, daemon, sandbox, value):
    set_list(sandbox, CAFE)
    before = snapshot(sandbox)
    run = forget(sandbox, daemon, value)
    assert (run.reply, run.cmds) == (INTERNAL, [])
    assert snapshot(sandbox) == before
    run.warned("[warn] gw_profiles_forget: Invalid input parameters.\n\n")


def test_null_argument(lw, daemon, sandbox):
    run = forget(sandbox, daemon, None)
    assert (run.reply, run.cmds, run.all_out) == (INVALID, [], "")


def test_non_object_argument(lw, daemon, sandbox):
    run = forget(sandbox, daemon, ["forget"])
    assert (run.reply, run.cmds, run.all_out) == (INVALID, [], "Unexpected json type.\n")


def test_missing_action(lw, daemon, sandbox):
    run = forget(sandbox, daemon, {"essid": []})
    assert (run.reply, run.cmds, run.all_out) == (INVALID, [], "")
