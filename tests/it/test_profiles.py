"""Saved hotspot profiles: remembered on the station's DHCP lease, forgotten with "ap_profiles"."""
import json

import pytest

from helpers import wait_for
from wifi_util import DROPPED, INTERNAL, INVALID, NOT_OBJECT, SUCCESS, Effects, conf, jtext  # noqa: F401

SLOTS = ["wan_sta_%s%d" % (k, n) for n in (1, 2) for k in ("ssid", "sec", "pass", "trustmode")]
CAFE, HOME = ["Cafe", "wpa2", "cafe-pass", "Station Mode"], ["Home", "wpa", "home-pass", "Public Bridge Mode"]
PARK, NEW, CAFE2 = ["Park", "none", "", "Private Bridge Mode"], "new", ["Cafe", "wpa2", "new-pass", "Public Bridge Mode"]
ODD = ["100%% free %s", "wpa2", "p%d%%x%", "Station Mode"]
WAN_TYPES = {"Station Mode": "wireless_sta_trust", "Public Bridge Mode": "wireless_sta"}
STOP = [["/usr/bin/killall", "udhcpc"]] + [["/sbin/ifconfig", "mlan0", "0.0.0.0"]] * 2 + [
    ["/etc/app/gw_simplefw.sh", "reset"], ["/etc/app/gw_ssdpd.sh"], ["/etc/demo/minidlna_stop.sh"]]
REMOVE = DROPPED % "REMOVE_NETWORK 0" + "WiFi: Send REMOVE to WPA failed\n"
LEASE = {"sys_event": {"action": "SYS_EVENT_DHCP_SUCCESS", "arg": "mlan0"}}


def jsonc(profiles, ids):
    """The list as json-c renders it, and the store's NUL."""
    return ("[ %s ]" % ", ".join("{ %s }" % ", ".join('"%s": %s' % (k, json.dumps(v)) for k, v in zip(
        ("id", "essid", "encrypt", "pass", "workmode"), [i] + p)) for p, i in zip(profiles, ids)) if profiles
            else "[ ]").encode() + b"\0"


def stored(sandbox):
    return [sandbox.store_get("sysconf", k) for k in ["ap_profile"] + SLOTS]


def store(sandbox, conf, profiles, current=None):
    conf("ap_profile", profiles if isinstance(profiles, bytes) else jsonc(profiles, [1, 2]))
    texts = [] if isinstance(profiles, bytes) else [x for p in profiles for x in p]
    for key, value in list(zip(SLOTS, texts + [""] * 8)) + list(zip(("wan_sta_ssid", "wan_sta_sec", "wan_sta_pass"), current or [])):
        conf(key, value)
    current and conf("wan_type", WAN_TYPES.get(current[3], "wireless_sta_private" if current[3] else "none"))
    return stored(sandbox)


def slots(profiles):
    return [jtext(x) for x in [x for p in profiles for x in p] + [""] * (8 - 4 * len(profiles))]


def warned(daemon, err0, text):
    wait_for(lambda: daemon.stderr()[len(err0):].startswith(text))
    assert daemon.stderr()[len(err0):] == text


@pytest.mark.parametrize("before, current, after, ids", [
    ([], CAFE, [CAFE], [NEW]), ([CAFE], HOME, [CAFE, HOME], [1, NEW]), ([CAFE, HOME], CAFE2, [CAFE2, HOME], [NEW, 2]),
    ([CAFE, HOME], PARK, [HOME, PARK], [2, NEW]), ([], CAFE[:3] + [""], [CAFE[:3] + [""]], [NEW]),
    (b'[ { "essid": "Old" } ]\0', HOME, [["Old", None, None, None], HOME], [None, NEW]), ([], ODD, [ODD], [NEW])],
    ids=["first", "second", "same-replaced", "third-drops-oldest", "no-workmode", "missing-members", "percent"])
def test_dhcp_lease_remembers_the_hotspot(daemon, sandbox, conf, before, current, after, ids):
    store(sandbox, conf, before, current)
    assert Effects(sandbox, daemon, LEASE).reply == SUCCESS
    got = [p["id"] for p in json.loads(sandbox.store_get("sysconf", "ap_profile")[:-1])]
    assert all(isinstance(i, int) and i not in (1, 2) if want == NEW else i == want for i, want in zip(got, ids))
    # the slot keys were written with each text as a printf format: "%%" gives "%"
    assert stored(sandbox) == [jsonc(after, got)] + slots([[x and x.replace("%%", "%") for x in p] for p in after])


