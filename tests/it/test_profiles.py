"""Saved hotspot profiles: remembered on the station's DHCP lease, forgotten with "ap_profiles"."""
import json

import pytest

from helpers import wait_for
from wifi_util import INTERNAL, INVALID, NOT_OBJECT, SUCCESS, Effects, conf, jtext  # noqa: F401

SLOTS = ["wan_sta_%s%d" % (k, n) for n in (1, 2) for k in ("ssid", "sec", "pass", "trustmode")]
CAFE, HOME = ["Cafe", "wpa2", "cafe-pass", "Station Mode"], ["Home", "wpa", "home-pass", "Public Bridge Mode"]
PARK, NEW = ["Park", "none", "", "Private Bridge Mode"], "new"
WAN_TYPES = {"Station Mode": "wireless_sta_trust", "Public Bridge Mode": "wireless_sta",
             "Private Bridge Mode": "wireless_sta_private"}
STOP = [["/usr/bin/killall", "udhcpc"]] + [["/sbin/ifconfig", "mlan0", "0.0.0.0"]] * 2 + [
    ["/etc/app/gw_simplefw.sh", "reset"], ["/etc/app/gw_ssdpd.sh"], ["/etc/demo/minidlna_stop.sh"]]
GET = "[debug] approfiles_sysconf_get: profile %d: id %d, essid \"%s\", encrypt \"%s\", workmode \"%s\".\n\n"
LISTED = GET % (0, 1, "Cafe", "wpa2", "Station Mode") + GET % (1, 2, "Home", "wpa", "Public Bridge Mode")


def jsonc(profiles, ids):
    """The list as json-c renders it, and the store's NUL."""
    return ("[ %s ]" % ", ".join("{ %s }" % ", ".join('"%s": %s' % (k, json.dumps(v)) for k, v in zip(
        ("id", "essid", "encrypt", "pass", "workmode"), [i] + p)) for p, i in zip(profiles, ids)) if profiles
            else "[ ]").encode() + b"\0"


def store(sandbox, conf, profiles, current=None):
    conf("ap_profile", profiles if isinstance(profiles, bytes) else jsonc(profiles, [1, 2]))
    texts = [] if isinstance(profiles, bytes) else [x for p in profiles for x in p]
    for key, value in zip(SLOTS, texts + [""] * 8):
        conf(key, value)
    for key, value in zip(("wan_sta_ssid", "wan_sta_sec", "wan_sta_pass"), current or []):
        conf(key, value)
    conf("wan_type", WAN_TYPES.get(current[3], "none")) if current else None
    return [sandbox.store_get("sysconf", k) for k in ["ap_profile"] + SLOTS]


def warned(daemon, err0, text):
    wait_for(lambda: daemon.stderr()[len(err0):].startswith(text))
    assert daemon.stderr()[len(err0):] == text


@pytest.mark.parametrize("stored, current, expected, ids", [
    ([], CAFE, [CAFE], [NEW]), ([CAFE], HOME, [CAFE, HOME], [1, NEW]),
    ([CAFE, HOME], CAFE[:2] + ["new-pass", "Public Bridge Mode"], [CAFE[:2] + ["new-pass", "Public Bridge Mode"], HOME], [NEW, 2]),
    ([CAFE, HOME], PARK, [HOME, PARK], [2, NEW]), ([], CAFE[:3] + [""], [CAFE[:3] + [""]], [NEW]),
    (b'[ { "essid": "Old" } ]\0', HOME, [["Old", None, None, None], HOME], [None, NEW]),
    ([], ["100%% free %s", "wpa2", "p%d%%x%", "Station Mode"], [["100%% free %s", "wpa2", "p%d%%x%", "Station Mode"]], [NEW])],
    ids=["first", "second", "same-replaced", "third-drops-oldest", "no-workmode", "missing-members", "percent"])
def test_dhcp_lease_remembers_the_hotspot(daemon, sandbox, conf, stored, current, expected, ids):
    store(sandbox, conf, stored, current)
    e = Effects(sandbox, daemon, {"sys_event": {"action": "SYS_EVENT_DHCP_SUCCESS", "arg": "mlan0"}})
    got = [p["id"] for p in json.loads(sandbox.store_get("sysconf", "ap_profile")[:-1])]
    assert (e.reply, sandbox.store_get("sysconf", "ap_profile")) == (SUCCESS, jsonc(expected, got))
    assert all(isinstance(i, int) and i not in (1, 2) if want == NEW else i == want for i, want in zip(got, ids))
    # the slot keys were written with each text as a printf format: "%%" gives "%"
    slots = [None if x is None else x.replace("%%", "%") for p in expected for x in p]
    assert [sandbox.store_get("sysconf", k) for k in SLOTS] == [jtext(x) for x in slots + [""] * (8 - len(slots))]


@pytest.mark.parametrize("raw, warning", [
    (b"not json\0", "failed to parse evbuf."), (b'{ "essid": "Cafe" }\0', "unexpected json type."),
    (b'[ "Cafe" ]\0', None), (b'[ { "essid": "A" }, { "essid": "B" }, { "essid": "C" } ]\0', "Invalid length of approfiles.")])
def test_unusable_list_is_an_internal_error(daemon, sandbox, conf, raw, warning):
    before, err0 = store(sandbox, conf, raw, CAFE), daemon.stderr()
    e = Effects(sandbox, daemon, {"sys_event": {"action": "SYS_EVENT_DHCP_SUCCESS", "arg": "mlan0"}})
    assert (e.reply, [sandbox.store_get("sysconf", k) for k in ["ap_profile"] + SLOTS]) == (INTERNAL, before)
    warned(daemon, err0, "" if warning is None else "[warn] approfiles_sysconf_get: %s\n\n" % warning)


FORGET, SET = "[debug] gw_profiles_forget: ", "[debug] approfiles_sysconf_set: profiles to be set is "
REMOVE = ("WPACli: Not connected to wpa_supplicant, command REMOVE_NETWORK 0 dropped\n"
          "WiFi: Send REMOVE to WPA failed\n")
NOT_ARRAY = (INTERNAL, None, "", "[warn] gw_profiles_forget: Invalid input parameters.\n\n")


@pytest.mark.parametrize("value, current, reply, left, out, err", [
    ({"action": "forget", "essid": []}, None, SUCCESS, [], "", FORGET + "forget all ap profile list.\n\n" + SET + "[ ].\n\n"),
    ({"action": "forget", "essid": ["Cafe"]}, CAFE, SUCCESS, [1], "", FORGET + 'forget essid is "Cafe".\n\n' + LISTED + SET
     + '[ { "id": 2, "essid": "Home", "encrypt": "wpa", "pass": "home-pass", "workmode": "Public Bridge Mode" } ].\n\n'
     '[debug] gw_wan_status_check: wan_sta_ssid is "Cafe", essid is "Cafe".\n\n'),
    ({"action": "forget", "essid": ["Home"]}, CAFE, SUCCESS, [0], "", None),
    ({"action": "forget", "essid": ["Home", "Cafe"]}, None, SUCCESS, [], "", None),
    ({"action": "forget", "essid": ["Nope"]}, None, INTERNAL, None, "", FORGET + 'forget essid is "Nope".\n\n' + LISTED
     + "[warn] profile_forget: Not found the forget ssid.\n\n"),
    ({"action": "forget", "essid": ["Home", "Nope", "Cafe"]}, None, INTERNAL, [0], "", None),
    ({"action": "forget", "essid": [7]}, None, INTERNAL, None, "", None),
    ({"action": "remember", "essid": []}, None, SUCCESS, None, "", None),
    ({"action": "Forget", "essid": []}, None, SUCCESS, None, "", None), ({"action": 1}, None, SUCCESS, None, "", None),
    ({"action": "forget"}, None) + NOT_ARRAY,
    ({"action": "forget", "essid": "Cafe"}, None) + NOT_ARRAY, ({"action": "forget", "essid": {}}, None) + NOT_ARRAY,
    (None, None, INVALID, None, "", None), (["forget"], None, INVALID, None, NOT_OBJECT, None),
    ({"essid": []}, None, INVALID, None, "", None)])
def test_forget(daemon, sandbox, conf, value, current, reply, left, out, err):
    """left: the indexes of the profiles kept (None: nothing changes); forgetting the hotspot
    in use, or all, stops the WAN."""
    before = store(sandbox, conf, [CAFE, HOME], current)
    conf("wan_status", "WAN_UP" if current else "WAN_DOWN", "rtconf")
    err0 = daemon.stderr()
    err0, e = daemon.stderr(), Effects(sandbox, daemon, {"ap_profiles": value})
    stops = left is not None and len(left) < 2 and (left == [] and "essid" in value and value["essid"] == [] or current and current[0] in value["essid"])
    assert (e.reply, e.out, e.cmds) == (reply, REMOVE if stops else out, STOP if stops else [])
    if left is None:
        assert [sandbox.store_get("sysconf", k) for k in ["ap_profile"] + SLOTS] == before
    else:
        kept = [[CAFE, HOME][i] for i in left]
        assert sandbox.store_get("sysconf", "ap_profile") == jsonc(kept, [i + 1 for i in left])
        assert [sandbox.store_get("sysconf", k) for k in SLOTS] == [jtext(x) for x in [x for p in kept for x in p] + [""] * (8 - 4 * len(kept))]
    assert sandbox.store_get("rtconf", "wan_status") == jtext("WAN_DOWN" if stops or not current else "WAN_UP")
    err is None or warned(daemon, err0, err)
    if reply == INTERNAL:
        warning = ("profile_forget: Not found the forget ssid" if isinstance(value.get("essid"), list)
                   else "gw_profiles_forget: Invalid input parameters")
        wait_for(lambda: daemon.stderr()[len(err0):].endswith("[warn] %s.\n\n" % warning))