@pytest.mark.parametrize("raw, warning", [
    (b"not json\0", "failed to parse evbuf."), (b'{ "essid": "Cafe" }\0', "unexpected json type."), (b'[ "Cafe" ]\0', None),
    (b'[ { "essid": "A" }, { "essid": "B" }, { "essid": "C" } ]\0', "Invalid length of approfiles.")])
def test_unusable_list_is_an_internal_error(daemon, sandbox, conf, raw, warning):
    before, err0 = store(sandbox, conf, raw, CAFE), daemon.stderr()
    assert (Effects(sandbox, daemon, LEASE).reply, stored(sandbox)) == (INTERNAL, before)
    warned(daemon, err0, "" if warning is None else "[warn] approfiles_sysconf_get: %s\n\n" % warning)


def forget(*names):
    return {"action": "forget", "essid": list(names)}


LISTED = "".join('[debug] approfiles_sysconf_get: profile %d: id %d, essid "%s", encrypt "%s", workmode "%s".\n\n' % (
    i, i + 1, *p[:2], p[3]) for i, p in enumerate([CAFE, HOME]))
NOT_FOUND = '[debug] gw_profiles_forget: forget essid is "Nope".\n\n' + LISTED + "[warn] profile_forget: Not found the forget ssid.\n\n"
IN_USE = ('[debug] gw_profiles_forget: forget essid is "Cafe".\n\n' + LISTED + "[debug] approfiles_sysconf_set: profiles to be "
          'set is %s.\n\n[debug] gw_wan_status_check: wan_sta_ssid is "Cafe", essid is "Cafe".\n\n' % jsonc([HOME], [2])[:-1].decode())
ALL = "[debug] gw_profiles_forget: forget all ap profile list.\n\n[debug] approfiles_sysconf_set: profiles to be set is [ ].\n\n"
BAD = "[warn] gw_profiles_forget: Invalid input parameters.\n\n"


@pytest.mark.parametrize("value, current, reply, left, out, err", [
    (forget(), None, SUCCESS, [], REMOVE, ALL), (forget("Cafe"), CAFE, SUCCESS, [1], REMOVE, IN_USE),
    (forget("Home"), CAFE, SUCCESS, [0], "", None), (forget("Home", "Cafe"), None, SUCCESS, [], "", None),
    (forget("Nope"), None, INTERNAL, None, "", NOT_FOUND), (forget("Home", "Nope", "Cafe"), None, INTERNAL, [0], "", None),
    ({"action": "remember", "essid": []}, None, SUCCESS, None, "", ""), ({"action": "Forget", "essid": []}, None, SUCCESS, None, "", ""),
    ({"action": 1}, None, SUCCESS, None, "", ""), ({"action": "forget"}, None, INTERNAL, None, "", BAD),
    ({"action": "forget", "essid": "Cafe"}, None, INTERNAL, None, "", BAD), ({"action": "forget", "essid": {}}, None, INTERNAL, None, "", BAD),
    (None, None, INVALID, None, "", ""), (["forget"], None, INVALID, None, NOT_OBJECT, ""), ({"essid": []}, None, INVALID, None, "", "")])
def test_forget(daemon, sandbox, conf, value, current, reply, left, out, err):
    """left: the profiles kept (None: nothing changes); forgetting all, or the hotspot in use, stops the WAN."""
    before = store(sandbox, conf, [CAFE, HOME], current)
    conf("wan_status", "WAN_UP" if current else "WAN_DOWN", "rtconf")
    err0, e = daemon.stderr(), Effects(sandbox, daemon, {"ap_profiles": value})
    assert (e.reply, e.out, e.cmds) == (reply, out, STOP if out == REMOVE else [])
    kept = left is not None and [[CAFE, HOME][i] for i in left]
    assert stored(sandbox) == (before if left is None else [jsonc(kept, [i + 1 for i in left])] + slots(kept))
    assert sandbox.store_get("rtconf", "wan_status") == jtext("WAN_UP" if current and out != REMOVE else "WAN_DOWN")
    err is None or warned(daemon, err0, err)
